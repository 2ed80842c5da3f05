// UTFCore.h - the single-character UTF steps and the bulk kernels behind
// NUVSysUCAlgorithm. Private to the library.
//
// The character steps are the lenient definitions the whole library relies
// on: the lead byte alone decides a UTF-8 sequence's length, continuation bytes
// are masked and never checked, invalid lead bytes pass through as their own
// value, a high surrogate swallows the next unit. None of them reads past the
// end it is given: missing bytes or units read as zero.
#ifndef SYSTEMTS_UTFCORE_H
#define SYSTEMTS_UTFCORE_H

#include <cstddef>
#include <cstdint>

namespace systemts::detail {

constexpr uint32_t kLeadOffset = 0xD800u - (0x10000u >> 10);     // 0xD7C0
constexpr uint32_t kSurrogateOffset = 0x10000u - (0xD800u << 10) - 0xDC00u;  // -0x35FDC00

inline bool isHighSurrogate(uint32_t u) { return u >= 0xD800u && u <= 0xDBFFu; }

// Decodes a sequence whose bytes may run past `end`, those bytes reading as 0.
// Out of line: it only runs for the last character of a cut input.
uint32_t decodeUtf8Cut(const uint8_t*& p, const uint8_t* end) noexcept;

// Decodes one UTF-8 character at `p` (p < end) and advances `p`.
inline uint32_t decodeUtf8(const uint8_t*& p, const uint8_t* end) noexcept {
  const uint32_t lead = p[0];
  if (lead < 0x80u) {
    ++p;
    return lead;
  }
  if ((lead >> 5) == 0x6u) {
    if (end - p < 2) return decodeUtf8Cut(p, end);
    const uint32_t cp = ((lead << 6) & 0x7FFu) + (p[1] & 0x3Fu);
    p += 2;
    return cp;
  }
  if ((lead >> 4) == 0xEu) {
    if (end - p < 3) return decodeUtf8Cut(p, end);
    const uint32_t cp = ((lead << 12) & 0xFFFFu) + ((uint32_t{p[1]} << 6) & 0xFFFu) + (p[2] & 0x3Fu);
    p += 3;
    return cp;
  }
  if ((lead >> 3) == 0x1Eu) {
    if (end - p < 4) return decodeUtf8Cut(p, end);
    const uint32_t cp = ((lead << 18) & 0x1FFFFFu) + ((uint32_t{p[1]} << 12) & 0x3FFFFu) +
                        ((uint32_t{p[2]} << 6) & 0xFFFu) + (p[3] & 0x3Fu);
    p += 4;
    return cp;
  }
  ++p;  // a byte that starts no sequence passes through as U+0080..U+00FF
  return lead;
}

// Writes `cp` as one or two UTF-16 units; returns the position past them.
inline uint16_t* appendUtf16(uint32_t cp, uint16_t* out) noexcept {
  if (cp > 0xFFFFu) {
    out[0] = static_cast<uint16_t>((cp >> 10) + kLeadOffset);
    out[1] = static_cast<uint16_t>((cp & 0x3FFu) + 0xDC00u);
    return out + 2;
  }
  out[0] = static_cast<uint16_t>(cp);
  return out + 1;
}

inline unsigned utf16Length(uint32_t cp) { return cp > 0xFFFFu ? 2 : 1; }

// Writes `cp` as UTF-8 without range checks; returns the position past it.
inline uint8_t* appendUtf8(uint32_t cp, uint8_t* out) noexcept {
  if (cp < 0x80u) {
    *out++ = static_cast<uint8_t>(cp);
  } else if (cp < 0x800u) {
    *out++ = static_cast<uint8_t>((cp >> 6) | 0xC0u);
    *out++ = static_cast<uint8_t>((cp & 0x3Fu) | 0x80u);
  } else if (cp < 0x10000u) {
    *out++ = static_cast<uint8_t>((cp >> 12) | 0xE0u);
    *out++ = static_cast<uint8_t>(((cp >> 6) & 0x3Fu) | 0x80u);
    *out++ = static_cast<uint8_t>((cp & 0x3Fu) | 0x80u);
  } else {
    *out++ = static_cast<uint8_t>((cp >> 18) | 0xF0u);
    *out++ = static_cast<uint8_t>(((cp >> 12) & 0x3Fu) | 0x80u);
    *out++ = static_cast<uint8_t>(((cp >> 6) & 0x3Fu) | 0x80u);
    *out++ = static_cast<uint8_t>((cp & 0x3Fu) | 0x80u);
  }
  return out;
}

// Reads one code point from UTF-16 at `p` (p < end) and advances `p`; a high
// surrogate combines with whatever unit follows (zero at the end).
inline uint32_t decodeUtf16(const uint16_t*& p, const uint16_t* end) noexcept {
  uint32_t cp = *p++;
  if (isHighSurrogate(cp)) {
    const uint32_t next = p < end ? *p++ : 0u;
    cp = (cp << 10) + next + kSurrogateOffset;
  }
  return cp;
}

// Bulk kernels. Each converts whole characters from the front of its input
// for as long as it can do so quickly, and returns where it stopped; the
// caller finishes with the character steps above. `room` is how many output
// items the kernel may store from `out` on (speculative vector stores
// included); it never stores more, and every item it stores speculatively is
// overwritten by the caller's later output as long as the caller keeps
// converting the same input into the same buffer.
template <typename In, typename Out>
struct Progress {
  const In* in;
  Out* out;
};
using Utf8To16Fn = Progress<uint8_t, uint16_t> (*)(const uint8_t*, const uint8_t*, uint16_t*,
                                                  size_t) noexcept;
using Utf16To8Fn = Progress<uint16_t, uint8_t> (*)(const uint16_t*, const uint16_t*, uint8_t*,
                                                  size_t) noexcept;
using HashUnitsFn = uint32_t (*)(const uint16_t*, size_t, uint32_t) noexcept;
using HashBytesFn = uint32_t (*)(const uint8_t*, size_t, uint32_t) noexcept;
using AsciiPrefixFn = size_t (*)(const uint8_t*, size_t) noexcept;

struct UtfKernels {
  Utf8To16Fn utf8To16;
  Utf16To8Fn utf16To8;
  HashUnitsFn hashUnits;  // h = h * 37 + unit over every unit
  HashBytesFn hashBytes;  // the same over bytes taken as unsigned
  AsciiPrefixFn asciiPrefix;  // length of the leading run of bytes <= 0x7F
  const char* name;
};

// The kernels for this machine, chosen once when the library loads.
const UtfKernels& utfKernels() noexcept;
// Every kernel set this machine can run (scalar first), for tests.
size_t availableUtfKernels(const UtfKernels** out, size_t max) noexcept;

}  // namespace systemts::detail

#endif  // SYSTEMTS_UTFCORE_H
