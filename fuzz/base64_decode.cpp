// base64 decoding of arbitrary text. Checked on every input:
//  - acceptance agrees with a plain character-by-character reading of the rules,
//    so the vector decoder can neither take nor refuse more than the scalar one;
//  - a failure leaves `data` null and `n` 0;
//  - an accepted text of length L gives between 3*(L/4)-2 and 3*(L/4) bytes;
//  - the bytes encode back to the text, except for the one character that holds
//    the last group's unchecked padding bits, and that re-encoding decodes to the
//    same bytes. With zero padding bits the text comes back exactly.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "NUVSysConverter.h"

namespace {

int value(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

// Alphabet characters only, except '=' as the last character or the last two.
bool acceptable(const char* t, size_t len) {
  if (len % 4 != 0) return false;
  for (size_t i = 0; i < len; ++i) {
    if (value(static_cast<unsigned char>(t[i])) >= 0) continue;
    if (t[i] != '=' || !(i == len - 1 || (i == len - 2 && t[len - 1] == '='))) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const char* t = text.c_str();
  const size_t len = std::strlen(t);  // decoding stops at an embedded NUL
  unsigned char* out = reinterpret_cast<unsigned char*>(1);
  size_t n = 1;
  const int rc = NUVSysConverter::ConvertFromBase64(t, out, n);
  if (rc != 0) {
    if (rc != E_FAIL || out != nullptr || n != 0 || len == 0 || acceptable(t, len)) abort();
    return 0;
  }
  if (len == 0) {
    if (out != nullptr || n != 0) abort();
    return 0;
  }
  if (!acceptable(t, len) || out == nullptr) abort();
  const size_t full = 3 * (len / 4);
  if (n > full || n + 2 < full) abort();

  // The character carrying the padding bits, and whether those bits are zero.
  size_t loose = len;
  bool zeroPadding = true;
  if (t[len - 2] == '=') {
    loose = len - 3;
    zeroPadding = (value(static_cast<unsigned char>(t[loose])) & 0x0F) == 0;
  } else if (t[len - 1] == '=') {
    loose = len - 2;
    zeroPadding = (value(static_cast<unsigned char>(t[loose])) & 0x03) == 0;
  }
  char* again = nullptr;
  if (NUVSysConverter::ConvertToBase64(out, n, again) != 0 || std::strlen(again) != len) abort();
  for (size_t i = 0; i < len; ++i)
    if (again[i] != t[i] && (i != loose || zeroPadding)) abort();

  unsigned char* twice = nullptr;
  size_t m = 0;
  if (NUVSysConverter::ConvertFromBase64(again, twice, m) != 0 || m != n || std::memcmp(twice, out, n) != 0)
    abort();
  delete[] twice;
  delete[] again;
  delete[] out;
  return 0;
}
