// NUVSysUCAlgorithm.cpp - the public UTF transforms and hashes. The bulk work
// goes to the kernels of UTFKernels.cpp; the character steps in UTFCore.h
// finish every input exactly as the lenient definitions say.
#include "NUVSysUCAlgorithm.h"

#include <climits>
#include <cstdint>

#include <utf8/core.h>

#include "UTFCore.h"

using namespace systemts::detail;

namespace {

const uint8_t* bytes(const char* p) { return reinterpret_cast<const uint8_t*>(p); }
const uint16_t* units(const unsigned short* p) { return reinterpret_cast<const uint16_t*>(p); }
uint16_t* units(unsigned short* p) { return reinterpret_cast<uint16_t*>(p); }

constexpr unsigned kBadArguments = 0xFFFFFFFFu;

// Whether converting all of [s, e) takes at most `capacity` units (UTF-16
// output) or bytes (UTF-8 output). Used only for capacities below one
// character's worst case, so it looks at no more than four characters.
bool wholeInputFits(const uint8_t* s, const uint8_t* e, unsigned capacity) {
  unsigned need = 0;
  while (s < e && need <= capacity) need += utf16Length(decodeUtf8(s, e));
  return need <= capacity;
}

bool wholeInputFits(const uint16_t* s, const uint16_t* e, unsigned capacity) {
  unsigned need = 0;
  while (s < e && need <= capacity) {
    const uint32_t cp = decodeUtf16(s, e);
    need += cp < 0x80u ? 1 : cp < 0x800u ? 2 : cp < 0x10000u ? 3 : 4;
  }
  return need <= capacity;
}

// The bounded part of a conversion, shared by both directions: characters go
// straight to the output while at most `limit` units are written (tested
// before each one; `o0` is the start of the output): first through `kernel`
// with `room` units of room, then one by one through `step`, which decodes one
// character at `s` and writes it at the output it is given, returning the
// end. Then the next character goes in only if all of it fits in `capacity`.
// Leaves `s` after the last character written; returns the end of the output.
template <typename In, typename Out, typename Kernel, typename Step>
Out* boundedRun(const In*& s, const In* e, Out* o0, Out* o, unsigned limit, unsigned capacity, size_t room,
                Kernel kernel, Step step) {
  if (s < e && static_cast<unsigned>(o - o0) <= limit) {
    const auto fast = kernel(s, e, o, room);
    s = fast.in;
    o = fast.out;
  }
  while (s < e && static_cast<unsigned>(o - o0) <= limit) o = step(s, o);
  if (s < e) {
    const In* const start = s;
    Out scratch[4];
    const unsigned n = static_cast<unsigned>(step(s, scratch) - scratch);
    const int left = static_cast<int>(capacity - static_cast<unsigned>(o - o0));
    if (static_cast<int>(n) > left) {
      s = start;
    } else {
      for (unsigned i = 0; i < n; ++i) *o++ = scratch[i];
    }
  }
  return o;
}

}  // namespace

// ------------------------------------------------------------- unchecked --

unsigned short* NUVSysUCAlgorithm::unchecked::utf8to16(const char* begin, const char* end,
                                                       unsigned short* out) {
  if (!(begin < end)) return out;
  const uint8_t* s = bytes(begin);
  const uint8_t* const e = bytes(end);
  auto [p, o] = utfKernels().utf8To16(s, e, units(out), SIZE_MAX);
  while (p < e) o = appendUtf16(decodeUtf8(p, e), o);
  return reinterpret_cast<unsigned short*>(o);
}

unsigned int* NUVSysUCAlgorithm::unchecked::utf8to32(const char* begin, const char* end,
                                                     unsigned int* out) {
  const uint8_t* s = bytes(begin);
  const uint8_t* const e = bytes(end);
  while (s < e) *out++ = decodeUtf8(s, e);
  return out;
}

char* NUVSysUCAlgorithm::unchecked::utf16to8(const unsigned short* begin,
                                             const unsigned short* end, char* out) {
  if (!(begin < end)) return out;
  const uint16_t* const e = units(end);
  auto [p, o] = utfKernels().utf16To8(units(begin), e, reinterpret_cast<uint8_t*>(out), SIZE_MAX);
  while (p < e) o = appendUtf8(decodeUtf16(p, e), o);
  return reinterpret_cast<char*>(o);
}

unsigned int* NUVSysUCAlgorithm::unchecked::utf16to32(const unsigned short* begin,
                                                      const unsigned short* end,
                                                      unsigned int* out) {
  const uint16_t* s = units(begin);
  const uint16_t* const e = units(end);
  while (s < e) *out++ = decodeUtf16(s, e);
  return out;
}

char* NUVSysUCAlgorithm::unchecked::utf32to8(const unsigned int* begin, const unsigned int* end,
                                             char* out) {
  uint8_t* o = reinterpret_cast<uint8_t*>(out);
  for (; begin < end; ++begin) o = appendUtf8(*begin, o);
  return reinterpret_cast<char*>(o);
}

unsigned short* NUVSysUCAlgorithm::unchecked::utf32to16(const unsigned int* begin,
                                                        const unsigned int* end,
                                                        unsigned short* out) {
  uint16_t* o = units(out);
  for (; begin < end; ++begin) o = appendUtf16(*begin, o);
  return reinterpret_cast<unsigned short*>(o);
}

// --------------------------------------------------------------- bounded --

unsigned int NUVSysUCAlgorithm::ConvertUTF8ToUTF16(const char*& src, int& srcLen,
                                                   unsigned short* out, unsigned int capacity) {
  if (!src || srcLen < 0) return kBadArguments;
  const uint8_t* s = bytes(src);
  const uint8_t* const e = s + srcLen;
  unsigned written = 0;

  if (!out) {
    while (s < e) {
      const size_t ascii = utfKernels().asciiPrefix(s, static_cast<size_t>(e - s));
      written += static_cast<unsigned>(ascii);
      s += ascii;
      if (s < e) written += utf16Length(decodeUtf8(s, e));
    }
  } else if (s < e && capacity < 2 && !wholeInputFits(s, e, capacity)) {
    // Below 2 units the classic algorithm writes the first character without
    // a room test and the rest without a limit: a call whose whole output
    // fits keeps that result; any other writes nothing and consumes nothing
    // (the "call again with more room" result).
  } else if (s < e) {
    // The first character is written without a room test; then characters go
    // straight to the output while at most capacity - 2 units are written, so
    // that a surrogate pair always fits. The limit wraps for a capacity below 2
    // (only reached when all of the output fits, see above).
    uint16_t* const o0 = units(out);
    uint16_t* o = appendUtf16(decodeUtf8(s, e), o0);
    const unsigned limit = capacity - 2u;
    const size_t room = capacity >= 2 ? capacity - 1u - static_cast<unsigned>(o - o0) : SIZE_MAX;
    o = boundedRun(s, e, o0, o, limit, capacity, room, utfKernels().utf8To16,
                   [e](const uint8_t*& p, uint16_t* to) { return appendUtf16(decodeUtf8(p, e), to); });
    written = static_cast<unsigned>(o - o0);
  }
  srcLen = static_cast<int>(e - s);
  src = srcLen == 0 ? nullptr : reinterpret_cast<const char*>(s);
  return written;
}

unsigned int NUVSysUCAlgorithm::ConvertUTF8ToUCS2(const char*& src, unsigned long& srcLen,
                                                  unsigned short* out, unsigned long capacity) {
  int len = static_cast<int>(srcLen);
  const unsigned r = ConvertUTF8ToUTF16(src, len, out, static_cast<unsigned>(capacity));
  srcLen = static_cast<unsigned long>(static_cast<long>(len));
  return r;
}

unsigned int NUVSysUCAlgorithm::ConvertUTF16ToUTF8(const unsigned short*& src, int& srcLen,
                                                   char* out, unsigned int capacity) {
  if (!src || srcLen < 0) return kBadArguments;
  const uint16_t* s = units(src);
  const uint16_t* e = s + srcLen;
  unsigned written = 0;

  if (!out) {
    while (s < e) {
      const uint32_t cp = decodeUtf16(s, e);
      written += cp < 0x80u ? 1 : cp < 0x800u ? 2 : cp < 0x10000u ? 3 : 4;
    }
  } else {
    // Characters go straight to the output while at most capacity - 4 bytes
    // are written, tested before each one; the limit wraps below 4.
    uint8_t* const o0 = reinterpret_cast<uint8_t*>(out);
    uint8_t* o = o0;
    const unsigned limit = capacity - 4u;
    // Below 4 bytes the limit wraps and the output is written without bound:
    // a call whose whole output fits keeps that result; any other writes
    // nothing and consumes nothing.
    if (capacity < 4 && !wholeInputFits(s, e, capacity)) e = s;
    const size_t room = capacity >= 4 ? capacity - 3u : SIZE_MAX;
    o = boundedRun(s, e, o0, o, limit, capacity, room, utfKernels().utf16To8,
                   [e](const uint16_t*& p, uint8_t* to) { return appendUtf8(decodeUtf16(p, e), to); });
    written = static_cast<unsigned>(o - o0);
  }
  srcLen -= static_cast<int>(s - units(src));
  src = srcLen == 0 ? nullptr : reinterpret_cast<const unsigned short*>(s);
  return written;
}

unsigned int NUVSysUCAlgorithm::ConvertUCS2ToUTF8(const unsigned short*& src,
                                                  unsigned long& srcLen, char* out,
                                                  unsigned long capacity) {
  int len = static_cast<int>(srcLen);
  const unsigned r = ConvertUTF16ToUTF8(src, len, out, static_cast<unsigned>(capacity));
  srcLen = static_cast<unsigned long>(static_cast<long>(len));
  return r;
}

// ---------------------------------------------------------------- legacy --

int NUVSysUCAlgorithm::ConvertUTF8ToUCS2Legacy(const char* src, unsigned long len,
                                               unsigned short* out, int* written) {
  static constexpr uint32_t kOffsets[6] = {0x00000000u, 0x00003080u, 0x000E2080u,
                                           0x03C82080u, 0xFA082080u, 0x82082080u};
  if (!out || (!src && len > 0)) return -1;
  const uint8_t* s = bytes(src);
  const uint8_t* const e = s + len;
  uint16_t* o = units(out);
  uint16_t* const oe = o + len;
  int status = 0;
  while (s < e) {
    const uint8_t lead = *s;
    const unsigned trail = lead < 0xC0 ? 0 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2
                         : lead < 0xF8 ? 3 : lead < 0xFC ? 4 : 5;
    // Strictly greater: a sequence ending one byte past the length is still
    // decoded (it reads the terminating NUL of a terminated string).
    if (trail > static_cast<size_t>(e - s)) {
      status = -2;
      break;
    }
    uint32_t value = 0;
    for (unsigned i = 0; i <= trail; ++i) {
      value += s[i];
      if (i < trail) value <<= 6;
    }
    value -= kOffsets[trail];
    if (o >= oe) {
      status = -3;
      break;
    }
    *o++ = value > 0xFFFFu ? uint16_t{'?'} : static_cast<uint16_t>(value);
    s += trail + 1;
  }
  if (written) *written = static_cast<int>(o - units(out));
  return status;
}

// ------------------------------------------------------------ validation --

int NUVSysUCAlgorithm::IsUTF8(const char*& text, unsigned long len) {
  if (len == 0) return 0;
  if (!text) return -1;
  const char* p = text + utfKernels().asciiPrefix(bytes(text), len);
  const char* const end = text + len;
  while (p < end) {
    if (utf8::internal::validate_next(p, end) != utf8::internal::UTF8_OK) return -1;
  }
  return 0;
}

int NUVSysUCAlgorithm::CharUTF8Len(const char* text, unsigned long len) {
  if (!text) return -1;
  if (len == 0 || text[0] == '\0') return 0;
  const char* p = text;
  if (utf8::internal::validate_next(p, text + len) != utf8::internal::UTF8_OK) return -1;
  return static_cast<int>(p - text);
}

// ---------------------------------------------------------------- hashes --

unsigned int NUVSysUCAlgorithm::HashV3FromUCS2(const unsigned short* u, unsigned long n,
                                               unsigned int seed) {
  if (!u) return seed;
  return utfKernels().hashUnits(units(u), n, seed);
}

unsigned int NUVSysUCAlgorithm::HashV3FromUTF8(const char* text, unsigned long n,
                                               unsigned int seed) {
  if (!text) return seed;
  const UtfKernels& k = utfKernels();
  const uint8_t* s = bytes(text);
  const uint8_t* const e = s + n;
  uint32_t h = seed;
  // Hash through UTF-16 in blocks of 4 KiB on the stack; the character steps
  // finish each block (the kernels leave the last hundred or so units of their
  // room to them), so a block ends on a character boundary.
  constexpr size_t kBlock = 2048;
  uint16_t buf[kBlock];
  while (s < e) {
    auto [p, o] = k.utf8To16(s, e, buf, kBlock);
    while (p < e && o < buf + kBlock - 2) o = appendUtf16(decodeUtf8(p, e), o);
    h = k.hashUnits(buf, static_cast<size_t>(o - buf), h);
    s = p;
  }
  return h;
}

namespace {
// The older sampling recurrence in a 64-bit accumulator.
template <typename Item>
uint64_t hashV2(const Item* p, unsigned long n) {
  const long signedN = static_cast<long>(n);
  const unsigned long step = signedN < 400 ? 1ul : static_cast<unsigned long>(signedN >> 6);
  uint64_t h = 0;
  for (unsigned long i = 0; i < n; i += step)
    h = h * 37u + static_cast<uint64_t>(static_cast<int64_t>(p[i]));
  return h;
}
}  // namespace

unsigned int NUVSysUCAlgorithm::HashV2UCS2(const unsigned short* u, unsigned long n) {
  if (!u || n == 0) return 1;
  const uint64_t h = hashV2(u, n);
  return h != 0 ? static_cast<unsigned>(h & 0x7FFFFFFFu) : 1u;
}

unsigned int NUVSysUCAlgorithm::HashV2MBCS(const char* text, unsigned long n) {
  if (!text || n == 0) return 0;
  return static_cast<unsigned>(hashV2(reinterpret_cast<const signed char*>(text), n) & 0x7FFFFFFFu);
}
