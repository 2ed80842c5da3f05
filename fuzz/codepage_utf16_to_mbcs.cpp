// UTF-16 to a code page chosen by the first byte, on arbitrary units: the
// result fits in 4 * n + 1 bytes, converting it back never overruns, and the
// two-way test runs.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "NUVSysCodePage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const NUVSysCodePage pages[] = {NUVSysCodePage("UTF-8"), NUVSysCodePage("SHIFT_JIS"),
                                         NUVSysCodePage("GB18030"), NUVSysCodePage("CP1252"),
                                         NUVSysCodePage("EUC-JP"), NUVSysCodePage(nullptr)};
  if (size < 1) return 0;
  const NUVSysCodePage& cp = pages[data[0] % (sizeof pages / sizeof pages[0])];
  const size_t n = (size - 1) / 2;
  std::unique_ptr<unsigned short[]> units(new unsigned short[n + 1]);
  std::memcpy(units.get(), data + 1, 2 * n);

  std::unique_ptr<char[]> bytes(new char[4 * n + 1]);
  int written = -1;
  const int got = cp.ConvertUTF16ToMBCS(units.get(), static_cast<int>(n), bytes.get(), &written);
  if (got != written || written < 0 || static_cast<size_t>(written) > 4 * n) abort();

  std::unique_ptr<unsigned short[]> back(new unsigned short[static_cast<size_t>(written) + 2]);
  int again = -1;
  cp.ConvertMBCSToUTF16(bytes.get(), written, back.get(), &again);
  if (again < 0 || again > written + 1) abort();
  cp.CanConvertUTF16ToMBCS(units.get(), static_cast<int>(n < 64 ? n : 64));
  return 0;
}
