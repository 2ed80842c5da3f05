// IsUTF8 and CharUTF8Len against utfcpp's validator, and the round trip of
// valid text through UTF-16.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <utf8/core.h>

#include "NUVSysUCAlgorithm.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const char* p = text.data();
  const int valid = NUVSysUCAlgorithm::IsUTF8(p, size);
  if (p != text.data()) abort();
  const bool reference = utf8::find_invalid(text.begin(), text.end()) == text.end();
  if ((valid == 0) != reference) abort();

  const int first = NUVSysUCAlgorithm::CharUTF8Len(text.c_str(), size);
  if (size == 0 || text[0] == '\0') {
    if (first != 0) abort();
  } else {
    std::string::const_iterator it = text.begin();
    const bool ok = utf8::internal::validate_next(it, text.end()) == utf8::internal::UTF8_OK;
    if (ok != (first > 0) || (ok && first != it - text.begin())) abort();
  }

  if (valid == 0) {
    std::vector<unsigned short> u(size + 1);
    auto* end = NUVSysUCAlgorithm::unchecked::utf8to16(text.data(), text.data() + size, u.data());
    std::string back(3 * size + 4, '\0');
    back.resize(static_cast<size_t>(
        NUVSysUCAlgorithm::unchecked::utf16to8(u.data(), end, &back[0]) - back.data()));
    if (back != text) abort();
    if (NUVSysUCAlgorithm::HashV3FromUTF8(text.data(), size, 5) !=
        NUVSysUCAlgorithm::HashV3FromUCS2(u.data(), static_cast<unsigned long>(end - u.data()), 5))
      abort();
  }
  return 0;
}
