// Encoding arbitrary bytes gives 4 * ceil(n / 3) alphabet characters that
// decode back to exactly those bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "NUVSysConverter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const uint8_t kEmpty = 0;
  char* text = nullptr;
  if (NUVSysConverter::ConvertToBase64(size ? data : &kEmpty, size, text) != 0 || !text) abort();
  const size_t len = std::strlen(text);
  if (len != 4 * ((size + 2) / 3)) abort();
  unsigned char* back = nullptr;
  size_t n = 0;
  if (NUVSysConverter::ConvertFromBase64(text, back, n) != 0 || n != size) abort();
  if (size && std::memcmp(back, data, size) != 0) abort();
  delete[] back;
  delete[] text;
  return 0;
}
