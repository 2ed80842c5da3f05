// The UTF-8 converter on arbitrary bytes: no write past any buffer, and a
// conversion resumed in chunks gives the one-shot result.
#include "codepage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const NUVSysCodePage utf8("UTF-8");
  fuzzMbcsToUtf16(utf8, true, data, size);
  return 0;
}
