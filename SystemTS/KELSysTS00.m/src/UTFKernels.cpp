// UTFKernels.cpp - bulk UTF-8/UTF-16 transcoding and V3 hashing kernels.
//
// Three sets: portable scalar, SSE2 (always there on x86-64) and AVX2 (chosen
// at load time when the CPU has it, with BMI2 for the lead-byte masks). The
// vector paths take runs of ASCII and runs of three-byte characters, which is
// where real text spends its bytes; everything irregular goes through the
// same character steps as the scalar set, so all sets give identical output
// on every input, malformed input included.
//
// Speculative stores. A vector step stores a whole register of output and then
// advances by the characters it really converted. The stores stay inside the
// caller's `room`, and only happen when the input left is long enough that the
// caller's real output will cover them: UTF-8 gives at least one UTF-16 unit
// per three bytes, UTF-16 at least one UTF-8 byte per unit.
#include "UTFCore.h"

#include <algorithm>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#define SYSTEMTS_X86 1
#endif

namespace systemts::detail {

uint32_t decodeUtf8Cut(const uint8_t*& p, const uint8_t* end) noexcept {
  uint8_t buf[4] = {0, 0, 0, 0};
  std::memcpy(buf, p, static_cast<size_t>(end - p) < 4 ? static_cast<size_t>(end - p) : 4);
  const uint8_t* q = buf;
  const uint32_t cp = decodeUtf8(q, buf + 4);
  p = end;
  return cp;
}

namespace {

constexpr uint32_t pow37(unsigned n) {
  uint32_t r = 1;
  for (unsigned i = 0; i < n; ++i) r *= 37u;
  return r;
}

// ---------------------------------------------------------------- scalar --

Progress<uint8_t, uint16_t> utf8To16Scalar(const uint8_t* s, const uint8_t* e, uint16_t* o,
                                           size_t room) noexcept {
  // Every character takes at most four bytes and two units: stop while the
  // caller can still finish exactly.
  uint16_t* const o0 = o;
  while (e - s >= 4 && static_cast<size_t>(o - o0) + 2 <= room) {
    if (s[0] < 0x80 && e - s >= 8 && static_cast<size_t>(o - o0) + 8 <= room) {
      uint64_t w;
      std::memcpy(&w, s, 8);
      if ((w & 0x8080808080808080ull) == 0) {
        for (int i = 0; i < 8; ++i) o[i] = s[i];
        s += 8;
        o += 8;
        continue;
      }
    }
    o = appendUtf16(decodeUtf8(s, e), o);
  }
  return {s, o};
}

Progress<uint16_t, uint8_t> utf16To8Scalar(const uint16_t* s, const uint16_t* e, uint8_t* o,
                                           size_t room) noexcept {
  uint8_t* const o0 = o;
  while (e - s >= 2 && static_cast<size_t>(o - o0) + 4 <= room) o = appendUtf8(decodeUtf16(s, e), o);
  return {s, o};
}

template <typename T>
uint32_t hashScalar(const T* p, size_t n, uint32_t h) noexcept {
  // Four units per step: h*37^4 + u0*37^3 + u1*37^2 + u2*37 + u3 keeps one
  // multiply on the dependency chain instead of four.
  constexpr uint32_t k1 = 37u, k2 = pow37(2), k3 = pow37(3), k4 = pow37(4);
  size_t i = 0;
  for (; i + 4 <= n; i += 4) {
    h = h * k4 + uint32_t{p[i]} * k3 + uint32_t{p[i + 1]} * k2 + uint32_t{p[i + 2]} * k1 +
        uint32_t{p[i + 3]};
  }
  for (; i < n; ++i) h = h * 37u + uint32_t{p[i]};
  return h;
}

uint32_t hashUnitsScalar(const uint16_t* p, size_t n, uint32_t h) noexcept {
  return hashScalar(p, n, h);
}
uint32_t hashBytesScalar(const uint8_t* p, size_t n, uint32_t h) noexcept {
  return hashScalar(p, n, h);
}

size_t asciiPrefixScalar(const uint8_t* p, size_t n) noexcept {
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t w;
    std::memcpy(&w, p + i, 8);
    if (w & 0x8080808080808080ull) break;
  }
  while (i < n && p[i] < 0x80) ++i;
  return i;
}

constexpr UtfKernels kScalar = {utf8To16Scalar, utf16To8Scalar, hashUnitsScalar,
                                hashBytesScalar, asciiPrefixScalar, "scalar"};

#if SYSTEMTS_X86
// ------------------------------------------------------------------ SSE2 --

Progress<uint8_t, uint16_t> utf8To16Sse2(const uint8_t* s, const uint8_t* e, uint16_t* o,
                                         size_t room) noexcept {
  constexpr ptrdiff_t W = 16;
  uint16_t* const o0 = o;
  const __m128i zero = _mm_setzero_si128();
  while (e - s >= 3 * W && static_cast<size_t>(o - o0) + W <= room) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
    const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(v));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(o), _mm_unpacklo_epi8(v, zero));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(o + 8), _mm_unpackhi_epi8(v, zero));
    if (mask == 0) {
      s += W;
      o += W;
      continue;
    }
    const unsigned ascii = static_cast<unsigned>(__builtin_ctz(mask));
    s += ascii;
    o += ascii;
    o = appendUtf16(decodeUtf8(s, e), o);
  }
  return {s, o};
}

Progress<uint16_t, uint8_t> utf16To8Sse2(const uint16_t* s, const uint16_t* e, uint8_t* o,
                                         size_t room) noexcept {
  constexpr ptrdiff_t W = 16;
  uint8_t* const o0 = o;
  const __m128i high = _mm_set1_epi16(static_cast<short>(0xFF80));
  while (e - s >= W && static_cast<size_t>(o - o0) + W <= room) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 8));
    const __m128i nonAscii = _mm_or_si128(_mm_and_si128(a, high), _mm_and_si128(b, high));
    // Saturating pack: exact for units below 0x80, and only those are kept.
    _mm_storeu_si128(reinterpret_cast<__m128i*>(o), _mm_packus_epi16(a, b));
    if (_mm_movemask_epi8(_mm_cmpeq_epi16(nonAscii, _mm_setzero_si128())) == 0xFFFF) {
      s += W;
      o += W;
      continue;
    }
    const __m128i isAsciiA = _mm_cmpeq_epi16(_mm_and_si128(a, high), _mm_setzero_si128());
    const __m128i isAsciiB = _mm_cmpeq_epi16(_mm_and_si128(b, high), _mm_setzero_si128());
    const unsigned m = static_cast<unsigned>(_mm_movemask_epi8(_mm_packs_epi16(isAsciiA, isAsciiB)));
    const unsigned ascii = static_cast<unsigned>(__builtin_ctz(~m));
    s += ascii;
    o += ascii;
    o = appendUtf8(decodeUtf16(s, e), o);
  }
  return {s, o};
}

size_t asciiPrefixSse2(const uint8_t* p, size_t n) noexcept {
  size_t i = 0;
  for (; i + 16 <= n; i += 16) {
    const unsigned m = static_cast<unsigned>(
        _mm_movemask_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i))));
    if (m) return i + static_cast<unsigned>(__builtin_ctz(m));
  }
  while (i < n && p[i] < 0x80) ++i;
  return i;
}

constexpr UtfKernels kSse2 = {utf8To16Sse2, utf16To8Sse2, hashUnitsScalar, hashBytesScalar,
                              asciiPrefixSse2, "sse2"};

// ------------------------------------------------------------------ AVX2 --
#define SYSTEMTS_AVX2 __attribute__((target("avx2,bmi,bmi2")))

// Four three-byte characters in the 12 bytes at the front of each 128-bit lane
// (lead bytes at 0, 3, 6, 9) decode to four 16-bit units. The continuation
// bytes are masked, never tested, exactly as the character step does.
SYSTEMTS_AVX2 inline __m256i decodeThreeByteLanes(__m256i v) {
  // Each 32-bit lane k gathers [b2, b1, lead, -] of character k.
  const __m256i gather = _mm256_setr_epi8(2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9, -1,
                                          2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9, -1);
  const __m256i t = _mm256_shuffle_epi8(v, gather);
  const __m256i lo = _mm256_and_si256(t, _mm256_set1_epi32(0x3F));
  const __m256i mid = _mm256_and_si256(_mm256_srli_epi32(t, 2), _mm256_set1_epi32(0xFC0));
  const __m256i top = _mm256_and_si256(_mm256_srli_epi32(t, 4), _mm256_set1_epi32(0xF000));
  const __m256i cp = _mm256_or_si256(_mm256_or_si256(lo, mid), top);
  // Keep the low half of each 32-bit lane: 4 units per 128-bit lane.
  const __m256i pack = _mm256_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1,
                                        0, 1, 4, 5, 8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1);
  return _mm256_shuffle_epi8(cp, pack);
}

SYSTEMTS_AVX2 Progress<uint8_t, uint16_t> utf8To16Avx2(const uint8_t* s, const uint8_t* e,
                                                       uint16_t* o, size_t room) noexcept {
  constexpr ptrdiff_t W = 32;
  uint16_t* const o0 = o;
  size_t batch = 1;  // bytes of character steps after a failed vector attempt
  const __m256i zero = _mm256_setzero_si256();
  while (e - s >= 3 * W && static_cast<size_t>(o - o0) + W <= room) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s));
    const uint32_t nonAscii = static_cast<uint32_t>(_mm256_movemask_epi8(v));
    if (nonAscii == 0) {
      const __m256i w = _mm256_permute4x64_epi64(v, 0xD8);
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(o), _mm256_unpacklo_epi8(w, zero));
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(o + 16), _mm256_unpackhi_epi8(w, zero));
      s += W;
      o += W;
      batch = 1;
      continue;
    }
    const uint32_t ascii = _tzcnt_u32(nonAscii);
    if (ascii > 0) {
      // Leading ASCII: widen the first 16 bytes, keep the ASCII ones. Only a
      // long run counts as the vector path paying off.
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(o), _mm256_cvtepu8_epi16(_mm256_castsi256_si128(v)));
      const unsigned take = ascii < 16 ? ascii : 16;
      s += take;
      o += take;
      if (ascii >= 8) batch = 1;
      continue;
    }
    if ((s[0] & 0xF0u) == 0xE0u) {
      // Three-byte leads (0xE0-0xEF) at every third byte from the front.
      const uint32_t lead3 = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(
          _mm256_and_si256(v, _mm256_set1_epi8(static_cast<char>(0xF0))),
          _mm256_set1_epi8(static_cast<char>(0xE0)))));
      const uint32_t run = _tzcnt_u32(~static_cast<uint32_t>(_pext_u32(lead3, 0x00249249u)));
      if (run >= 4) {
        const __m256i pair = _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(s + 12),
                                                 reinterpret_cast<const __m128i*>(s));
        const __m256i units = decodeThreeByteLanes(pair);
        // Lanes hold units 0-3 and 4-7 in their low 8 bytes.
        const __m128i eight = _mm_unpacklo_epi64(_mm256_castsi256_si128(units),
                                                 _mm256_extracti128_si256(units, 1));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(o), eight);
        const unsigned take = run < 8 ? run : 8;
        s += 3 * take;
        o += take;
        batch = 1;
      continue;
      }
    }
    // Mixed text: a batch of character steps before the next vector attempt.
    // The batch doubles while the attempts keep failing, so text that never
    // suits the vector path (emoji, say) pays almost nothing for trying. A
    // character takes at most 4 bytes and gives at most one unit per byte.
    const size_t margin = std::min(static_cast<size_t>(e - s), room - static_cast<size_t>(o - o0)) - 4;
    for (const uint8_t* const stop = s + std::min(batch, margin); s < stop;) o = appendUtf16(decodeUtf8(s, e), o);
    batch = std::min<size_t>(2 * batch, 64);
  }
  return {s, o};
}

SYSTEMTS_AVX2 Progress<uint16_t, uint8_t> utf16To8Avx2(const uint16_t* s, const uint16_t* e,
                                                       uint8_t* o, size_t room) noexcept {
  constexpr ptrdiff_t W = 32;
  uint8_t* const o0 = o;
  size_t batch = 1;  // units of character steps after a failed vector attempt
  const __m256i high = _mm256_set1_epi16(static_cast<short>(0xFF80));
  // Output shuffles for eight three-byte characters: bytes 0-15 and 16-23.
  const __m128i leadsLo = _mm_setr_epi8(0, -1, -1, 1, -1, -1, 2, -1, -1, 3, -1, -1, 4, -1, -1, 5);
  const __m128i contLo = _mm_setr_epi8(-1, 0, 1, -1, 2, 3, -1, 4, 5, -1, 6, 7, -1, 8, 9, -1);
  const __m128i leadsHi = _mm_setr_epi8(-1, -1, 6, -1, -1, 7, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i contHi = _mm_setr_epi8(10, 11, -1, 12, 13, -1, 14, 15, -1, -1, -1, -1, -1, -1, -1, -1);
  while (e - s >= W && static_cast<size_t>(o - o0) + W <= room) {
    const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s));
    const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 16));
    const __m256i asciiA = _mm256_cmpeq_epi16(_mm256_and_si256(a, high), _mm256_setzero_si256());
    const __m256i asciiB = _mm256_cmpeq_epi16(_mm256_and_si256(b, high), _mm256_setzero_si256());
    const uint32_t ascii = static_cast<uint32_t>(_mm256_movemask_epi8(
        _mm256_permute4x64_epi64(_mm256_packs_epi16(asciiA, asciiB), 0xD8)));
    if (ascii == 0xFFFFFFFFu) {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(o),
                          _mm256_permute4x64_epi64(_mm256_packus_epi16(a, b), 0xD8));
      s += W;
      o += W;
      batch = 1;
      continue;
    }
    const unsigned n = static_cast<unsigned>(_tzcnt_u32(~ascii));
    if (n > 0) {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(o),
                          _mm256_permute4x64_epi64(_mm256_packus_epi16(a, b), 0xD8));
      s += n;
      o += n;
      if (n >= 8) batch = 1;
      continue;
    }
    // Three-byte units: 0x0800 and above, except high surrogates (a low
    // surrogate alone is a code point of its own and takes three bytes too).
    const __m128i u = _mm256_castsi256_si128(a);
    const __m128i small = _mm_cmpeq_epi16(_mm_and_si128(u, _mm_set1_epi16(static_cast<short>(0xF800))),
                                          _mm_setzero_si128());
    const __m128i hs = _mm_cmpeq_epi16(_mm_and_si128(u, _mm_set1_epi16(static_cast<short>(0xFC00))),
                                       _mm_set1_epi16(static_cast<short>(0xD800)));
    const uint32_t not3 = static_cast<uint32_t>(_mm_movemask_epi8(_mm_or_si128(small, hs)));
    const uint32_t run = _tzcnt_u32(not3 | 0x10000u) / 2;
    if (run >= 4) {
      const __m128i lead = _mm_or_si128(_mm_srli_epi16(u, 12), _mm_set1_epi16(0xE0));
      const __m128i c1 = _mm_or_si128(_mm_and_si128(_mm_srli_epi16(u, 6), _mm_set1_epi16(0x3F)),
                                      _mm_set1_epi16(0x80));
      const __m128i c2 = _mm_or_si128(_mm_and_si128(u, _mm_set1_epi16(0x3F)), _mm_set1_epi16(0x80));
      const __m128i leads = _mm_packus_epi16(lead, lead);               // 8 lead bytes
      const __m128i conts = _mm_or_si128(c1, _mm_slli_epi16(c2, 8));    // [c1, c2] per unit
      const __m128i lo = _mm_or_si128(_mm_shuffle_epi8(leads, leadsLo), _mm_shuffle_epi8(conts, contLo));
      const __m128i hi = _mm_or_si128(_mm_shuffle_epi8(leads, leadsHi), _mm_shuffle_epi8(conts, contHi));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(o), lo);
      _mm_storel_epi64(reinterpret_cast<__m128i*>(o + 16), hi);
      s += run;
      o += 3 * run;
      batch = 1;
      continue;
    }
    // Mixed text: a batch of character steps before the next vector attempt,
    // doubling while the attempts keep failing.
    // A unit gives at most 3 bytes, a pair 4.
    const size_t margin = std::min(static_cast<size_t>(e - s) - 2, (room - static_cast<size_t>(o - o0) - 4) / 3);
    for (const uint16_t* const stop = s + std::min(batch, margin); s < stop;) o = appendUtf8(decodeUtf16(s, e), o);
    batch = std::min<size_t>(2 * batch, 32);
  }
  return {s, o};
}

// V3 hash over 32 items per step: acc = acc * 37^32 + sum(items * powers),
// lane-wise, then one horizontal sum. Linear modulo 2^32, so the result is the
// one-accumulator recurrence's bit for bit.
SYSTEMTS_AVX2 inline uint32_t hashFold(__m256i acc, uint32_t h, size_t blocks) {
  alignas(32) uint32_t lanes[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), acc);
  uint32_t sum = 0;
  for (uint32_t lane : lanes) sum += lane;
  uint32_t scale = 1;  // 37^(32 * blocks)
  const uint32_t k32 = pow37(32);
  for (size_t i = 0; i < blocks; ++i) scale *= k32;
  return h * scale + sum;
}

struct Powers32 {
  alignas(32) uint32_t p[32];  // 37^31 ... 37^0
  constexpr Powers32() : p{} {
    for (unsigned i = 0; i < 32; ++i) p[i] = pow37(31 - i);
  }
};
constexpr Powers32 kPowers;

template <typename T>
SYSTEMTS_AVX2 uint32_t hashAvx2(const T* p, size_t n, uint32_t h) noexcept {
  if (n < 64) return hashScalar(p, n, h);
  const __m256i k32 = _mm256_set1_epi32(static_cast<int>(pow37(32)));
  __m256i pw[4];
  for (int j = 0; j < 4; ++j) pw[j] = _mm256_load_si256(reinterpret_cast<const __m256i*>(kPowers.p + 8 * j));
  __m256i acc = _mm256_setzero_si256();
  size_t blocks = n / 32;
  for (size_t b = 0; b < blocks; ++b, p += 32) {
    __m256i x[4];
    if constexpr (sizeof(T) == 2) {
      for (int j = 0; j < 4; ++j)
        x[j] = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8 * j)));
    } else {
      for (int j = 0; j < 4; ++j)
        x[j] = _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p + 8 * j)));
    }
    const __m256i s01 = _mm256_add_epi32(_mm256_mullo_epi32(x[0], pw[0]), _mm256_mullo_epi32(x[1], pw[1]));
    const __m256i s23 = _mm256_add_epi32(_mm256_mullo_epi32(x[2], pw[2]), _mm256_mullo_epi32(x[3], pw[3]));
    acc = _mm256_add_epi32(_mm256_mullo_epi32(acc, k32), _mm256_add_epi32(s01, s23));
  }
  h = hashFold(acc, h, blocks);
  return hashScalar(p, n % 32, h);
}

SYSTEMTS_AVX2 uint32_t hashUnitsAvx2(const uint16_t* p, size_t n, uint32_t h) noexcept {
  return hashAvx2(p, n, h);
}
SYSTEMTS_AVX2 uint32_t hashBytesAvx2(const uint8_t* p, size_t n, uint32_t h) noexcept {
  return hashAvx2(p, n, h);
}

SYSTEMTS_AVX2 size_t asciiPrefixAvx2(const uint8_t* p, size_t n) noexcept {
  size_t i = 0;
  for (; i + 32 <= n; i += 32) {
    const uint32_t m = static_cast<uint32_t>(
        _mm256_movemask_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + i))));
    if (m) return i + _tzcnt_u32(m);
  }
  return i + asciiPrefixSse2(p + i, n - i);
}

constexpr UtfKernels kAvx2 = {utf8To16Avx2, utf16To8Avx2, hashUnitsAvx2, hashBytesAvx2,
                              asciiPrefixAvx2, "avx2"};

// --------------------------------------------------------------- AVX-512 --
// Any mix of one- to four-byte characters, 64 bytes at a time, with the byte
// and word compress instructions (VBMI2). A block is taken only when its
// character boundaries are unambiguous: no multi-byte lead may sit where an
// earlier lead's continuation bytes are. Then every position that is not such
// a continuation starts a character, which is exactly how the lenient decoder
// walks the block, whatever the continuation bytes hold. Anything else goes
// through the AVX2 kernel's steps.
//
// GCC 12 reports its own AVX-512 intrinsics' deliberately undefined
// registers as maybe-uninitialized when they are inlined here; silence that
// one false report for this section only.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#define SYSTEMTS_AVX512 __attribute__((target("avx512f,avx512bw,avx512vl,avx512vbmi,avx512vbmi2,avx2,bmi,bmi2,popcnt")))

SYSTEMTS_AVX512 Progress<uint8_t, uint16_t> utf8To16Avx512(const uint8_t* s, const uint8_t* e,
                                                           uint16_t* o, size_t room) noexcept {
  uint16_t* const o0 = o;
  const __m512i x3F = _mm512_set1_epi32(0x3F);
  // A block writes at most 64 units, plus a 32-unit speculative store.
  while (e - s >= 3 * 96 && static_cast<size_t>(o - o0) + 96 <= room) {
    const __m512i v = _mm512_loadu_si512(s);
    const uint64_t nonAscii = _mm512_movepi8_mask(v);
    if (nonAscii == 0) {
      _mm512_storeu_si512(o, _mm512_cvtepu8_epi16(_mm512_castsi512_si256(v)));
      _mm512_storeu_si512(o + 32, _mm512_cvtepu8_epi16(_mm512_extracti64x4_epi64(v, 1)));
      s += 64;
      o += 64;
      continue;
    }
    const uint64_t l2 = _mm512_cmpeq_epi8_mask(_mm512_and_si512(v, _mm512_set1_epi8(static_cast<char>(0xE0))),
                                               _mm512_set1_epi8(static_cast<char>(0xC0)));
    const uint64_t l3 = _mm512_cmpeq_epi8_mask(_mm512_and_si512(v, _mm512_set1_epi8(static_cast<char>(0xF0))),
                                               _mm512_set1_epi8(static_cast<char>(0xE0)));
    const uint64_t l4 = _mm512_cmpeq_epi8_mask(_mm512_and_si512(v, _mm512_set1_epi8(static_cast<char>(0xF8))),
                                               _mm512_set1_epi8(static_cast<char>(0xF0)));
    const uint64_t multi = l2 | l3 | l4, l34 = l3 | l4;
    const uint64_t taken = (multi << 1) | (l34 << 2) | (l4 << 3);  // continuation positions
    if (taken & multi) {
      // A lead inside another character: let the character steps walk it.
      for (const uint8_t* const stop = s + 16; s < stop;) o = appendUtf16(decodeUtf8(s, e), o);
      continue;
    }
    // Characters whose lead lies in bytes 0-60 end inside the block.
    constexpr uint64_t kFront = (uint64_t{1} << 61) - 1;
    const uint64_t starts = ~taken & kFront;
    const uint64_t later = ~taken & ~kFront;
    const unsigned consumed = later ? static_cast<unsigned>(_tzcnt_u64(later)) : 64u;
    // One byte per character for each of its (up to) four bytes, in order; a
    // shorter character repeats its lead, masked out below.
    __m512i b0 = _mm512_maskz_compress_epi8(starts, v);
    __m512i b1 = _mm512_maskz_compress_epi8(((starts & multi) << 1) | (starts & ~multi), v);
    __m512i b2 = _mm512_maskz_compress_epi8(((starts & l34) << 2) | (starts & ~l34), v);
    __m512i b3 = _mm512_maskz_compress_epi8(((starts & l4) << 3) | (starts & ~l4), v);
    const unsigned chars = static_cast<unsigned>(_mm_popcnt_u64(starts));
    const __m512i zero = _mm512_setzero_si512();
    for (unsigned k = 0; k < chars; k += 16) {
      // Sixteen characters at a time from the bottom of each register, which
      // then moves down by 16 bytes.
      const __m512i lead = _mm512_cvtepu8_epi32(_mm512_castsi512_si128(b0));
      __m512i c1 = _mm512_cvtepu8_epi32(_mm512_castsi512_si128(b1));
      __m512i c2 = _mm512_cvtepu8_epi32(_mm512_castsi512_si128(b2));
      __m512i c3 = _mm512_cvtepu8_epi32(_mm512_castsi512_si128(b3));
      b0 = _mm512_alignr_epi32(zero, b0, 4);
      b1 = _mm512_alignr_epi32(zero, b1, 4);
      b2 = _mm512_alignr_epi32(zero, b2, 4);
      b3 = _mm512_alignr_epi32(zero, b3, 4);
      c1 = _mm512_and_si512(c1, x3F);
      c2 = _mm512_and_si512(c2, x3F);
      c3 = _mm512_and_si512(c3, x3F);
      const __mmask16 k2 = _mm512_cmpeq_epi32_mask(_mm512_and_si512(lead, _mm512_set1_epi32(0xE0)), _mm512_set1_epi32(0xC0));
      const __mmask16 k3 = _mm512_cmpeq_epi32_mask(_mm512_and_si512(lead, _mm512_set1_epi32(0xF0)), _mm512_set1_epi32(0xE0));
      const __mmask16 k4 = _mm512_cmpeq_epi32_mask(_mm512_and_si512(lead, _mm512_set1_epi32(0xF8)), _mm512_set1_epi32(0xF0));
      __m512i cp = lead;  // one byte: itself, the pass-through value included
      cp = _mm512_mask_or_epi32(cp, k2, _mm512_slli_epi32(_mm512_and_si512(lead, _mm512_set1_epi32(0x1F)), 6), c1);
      cp = _mm512_mask_or_epi32(cp, k3, _mm512_slli_epi32(_mm512_and_si512(lead, _mm512_set1_epi32(0x0F)), 12),
                                _mm512_or_si512(_mm512_slli_epi32(c1, 6), c2));
      cp = _mm512_mask_or_epi32(cp, k4,
                                _mm512_or_si512(_mm512_slli_epi32(_mm512_and_si512(lead, _mm512_set1_epi32(0x07)), 18),
                                                _mm512_slli_epi32(c1, 12)),
                                _mm512_or_si512(_mm512_slli_epi32(c2, 6), c3));
      const __mmask16 pair = _mm512_cmpgt_epu32_mask(cp, _mm512_set1_epi32(0xFFFF));
      const __m512i hi = _mm512_add_epi32(_mm512_srli_epi32(cp, 10), _mm512_set1_epi32(static_cast<int>(kLeadOffset)));
      const __m512i lo = _mm512_add_epi32(_mm512_and_si512(cp, _mm512_set1_epi32(0x3FF)), _mm512_set1_epi32(0xDC00));
      const __m512i lanes = _mm512_mask_or_epi32(cp, pair, hi, _mm512_slli_epi32(lo, 16));
      const unsigned n = chars - k < 16 ? chars - k : 16;
      const uint32_t valid = (1u << n) - 1u;
      const uint32_t keep = _pdep_u32(valid, 0x55555555u) | _pdep_u32(valid & pair, 0xAAAAAAAAu);
      _mm512_storeu_si512(o, _mm512_maskz_compress_epi16(keep, lanes));
      o += _mm_popcnt_u32(keep);
    }
    s += consumed;
  }
  return utf8To16Avx2(s, e, o, room - static_cast<size_t>(o - o0));
}

SYSTEMTS_AVX512 Progress<uint16_t, uint8_t> utf16To8Avx512(const uint16_t* s, const uint16_t* e,
                                                           uint8_t* o, size_t room) noexcept {
  uint8_t* const o0 = o;
  const __m512i x3F = _mm512_set1_epi32(0x3F), x80 = _mm512_set1_epi32(0x80);
  // A block writes at most 93 bytes from 31 units, plus a 64-byte speculative store.
  while (e - s >= 160 && static_cast<size_t>(o - o0) + 160 <= room) {
    const __m512i u = _mm512_loadu_si512(s);
    if (_mm512_test_epi16_mask(u, _mm512_set1_epi16(static_cast<short>(0xFF80))) == 0) {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(o), _mm512_cvtepi16_epi8(u));
      s += 32;
      o += 32;
      continue;
    }
    const uint32_t high = _mm512_cmpeq_epi16_mask(_mm512_and_si512(u, _mm512_set1_epi16(static_cast<short>(0xFC00))),
                                                  _mm512_set1_epi16(static_cast<short>(0xD800)));
    if (high & (high << 1)) {
      // A high surrogate taken as another's partner: the character steps.
      for (const uint16_t* const stop = s + 8; s < stop;) o = appendUtf8(decodeUtf16(s, e), o);
      continue;
    }
    const uint32_t starts = ~(high << 1) & 0x7FFFFFFFu;  // units 0-30; unit 31 may need unit 32
    const unsigned consumed = (~(high << 1) & 0x80000000u) ? 31u : 32u;
    for (unsigned g = 0; g < 2; ++g) {
      const __m512i cur = _mm512_cvtepu16_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 16 * g)));
      const __m512i next = _mm512_cvtepu16_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 16 * g + 1)));
      const __mmask16 hs = static_cast<__mmask16>(high >> (16 * g));
      const __m512i cp = _mm512_mask_add_epi32(
          cur, hs, _mm512_add_epi32(_mm512_slli_epi32(cur, 10), next), _mm512_set1_epi32(static_cast<int>(kSurrogateOffset)));
      const __mmask16 ge80 = _mm512_cmpge_epu32_mask(cp, _mm512_set1_epi32(0x80));
      const __mmask16 ge800 = _mm512_cmpge_epu32_mask(cp, _mm512_set1_epi32(0x800));
      const __mmask16 ge10000 = _mm512_cmpge_epu32_mask(cp, _mm512_set1_epi32(0x10000));
      const __m512i t0 = _mm512_and_si512(cp, x3F);
      const __m512i t1 = _mm512_and_si512(_mm512_srli_epi32(cp, 6), x3F);
      const __m512i t2 = _mm512_and_si512(_mm512_srli_epi32(cp, 12), x3F);
      const __m512i t3 = _mm512_srli_epi32(cp, 18);
      // Bytes in writing order, lowest first.
      const __m512i two = _mm512_or_si512(_mm512_or_si512(_mm512_srli_epi32(cp, 6), _mm512_set1_epi32(0xC0)),
                                          _mm512_slli_epi32(_mm512_or_si512(t0, x80), 8));
      const __m512i three = _mm512_or_si512(
          _mm512_or_si512(_mm512_srli_epi32(cp, 12), _mm512_set1_epi32(0xE0)),
          _mm512_or_si512(_mm512_slli_epi32(_mm512_or_si512(t1, x80), 8), _mm512_slli_epi32(_mm512_or_si512(t0, x80), 16)));
      const __m512i four = _mm512_or_si512(
          _mm512_or_si512(_mm512_or_si512(t3, _mm512_set1_epi32(0xF0)), _mm512_slli_epi32(_mm512_or_si512(t2, x80), 8)),
          _mm512_or_si512(_mm512_slli_epi32(_mm512_or_si512(t1, x80), 16), _mm512_slli_epi32(_mm512_or_si512(t0, x80), 24)));
      __m512i bytes = _mm512_mask_mov_epi32(cp, ge80, two);
      bytes = _mm512_mask_mov_epi32(bytes, ge800, three);
      bytes = _mm512_mask_mov_epi32(bytes, ge10000, four);
      // Keep the first 1-4 bytes of each lane that starts a character.
      __m512i keepLanes = _mm512_set1_epi32(0xFF);
      keepLanes = _mm512_mask_mov_epi32(keepLanes, ge80, _mm512_set1_epi32(0xFFFF));
      keepLanes = _mm512_mask_mov_epi32(keepLanes, ge800, _mm512_set1_epi32(0xFFFFFF));
      keepLanes = _mm512_mask_mov_epi32(keepLanes, ge10000, _mm512_set1_epi32(-1));
      keepLanes = _mm512_maskz_mov_epi32(static_cast<__mmask16>(starts >> (16 * g)), keepLanes);
      const uint64_t keep = _mm512_movepi8_mask(keepLanes);
      _mm512_storeu_si512(o, _mm512_maskz_compress_epi8(keep, bytes));
      o += _mm_popcnt_u64(keep);
    }
    s += consumed;
  }
  return utf16To8Avx2(s, e, o, room - static_cast<size_t>(o - o0));
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

constexpr UtfKernels kAvx512 = {utf8To16Avx512, utf16To8Avx512, hashUnitsAvx2, hashBytesAvx2,
                                asciiPrefixAvx2, "avx512"};

bool haveAvx512() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
         __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512vbmi") &&
         __builtin_cpu_supports("avx512vbmi2") && __builtin_cpu_supports("avx2") &&
         __builtin_cpu_supports("bmi2");
}

bool haveAvx2() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi2");
}
#endif  // SYSTEMTS_X86

const UtfKernels& selectKernels() {
#if SYSTEMTS_X86
  return haveAvx512() ? kAvx512 : haveAvx2() ? kAvx2 : kSse2;
#else
  return kScalar;
#endif
}

}  // namespace

const UtfKernels& utfKernels() noexcept {
  static const UtfKernels& kernels = selectKernels();
  return kernels;
}

size_t availableUtfKernels(const UtfKernels** out, size_t max) noexcept {
  size_t n = 0;
  if (n < max) out[n++] = &kScalar;
#if SYSTEMTS_X86
  if (n < max) out[n++] = &kSse2;
  if (haveAvx2() && n < max) out[n++] = &kAvx2;
  if (haveAvx512() && n < max) out[n++] = &kAvx512;
#endif
  return n;
}

}  // namespace systemts::detail
