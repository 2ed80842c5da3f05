// Single-byte code pages against iconv driven by the converter's own loops:
// the first byte picks the code page and the room of the resumable calls;
// the rest is converted as bytes (one shot and resumed) and as UTF-16 units.
// Every result must be the reference's, unit for unit and byte for byte.
#include <iconv.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "NUVSysCodePage.h"

namespace {

const char* const kPages[] = {"ISO-8859-1", "CP1252", "KOI8-R", "ISO-8859-3"};
constexpr size_t kCount = sizeof kPages / sizeof kPages[0];

struct Page {
  NUVSysCodePage cp;
  iconv_t to16;
  iconv_t from16;
  explicit Page(const char* name)
      : cp(name), to16(iconv_open("UTF-16LE", name)), from16(iconv_open(name, "UTF-16LE")) {}
};

// One bounded call of the MBCS-to-UTF-16 loop (cap -1: one shot): a refused
// byte is skipped (one byte in the "C" locale) and becomes 0x3F00 while
// there is room; E2BIG ends the call.
std::vector<unsigned short> refTo16(iconv_t cd, const char*& p, size_t& left, int cap) {
  const size_t room = cap >= 1 ? static_cast<size_t>(cap) : left;
  std::vector<unsigned short> out(room + 1);  // never empty: iconv wants a real output pointer
  char* in = const_cast<char*>(p);
  char* o = reinterpret_cast<char*>(out.data());
  size_t oLeft = 2 * room;
  while (iconv(cd, &in, &left, &o, &oLeft) == static_cast<size_t>(-1) && left > 0 && errno != E2BIG) {
    ++in;
    --left;
    if (oLeft < 2) break;
    *o++ = 0x00;
    *o++ = 0x3F;
    oLeft -= 2;
  }
  iconv(cd, nullptr, nullptr, nullptr, nullptr);
  p = in;
  out.resize(room - oLeft / 2);
  return out;
}

// The UTF-16-to-MBCS loop: '?' for a refused unit.
std::string refFrom16(iconv_t cd, const unsigned short* units, size_t n) {
  std::string out(4 * n, '\0');
  char* in = reinterpret_cast<char*>(const_cast<unsigned short*>(units));
  size_t left = 2 * n;
  char* o = &out[0];
  size_t oLeft = out.size();
  while (left > 0 && iconv(cd, &in, &left, &o, &oLeft) == static_cast<size_t>(-1) && left > 0 && oLeft > 0) {
    *o++ = '?';
    --oLeft;
    in += 2;
    left -= 2;
  }
  iconv(cd, nullptr, nullptr, nullptr, nullptr);
  out.resize(out.size() - oLeft);
  return out;
}

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
  const char* rp = text.data();
  size_t rLeft = text.size();
  if (whole != refTo16(page.to16, rp, rLeft, -1)) abort();

  // Resumed, call by call.
  rp = text.data();
  rLeft = text.size();
  const char* p = text.data();
  size_t left = text.size();
  while (left > 0) {
    std::vector<unsigned short> got(static_cast<size_t>(cap) + 1);
    got.resize(page.cp.ConvertMBCSToUTF16(p, left, got.data(), static_cast<size_t>(cap)));
    if (got != refTo16(page.to16, rp, rLeft, cap) || left != rLeft) abort();
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
  if (bytes != refFrom16(page.from16, u16.data(), n)) abort();
  return 0;
}
