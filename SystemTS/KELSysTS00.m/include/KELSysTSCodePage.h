// KELSysTSCodePage.h - the static conversion front used by the string code:
// the process code page through the environment converter, UTF-8 through the
// unchecked transforms, base64 through NUVSysConverter.
//
// Threads: stateless, callable from any thread. Buffer sizes as in
// NUVSysCodePage.h and NUVSysUCAlgorithm.h.
#ifndef KELSYSTSCODEPAGE_H
#define KELSYSTSCODEPAGE_H

#include <cstddef>

#include "SystemTSCommon.h"

class SYSTEMTS_API KELSysTSCodePage {
 public:
  // NUVSysCodePage::GetEnvConverter().ConvertMBCSToUTF16 (one-shot form).
  static int ConvertStrToUcs(const char* src, int srcLen, unsigned short* dst, int* dstLen);
  // NUVSysCodePage::GetEnvConverter().ConvertUTF16ToMBCS.
  static int ConvertUcsToStr(unsigned short* src, int n, char* dst, int* dstLen);
  // The unchecked UTF-8 to UTF-16 transform (no terminator); stores the units
  // through `dstLen` when non-null. Returns 0.
  static int ConvertUTF8ToUCS2(const char* src, size_t srcLen, unsigned short* dst, int* dstLen);
  // The unchecked UTF-16 to UTF-8 transform (no terminator); stores the
  // bytes through `dstLen` when non-null. Returns 0.
  static int ConvertUCS2ToUTF8(unsigned short* src, int n, char* dst, size_t* dstLen);
  // NUVSysConverter::ConvertToBase64 and ConvertFromBase64 with 32-bit
  // lengths; `data` is only read (the parameter is not const, as callers
  // built against this signature expect). Ownership and failures as in
  // NUVSysConverter.h: `text`/`data` come from new[], the caller delete[]s
  // them; 0x80004005 (E_FAIL) with `text` null, or `data` null and `n` 0.
  // A decoded length that does not fit in 32 bits is such a failure too,
  // never a truncated count.
  static int ConvertToBase64(unsigned char* data, unsigned int n, char*& text);
  static int ConvertFromBase64(const char* text, unsigned char*& data, unsigned int& n);
};

#endif  // KELSYSTSCODEPAGE_H
