// The SHIFT_JIS converter (iconv, with the 0x3F00 recovery) on arbitrary
// bytes: no write past any buffer, no endless loop.
#include "codepage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const NUVSysCodePage sjis("SHIFT_JIS");
  fuzzMbcsToUtf16(sjis, false, data, size);
  return 0;
}
