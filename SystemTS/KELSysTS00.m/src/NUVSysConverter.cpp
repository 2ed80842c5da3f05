// NUVSysConverter.cpp - base64 with table-driven scalar code and an AVX2 path
// (the vectorised lookup and validation of Muła and Lemire) chosen at run time.
// Both paths give the same bytes and reject the same texts: the vector decoder
// only takes blocks that are entirely alphabet characters and leaves anything
// else, padding included, to the scalar decoder.
#include "NUVSysConverter.h"

#include <cstdint>
#include <cstring>
#include <new>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint32_t kBad = 0x01FFFFFFu;  // any table entry with bit 24 set marks an invalid byte
constexpr uint8_t kInvalid = 64;       // value of every non-alphabet byte, '=' included

struct Tables {
  uint16_t pair[4096];  // two output characters for each 12 bits of input
  uint8_t value[256];   // 0..63, or 64
  // Decoded contribution of the 1st..4th character of a group, as the
  // little-endian word [byte0, byte1, byte2, 0]; kBad for invalid bytes.
  uint32_t d0[256], d1[256], d2[256], d3[256];
  constexpr Tables() : pair{}, value{}, d0{}, d1{}, d2{}, d3{} {
    for (unsigned i = 0; i < 4096; ++i)
      pair[i] = static_cast<uint16_t>(static_cast<uint8_t>(kAlphabet[i >> 6]) |
                                      (static_cast<uint8_t>(kAlphabet[i & 63]) << 8));
    for (unsigned i = 0; i < 256; ++i) {
      value[i] = kInvalid;
      d0[i] = d1[i] = d2[i] = d3[i] = kBad;
    }
    for (unsigned v = 0; v < 64; ++v) {
      const unsigned c = static_cast<uint8_t>(kAlphabet[v]);
      value[c] = static_cast<uint8_t>(v);
      d0[c] = v << 2;
      d1[c] = (v >> 4) | ((v & 0xFu) << 12);
      d2[c] = ((v >> 2) << 8) | ((v & 3u) << 22);
      d3[c] = v << 16;
    }
  }
};
constexpr Tables kTables;

// Encodes whole groups of three bytes; returns the output position.
char* encodeGroupsScalar(const uint8_t* in, size_t groups, char* out) {
  for (size_t g = 0; g < groups; ++g, in += 3, out += 4) {
    const uint32_t v = (uint32_t{in[0]} << 16) | (uint32_t{in[1]} << 8) | in[2];
    std::memcpy(out, &kTables.pair[v >> 12], 2);
    std::memcpy(out + 2, &kTables.pair[v & 0xFFF], 2);
  }
  return out;
}

// Decodes whole groups that must all be alphabet characters (no padding).
// Returns false on the first invalid byte.
bool decodeGroupsScalar(const uint8_t* in, size_t groups, uint8_t* out) {
  for (size_t g = 0; g < groups; ++g, in += 4, out += 3) {
    const uint32_t x = kTables.d0[in[0]] | kTables.d1[in[1]] | kTables.d2[in[2]] | kTables.d3[in[3]];
    if (x >= 0x01000000u) return false;
    out[0] = static_cast<uint8_t>(x);
    out[1] = static_cast<uint8_t>(x >> 8);
    out[2] = static_cast<uint8_t>(x >> 16);
  }
  return true;
}

#if defined(__x86_64__)
#define SYSTEMTS_AVX2 __attribute__((target("avx2")))

// 24 input bytes to 32 characters per step; needs 28 readable bytes.
SYSTEMTS_AVX2 size_t encodeAvx2(const uint8_t* in, size_t groups, char* out) {
  size_t done = 0;
  const __m256i reshuffle = _mm256_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10,
                                             1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
  const __m256i shift = _mm256_setr_epi8(65, 71, -4, -4, -4, -4, -4, -4, -4, -4, -4, -4, -19, -16, 0, 0,
                                         65, 71, -4, -4, -4, -4, -4, -4, -4, -4, -4, -4, -19, -16, 0, 0);
  while (groups - done >= 10) {  // 8 groups per step, 28 bytes read
    const __m256i raw = _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(in + 12),
                                            reinterpret_cast<const __m128i*>(in));
    const __m256i v = _mm256_shuffle_epi8(raw, reshuffle);
    // Spread the four 6-bit fields of each 24-bit group into four bytes.
    const __m256i t0 = _mm256_and_si256(v, _mm256_set1_epi32(0x0FC0FC00));
    const __m256i t1 = _mm256_mulhi_epu16(t0, _mm256_set1_epi32(0x04000040));
    const __m256i t2 = _mm256_and_si256(v, _mm256_set1_epi32(0x003F03F0));
    const __m256i t3 = _mm256_mullo_epi16(t2, _mm256_set1_epi32(0x01000010));
    const __m256i idx = _mm256_or_si256(t1, t3);
    // Map 0..63 to the alphabet with one shuffle of offsets.
    __m256i sel = _mm256_subs_epu8(idx, _mm256_set1_epi8(51));
    sel = _mm256_sub_epi8(sel, _mm256_cmpgt_epi8(idx, _mm256_set1_epi8(25)));
    const __m256i chars = _mm256_add_epi8(idx, _mm256_shuffle_epi8(shift, sel));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), chars);
    in += 24;
    out += 32;
    done += 8;
  }
  return done;
}

// 32 characters to 24 bytes per step (32 bytes stored); stops at the first
// block holding anything but alphabet characters.
SYSTEMTS_AVX2 size_t decodeAvx2(const uint8_t* in, size_t groups, uint8_t* out) {
  const __m256i lutLo = _mm256_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13,
                                         0x1A, 0x1B, 0x1B, 0x1B, 0x1A, 0x15, 0x11, 0x11, 0x11, 0x11, 0x11,
                                         0x11, 0x11, 0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A);
  const __m256i lutHi = _mm256_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10,
                                         0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x01, 0x02, 0x04, 0x08,
                                         0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10);
  const __m256i lutRoll = _mm256_setr_epi8(0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0,
                                           0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0);
  const __m256i mask2F = _mm256_set1_epi8(0x2F);
  const __m256i pack = _mm256_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1,
                                        2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
  const __m256i lanes = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7);
  size_t done = 0;
  while (groups - done >= 11) {  // 8 groups per step; 32 bytes stored into room for 24 + 9
    const __m256i str = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in));
    const __m256i hiNibbles = _mm256_and_si256(_mm256_srli_epi32(str, 4), mask2F);
    const __m256i loNibbles = _mm256_and_si256(str, mask2F);
    const __m256i hi = _mm256_shuffle_epi8(lutHi, hiNibbles);
    const __m256i lo = _mm256_shuffle_epi8(lutLo, loNibbles);
    if (!_mm256_testz_si256(lo, hi)) break;
    const __m256i eq2F = _mm256_cmpeq_epi8(str, mask2F);
    const __m256i roll = _mm256_shuffle_epi8(lutRoll, _mm256_add_epi8(eq2F, hiNibbles));
    const __m256i vals = _mm256_add_epi8(str, roll);
    const __m256i ab = _mm256_maddubs_epi16(vals, _mm256_set1_epi32(0x01400140));
    const __m256i abc = _mm256_madd_epi16(ab, _mm256_set1_epi32(0x00011000));
    const __m256i bytes = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(abc, pack), lanes);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), bytes);
    in += 32;
    out += 24;
    done += 8;
  }
  return done;
}

bool haveAvx2() {
  static const bool yes = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") != 0;
  }();
  return yes;
}
#endif

}  // namespace

int NUVSysConverter::ConvertToBase64(const unsigned char* data, size_t n, char*& text) {
  text = nullptr;
  if (!data) return E_FAIL;
  const size_t groups = n / 3, rest = n % 3;
  // A length whose text would not fit in size_t is refused like a failed
  // allocation, before 4 * groups can wrap around.
  if (groups >= SIZE_MAX / 4) return E_FAIL;
  const size_t chars = 4 * (groups + (rest != 0));
  char* out = new (std::nothrow) char[chars + 1];
  if (!out) return E_FAIL;
  const uint8_t* in = data;
  char* o = out;
  size_t done = 0;
#if defined(__x86_64__)
  if (haveAvx2()) {
    done = encodeAvx2(in, groups, o);
    in += 3 * done;
    o += 4 * done;
  }
#endif
  o = encodeGroupsScalar(in, groups - done, o);
  in += 3 * (groups - done);
  if (rest == 2) {
    *o++ = kAlphabet[in[0] >> 2];
    *o++ = kAlphabet[((in[0] << 4) & 0x30) | (in[1] >> 4)];
    *o++ = kAlphabet[(in[1] << 2) & 0x3C];
    *o++ = '=';
  } else if (rest == 1) {
    *o++ = kAlphabet[in[0] >> 2];
    *o++ = kAlphabet[(in[0] << 4) & 0x30];
    *o++ = '=';
    *o++ = '=';
  }
  *o = '\0';
  text = out;
  return 0;
}

int NUVSysConverter::ConvertFromBase64(const char* text, unsigned char*& data, size_t& n) {
  data = nullptr;
  n = 0;
  if (!text) return E_FAIL;
  const size_t len = std::strlen(text);
  if (len == 0) return 0;
  if (len % 4 != 0) return E_FAIL;
  const size_t groups = len / 4;
  uint8_t* out = new (std::nothrow) uint8_t[3 * groups];
  if (!out) return E_FAIL;

  const uint8_t* in = reinterpret_cast<const uint8_t*>(text);
  size_t done = 0;
#if defined(__x86_64__)
  if (haveAvx2()) done = decodeAvx2(in, groups - 1, out);
#endif
  // Every group but the last: four alphabet characters.
  bool ok = decodeGroupsScalar(in + 4 * done, groups - 1 - done, out + 3 * done);

  // The last group: two alphabet characters, then either two more, one and
  // '=', or "==". A '=' counts as 64 in the arithmetic.
  const uint8_t* g = in + 4 * (groups - 1);
  const unsigned a = kTables.value[g[0]], b = kTables.value[g[1]];
  const unsigned c = kTables.value[g[2]], d = kTables.value[g[3]];
  ok = ok && a < 64 && b < 64 &&
       (c < 64 ? (d < 64 || g[3] == '=') : (g[2] == '=' && g[3] == '='));
  if (!ok) {
    delete[] out;
    return E_FAIL;
  }
  uint8_t* last = out + 3 * (groups - 1);
  last[0] = static_cast<uint8_t>((a << 2) | (b >> 4));
  last[1] = static_cast<uint8_t>((b << 4) | ((c >> 2) & 0x0F));
  last[2] = static_cast<uint8_t>((c << 6) | (d & 0x3F));

  n = 3 * groups - (g[3] == '=' ? 1 : 0) - (g[3] == '=' && g[2] == '=' ? 1 : 0);
  data = out;
  return 0;
}
