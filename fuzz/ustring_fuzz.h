// What the KELUnicodeString fuzz targets share: the text subsystem set to the
// C language (code page UTF-8) before the first input, and the test for
// UTF-16 text that a trip through UTF-8 gives back unchanged.
//
// Each fuzz target is one source file, so this header is included once per
// program and may define libFuzzer's initialisation hook.
#ifndef SYSTEMTS_FUZZ_USTRING_FUZZ_H
#define SYSTEMTS_FUZZ_USTRING_FUZZ_H

#include <cstddef>

#include "NUVSysNLSEnv.h"

// No unpaired surrogate: only such units survive UTF-8 and back unchanged
// (a lone high surrogate swallows the unit after it on the way out).
// `Units` is any sequence of UTF-16 units: std::u16string,
// std::vector<unsigned short>.
template <typename Units>
bool wellFormed(const Units& t) {
  for (size_t k = 0; k < t.size(); ++k) {
    if (t[k] >= 0xDC00 && t[k] <= 0xDFFF) return false;
    if (t[k] >= 0xD800 && t[k] <= 0xDBFF) {
      if (k + 1 == t.size() || t[k + 1] < 0xDC00 || t[k + 1] > 0xDFFF) return false;
      ++k;
    }
  }
  return true;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  NLSCoreChangeLanguage("C");
  return 0;
}

#endif  // SYSTEMTS_FUZZ_USTRING_FUZZ_H
