// The legacy table decoder on a NUL-terminated copy (its end boundary reads
// the byte at the length): statuses and counts stay within their contract,
// and on valid BMP text it agrees with the unchecked transform.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "NUVSysUCAlgorithm.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);  // c_str() ends in NUL
  std::vector<unsigned short> out(size + 1, 0xBEEF);
  int written = -1;
  const int status = NUVSysUCAlgorithm::ConvertUTF8ToUCS2Legacy(text.c_str(), size, out.data(), &written);
  if (status != 0 && status != -2) abort();
  if (written < 0 || static_cast<size_t>(written) > size || out[size] != 0xBEEF) abort();

  const char* p = text.data();
  bool bmpOnly = true;
  for (unsigned char c : text) bmpOnly = bmpOnly && c < 0xF0;
  if (bmpOnly && NUVSysUCAlgorithm::IsUTF8(p, size) == 0) {
    std::vector<unsigned short> ref(size + 1);
    auto* end = NUVSysUCAlgorithm::unchecked::utf8to16(text.data(), text.data() + size, ref.data());
    if (status != 0 || written != end - ref.data()) abort();
    for (int i = 0; i < written; ++i)
      if (out[i] != ref[i]) abort();
  }
  return 0;
}
