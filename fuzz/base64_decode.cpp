// base64 decoding of arbitrary text: the result follows the length rules, and
// an accepted text encodes back to itself up to the unchecked padding bits.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "NUVSysConverter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const size_t len = std::strlen(text.c_str());  // decoding stops at an embedded NUL
  unsigned char* out = nullptr;
  size_t n = 1;
  const int rc = NUVSysConverter::ConvertFromBase64(text.c_str(), out, n);
  if (rc != 0) {
    if (out != nullptr || n != 0 || rc != E_FAIL) abort();
    return 0;
  }
  if (len % 4 != 0) abort();
  if (n > 3 * (len / 4) || (len > 0 && n + 2 < 3 * (len / 4))) abort();
  if (len == 0) {
    if (out || n) abort();
    return 0;
  }
  char* again = nullptr;
  if (NUVSysConverter::ConvertToBase64(out, n, again) != 0 || std::strlen(again) != len) abort();
  // Same characters except where the last group's unused bits may differ.
  for (size_t i = 0; i + 4 < len; ++i)
    if (again[i] != text[i]) abort();
  unsigned char* twice = nullptr;
  size_t m = 0;
  if (NUVSysConverter::ConvertFromBase64(again, twice, m) != 0 || m != n || std::memcmp(twice, out, n) != 0)
    abort();
  delete[] twice;
  delete[] again;
  delete[] out;
  return 0;
}
