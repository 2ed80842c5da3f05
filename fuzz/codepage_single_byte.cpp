// Single-byte code pages against iconv driven by the converter's own loops:
// the first byte picks the code page and the room of the resumable calls;
// the rest is converted as bytes (one shot and resumed) and as UTF-16 units.
// Every result must be the reference's, unit for unit and byte for byte.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "IconvReference.h"
#include "NUVSysCodePage.h"

namespace {

const char* const kPages[] = {"ISO-8859-1", "CP1252", "KOI8-R", "ISO-8859-3"};
constexpr size_t kCount = sizeof kPages / sizeof kPages[0];

struct Page {
  explicit Page(const char* name) : cp(name), ref(name) {}
  NUVSysCodePage cp;
  IconvPair ref;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Page* pages[kCount];
  if (pages[0] == nullptr) {
    for (size_t i = 0; i < kCount; ++i) pages[i] = new Page(kPages[i]);
  }
  if (size < 1) return 0;
  Page& page = *pages[data[0] % kCount];
  const int cap = 1 + data[0] / kCount % 40;
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);

  // One shot.
  std::vector<unsigned short> whole(text.size() + 2);
  int units = -1;
  page.cp.ConvertMBCSToUTF16(text.data(), static_cast<int>(text.size()), whole.data(), &units);
  whole.resize(static_cast<size_t>(units));
  if (whole != iconvTo16(page.ref.to16, text)) abort();

  // Resumed, call by call.
  const char* rp = text.data();
  size_t rLeft = text.size();
  const char* p = text.data();
  size_t left = text.size();
  while (left > 0) {
    std::vector<unsigned short> got(static_cast<size_t>(cap) + 1);
    got.resize(page.cp.ConvertMBCSToUTF16(p, left, got.data(), static_cast<size_t>(cap)));
    if (got != iconvTo16(page.ref.to16, rp, rLeft, cap) || left != rLeft) abort();
  }

  // The same bytes as UTF-16 units.
  const size_t n = (size - 1) / 2;
  std::vector<unsigned short> u16(n);
  if (n > 0) std::memcpy(u16.data(), data + 1, 2 * n);
  std::string bytes(4 * n + 1, '\0');
  int written = -1;
  page.cp.ConvertUTF16ToMBCS(u16.data(), static_cast<int>(n), &bytes[0], &written);
  if (written < 0 || bytes[static_cast<size_t>(written)] != '\0') abort();
  bytes.resize(static_cast<size_t>(written));
  if (bytes != iconvFrom16(page.ref.from16, u16)) abort();
  return 0;
}
