// The code-page converter's loops written out on raw iconv: what a converter
// must give, unit for unit and byte for byte. Used by the code-page tests and
// the single-byte fuzz target.
#ifndef SYSTEMTS_TESTS_ICONV_REFERENCE_H
#define SYSTEMTS_TESTS_ICONV_REFERENCE_H

#include <iconv.h>

#include <cerrno>
#include <initializer_list>
#include <string>
#include <vector>

// Descriptors between a code page and UTF-16LE, both ways.
struct IconvPair {
  explicit IconvPair(const char* page) : to16(iconv_open("UTF-16LE", page)), from16(iconv_open(page, "UTF-16LE")) {}
  ~IconvPair() {
    for (iconv_t cd : {to16, from16}) {
      if (cd != reinterpret_cast<iconv_t>(-1)) iconv_close(cd);
    }
  }
  IconvPair(const IconvPair&) = delete;
  IconvPair& operator=(const IconvPair&) = delete;
  bool valid() const { return to16 != reinterpret_cast<iconv_t>(-1) && from16 != reinterpret_cast<iconv_t>(-1); }
  iconv_t to16, from16;
};

// One call of the MBCS-to-UTF-16 loop: `cap` units at most (-1: one shot), a
// refused byte skipped (one byte in the "C" locale) and replaced by 0x3F00
// while room is left, E2BIG ending the call. Advances p and left.
inline std::vector<unsigned short> iconvTo16(iconv_t cd, const char*& p, size_t& left, int cap) {
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

// All of `bytes` in one call.
inline std::vector<unsigned short> iconvTo16(iconv_t cd, const std::string& bytes) {
  const char* p = bytes.data();
  size_t left = bytes.size();
  return iconvTo16(cd, p, left, -1);
}

// The UTF-16-to-MBCS loop: '?' for a unit iconv refuses.
inline std::string iconvFrom16(iconv_t cd, const std::vector<unsigned short>& units) {
  std::string out(4 * units.size(), '\0');
  char* in = reinterpret_cast<char*>(const_cast<unsigned short*>(units.data()));
  size_t left = 2 * units.size();
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

#endif  // SYSTEMTS_TESTS_ICONV_REFERENCE_H
