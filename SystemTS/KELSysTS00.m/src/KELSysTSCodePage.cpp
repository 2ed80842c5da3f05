// KELSysTSCodePage: forwards to the environment converter, the UTF
// transforms and the base64 converter.
#include "KELSysTSCodePage.h"

#include <limits>

#include "NUVSysCodePage.h"
#include "NUVSysConverter.h"
#include "NUVSysUCAlgorithm.h"

int KELSysTSCodePage::ConvertStrToUcs(const char* src, int srcLen, unsigned short* dst, int* dstLen) {
  return NUVSysCodePage::GetEnvConverter().ConvertMBCSToUTF16(src, srcLen, dst, dstLen);
}

int KELSysTSCodePage::ConvertUcsToStr(unsigned short* src, int n, char* dst, int* dstLen) {
  return NUVSysCodePage::GetEnvConverter().ConvertUTF16ToMBCS(src, n, dst, dstLen);
}

int KELSysTSCodePage::ConvertUTF8ToUCS2(const char* src, size_t srcLen, unsigned short* dst, int* dstLen) {
  int units = 0;
  if (src != nullptr && dst != nullptr) {
    units = static_cast<int>(NUVSysUCAlgorithm::unchecked::utf8to16(src, src + srcLen, dst) - dst);
  }
  if (dstLen != nullptr) *dstLen = units;
  return 0;
}

int KELSysTSCodePage::ConvertUCS2ToUTF8(unsigned short* src, int n, char* dst, size_t* dstLen) {
  size_t bytes = 0;
  if (src != nullptr && dst != nullptr && n > 0) {
    bytes = static_cast<size_t>(NUVSysUCAlgorithm::unchecked::utf16to8(src, src + n, dst) - dst);
  }
  if (dstLen != nullptr) *dstLen = bytes;
  return 0;
}

int KELSysTSCodePage::ConvertToBase64(unsigned char* data, unsigned int n, char*& text) {
  return NUVSysConverter::ConvertToBase64(data, n, text);
}

int KELSysTSCodePage::ConvertFromBase64(const char* text, unsigned char*& data, unsigned int& n) {
  size_t decoded = 0;
  n = 0;
  const int rc = NUVSysConverter::ConvertFromBase64(text, data, decoded);
  if (rc != 0) return rc;
  if (decoded > std::numeric_limits<unsigned int>::max()) {
    // Over 4 GiB decoded: a 32-bit count would lie about the buffer.
    delete[] data;
    data = nullptr;
    return E_FAIL;
  }
  n = static_cast<unsigned int>(decoded);
  return 0;
}
