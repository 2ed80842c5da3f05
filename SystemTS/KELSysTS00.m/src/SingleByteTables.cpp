// SingleByteTables.cpp - building and running the single-byte tables.
#include "SingleByteTables.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#if defined(__x86_64__)
#include <emmintrin.h>
#define SYSTEMTS_X86 1
#endif

#include "SysCalls.h"

namespace systemts::detail {
namespace {

// Stands for "this handle's code page does not qualify".
const ByteDecoder kNoDecoder{};
const ByteEncoder kNoEncoder{};

std::atomic<const ByteDecoder*> g_decoders[kMaxHandle];
std::atomic<const ByteEncoder*> g_encoders[kMaxHandle];

constexpr size_t kFailed = static_cast<size_t>(-1);

bool isSurrogate(unsigned u) { return u >= 0xD800u && u <= 0xDFFFu; }

// One iconv call over a whole buffer, then a reset. Returns iconv's result
// and leaves errno as iconv set it.
size_t convertOnce(iconv_t cd, const void* src, size_t srcBytes, void* dst, size_t& dstBytes) {
  char* in = static_cast<char*>(const_cast<void*>(src));
  char* out = static_cast<char*>(dst);
  size_t room = dstBytes;
  const size_t rc = g_sys.iconv(cd, &in, &srcBytes, &out, &room);
  const int e = errno;
  dstBytes -= room;
  g_sys.iconv(cd, nullptr, nullptr, nullptr, nullptr);
  errno = e;
  return srcBytes == 0 ? rc : kFailed;
}

// Converts the whole `src` in one call and checks that nothing is held back
// for the end: what a stateless converter gives.
// `outLen` is the room of `out` on entry and the bytes written on return.
bool convertsStatelessly(iconv_t cd, const void* src, size_t srcBytes, char* out, size_t& outLen) {
  char* in = static_cast<char*>(const_cast<void*>(src));
  char* o = out;
  size_t room = outLen;
  if (g_sys.iconv(cd, &in, &srcBytes, &o, &room) == kFailed || srcBytes != 0) return false;
  const size_t before = room;
  const bool flushedNothing = g_sys.iconv(cd, nullptr, nullptr, &o, &room) != kFailed && room == before;
  g_sys.iconv(cd, nullptr, nullptr, nullptr, nullptr);
  outLen = static_cast<size_t>(o - out);
  return flushedNothing;
}

unsigned sameBelow(const uint16_t* entries) {
  unsigned n = 0;
  while (n < 256 && entries[n] == n) ++n;
  return n == 256 ? 0x100 : n >= 0x80 ? 0x80 : 0;
}

std::unique_ptr<ByteDecoder> buildDecoder(iconv_t cd) {
  std::unique_ptr<ByteDecoder> t(new (std::nothrow) ByteDecoder);
  if (!t) return t;
  // The accepted bytes, then the same backwards (fixed arrays: the library
  // instantiates no out-of-line standard container code).
  unsigned char text[512];
  size_t accepted = 0;
  for (unsigned b = 0; b < 256; ++b) {
    const auto byte = static_cast<unsigned char>(b);
    uint16_t units[4];
    size_t got = sizeof units;
    if (convertOnce(cd, &byte, 1, units, got) != kFailed) {
      // Exactly one unit, and one that cannot be mistaken for a mark.
      if (got != 2 || isSurrogate(units[0]) || units[0] == ByteDecoder::kRefused) return nullptr;
      t->unit[b] = units[0];
      text[accepted++] = byte;
    } else if (errno == EILSEQ && got == 0) {
      t->unit[b] = ByteDecoder::kRefused;
    } else {
      return nullptr;  // incomplete alone (a lead byte) or anything else
    }
  }
  // The accepted bytes in one text, in order and then backwards: converted
  // at once they must give what each gave alone, with nothing held back.
  // (A converter that holds a letter back to combine it with the next
  // already failed above, giving nothing for that letter alone.)
  for (size_t i = 0; i < accepted; ++i) text[accepted + i] = text[accepted - 1 - i];
  const size_t n = 2 * accepted;
  uint16_t want[512];
  for (size_t i = 0; i < n; ++i) want[i] = t->unit[text[i]];
  char out[2 * 512 + 16];
  size_t outLen = sizeof out;
  if (!convertsStatelessly(cd, text, n, out, outLen) || outLen != 2 * n || std::memcmp(out, want, outLen) != 0) {
    return nullptr;
  }
  t->sameBelow = sameBelow(t->unit);
  return t;
}

// Asks iconv for every unit of block `hi` one by one.
std::unique_ptr<ByteEncoder::Block> buildBlock(iconv_t cd, unsigned hi) {
  std::unique_ptr<ByteEncoder::Block> block(new (std::nothrow) ByteEncoder::Block);
  if (!block) return block;
  for (unsigned lo = 0; lo < 256; ++lo) {
    const auto unit = static_cast<uint16_t>(hi << 8 | lo);
    uint16_t& e = block->entry[lo];
    if (isSurrogate(unit)) {
      e = ByteEncoder::kIconv;
      continue;
    }
    unsigned char bytes[8];
    size_t got = sizeof bytes;
    if (convertOnce(cd, &unit, 2, bytes, got) != kFailed) {
      e = got == 1 ? bytes[0] : ByteEncoder::kIconv;
    } else {
      e = errno == EILSEQ && got == 0 ? ByteEncoder::kQuestion : ByteEncoder::kIconv;
    }
  }
  return block;
}

const ByteEncoder::Block* block(const ByteEncoder& t, iconv_t cd, unsigned hi) {
  if (const ByteEncoder::Block* b = t.blocks[hi].load(std::memory_order_acquire)) return b;
  std::unique_ptr<ByteEncoder::Block> made = buildBlock(cd, hi);
  if (!made) return nullptr;
  const ByteEncoder::Block* expected = nullptr;
  if (t.blocks[hi].compare_exchange_strong(expected, made.get(), std::memory_order_acq_rel)) return made.release();
  return expected;  // another thread made it first; ours goes
}

std::unique_ptr<ByteEncoder> buildEncoder(iconv_t cd, const ByteDecoder& decoder) {
  std::unique_ptr<ByteEncoder> t(new (std::nothrow) ByteEncoder);
  if (!t) return t;
  for (auto& b : t->blocks) b.store(nullptr, std::memory_order_relaxed);
  // The units the code page's bytes decode to, in order and then backwards,
  // in one text: converted at once they must give what each gives alone.
  uint16_t units[512];
  size_t count = 0;
  for (unsigned b = 0; b < 256; ++b) {
    const uint16_t u = decoder.unit[b];
    if (u == ByteDecoder::kRefused) continue;
    const ByteEncoder::Block* blk = block(*t, cd, u >> 8);
    if (blk == nullptr) return nullptr;
    if (blk->entry[u & 0xFF] < 0x100) units[count++] = u;
  }
  for (size_t i = 0; i < count; ++i) units[count + i] = units[count - 1 - i];
  const size_t n = 2 * count;
  char want[512];
  for (size_t i = 0; i < n; ++i) {
    const uint16_t u = units[i];
    want[i] = static_cast<char>(t->blocks[u >> 8].load(std::memory_order_relaxed)->entry[u & 0xFF]);
  }
  char out[512 + 16];
  size_t outLen = sizeof out;
  if (!convertsStatelessly(cd, units, 2 * n, out, outLen) || outLen != n || std::memcmp(out, want, n) != 0) {
    return nullptr;
  }
  const ByteEncoder::Block* first = block(*t, cd, 0);
  if (first == nullptr) return nullptr;
  t->sameBelow = sameBelow(first->entry);
  return t;
}

// Publishes `made` for a handle, or the "does not qualify" mark when it is
// null; the first one published stays.
template <typename T>
const T* publish(std::atomic<const T*>& slot, std::unique_ptr<T> made, const T* none) {
  const T* mine = made ? made.get() : none;
  const T* expected = nullptr;
  if (slot.compare_exchange_strong(expected, mine, std::memory_order_acq_rel)) {
    made.release();  // kept until the process ends
    return mine == none ? nullptr : mine;
  }
  return expected == none ? nullptr : expected;
}

}  // namespace

const ByteDecoder* byteDecoder(IConvDesc_t toUtf16, iconv_t cd) noexcept {
  if (toUtf16 >= kMaxHandle) return nullptr;
  std::atomic<const ByteDecoder*>& slot = g_decoders[toUtf16];
  if (const ByteDecoder* t = slot.load(std::memory_order_acquire)) return t == &kNoDecoder ? nullptr : t;
  try {
    return publish(slot, buildDecoder(cd), &kNoDecoder);
  } catch (const std::bad_alloc&) {
    return nullptr;  // try again next time
  }
}

bool byteEncoderDecided(IConvDesc_t fromUtf16) noexcept {
  return fromUtf16 >= kMaxHandle || g_encoders[fromUtf16].load(std::memory_order_acquire) != nullptr;
}

const ByteEncoder* byteEncoder(IConvDesc_t fromUtf16, iconv_t cd, const ByteDecoder* decoder) noexcept {
  if (fromUtf16 >= kMaxHandle) return nullptr;
  std::atomic<const ByteEncoder*>& slot = g_encoders[fromUtf16];
  if (const ByteEncoder* t = slot.load(std::memory_order_acquire)) return t == &kNoEncoder ? nullptr : t;
  if (decoder == nullptr) return publish(slot, std::unique_ptr<ByteEncoder>(), &kNoEncoder);
  try {
    return publish(slot, buildEncoder(cd, *decoder), &kNoEncoder);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

RunEnd decodeRun(const ByteDecoder& t, char*& in, size_t& inLeft, char*& out, size_t& outLeft) noexcept {
  auto* s = reinterpret_cast<const unsigned char*>(in);
  const unsigned char* const end = s + inLeft;
  auto* o = reinterpret_cast<uint16_t*>(out);
  size_t room = outLeft / 2;
  RunEnd result = RunEnd::Input;
  while (s < end) {
#if SYSTEMTS_X86
    // Sixteen bytes at a time while they all convert: widen them, then put
    // in the table's units where a byte is not its own unit. Nothing is
    // stored for a block holding a refused byte; that one goes byte by byte.
    if (t.sameBelow != 0) {
      const __m128i zero = _mm_setzero_si128();
      while (end - s >= 16 && room >= 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
        unsigned high = t.sameBelow == 0x100 ? 0u : static_cast<unsigned>(_mm_movemask_epi8(v));
        bool refused = false;
        for (unsigned m = high; m != 0; m &= m - 1) refused |= t.unit[s[__builtin_ctz(m)]] == ByteDecoder::kRefused;
        if (refused) break;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(o), _mm_unpacklo_epi8(v, zero));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(o + 8), _mm_unpackhi_epi8(v, zero));
        for (; high != 0; high &= high - 1) {
          const unsigned i = static_cast<unsigned>(__builtin_ctz(high));
          o[i] = t.unit[s[i]];
        }
        s += 16;
        o += 16;
        room -= 16;
      }
      if (s == end) break;
    }
#endif
    // Byte by byte to the end of this block of sixteen (or of the input).
    const unsigned char* const stop = end - s > 16 ? s + 16 : end;
    for (; s < stop; ++s) {
      const uint16_t u = t.unit[*s];
      // A refused byte is found before the lack of room, as iconv finds it.
      if (u == ByteDecoder::kRefused) {
        result = RunEnd::Refused;
        break;
      }
      if (room == 0) {
        result = RunEnd::Full;
        break;
      }
      *o++ = u;
      --room;
    }
    if (result != RunEnd::Input) break;
  }
  outLeft -= 2 * static_cast<size_t>(o - reinterpret_cast<uint16_t*>(out));
  inLeft = static_cast<size_t>(end - s);
  in = reinterpret_cast<char*>(const_cast<unsigned char*>(s));
  out = reinterpret_cast<char*>(o);
  return result;
}

namespace {

// The iconv loop of _UC2toCP over a few units: on an error with input left,
// '?' and the next unit.
char* iconvUnits(iconv_t cd, const uint16_t* src, size_t n, char* out, size_t& outLeft) {
  char* in = reinterpret_cast<char*>(const_cast<uint16_t*>(src));
  size_t inLeft = 2 * n;
  while (inLeft > 0) {
    if (g_sys.iconv(cd, &in, &inLeft, &out, &outLeft) != kFailed) break;
    if (inLeft == 0 || outLeft == 0) break;
    *out++ = '?';
    --outLeft;
    in += 2;
    inLeft = inLeft >= 2 ? inLeft - 2 : 0;
  }
  g_sys.iconv(cd, nullptr, nullptr, nullptr, nullptr);
  return out;
}

}  // namespace

size_t encodeUnits(const ByteEncoder& t, iconv_t cd, const unsigned short* src, size_t n, char* dst) noexcept {
  const uint16_t* s = src;
  const uint16_t* const end = s + n;
  char* o = dst;
  size_t outLeft = 4 * n;
  const ByteEncoder::Block* cached = nullptr;  // the block of the last unit looked up
  unsigned cachedHi = 0x100;
  auto entry = [&](uint16_t u) -> uint16_t {
    if (u < t.sameBelow) return u;
    if ((u >> 8) != cachedHi) {
      const ByteEncoder::Block* b = block(t, cd, u >> 8);
      if (b == nullptr) return ByteEncoder::kIconv;  // no memory for it: iconv will do
      cached = b;
      cachedHi = u >> 8;
    }
    return cached->entry[u & 0xFF];
  };
  while (s < end) {
#if SYSTEMTS_X86
    // Sixteen units at a time while all are their own byte; a block with
    // other units is looked up first and stored only when each of them gives
    // one byte ('?' included).
    if (t.sameBelow != 0) {
      const __m128i other = _mm_set1_epi16(static_cast<short>(t.sameBelow == 0x100 ? 0xFF00 : 0xFF80));
      const __m128i zero = _mm_setzero_si128();
      while (end - s >= 16) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 8));
        const unsigned own = static_cast<unsigned>(
            _mm_movemask_epi8(_mm_packs_epi16(_mm_cmpeq_epi16(_mm_and_si128(a, other), zero),
                                              _mm_cmpeq_epi16(_mm_and_si128(b, other), zero))));
        unsigned rest = ~own & 0xFFFFu;
        char patch[16];
        bool simple = true;
        for (unsigned m = rest; m != 0; m &= m - 1) {
          const unsigned i = static_cast<unsigned>(__builtin_ctz(m));
          const uint16_t e = entry(s[i]);
          if (e == ByteEncoder::kIconv) {
            simple = false;
            break;
          }
          patch[i] = e == ByteEncoder::kQuestion ? '?' : static_cast<char>(e);
        }
        if (!simple) break;
        // Units that are not their own byte saturate here and are patched.
        _mm_storeu_si128(reinterpret_cast<__m128i*>(o), _mm_packus_epi16(a, b));
        for (; rest != 0; rest &= rest - 1) {
          const unsigned i = static_cast<unsigned>(__builtin_ctz(rest));
          o[i] = patch[i];
        }
        s += 16;
        o += 16;
        outLeft -= 16;
      }
      if (s == end) break;
    }
#endif
    const uint16_t* const stop = end - s > 16 ? s + 16 : end;
    while (s < stop) {
      const uint16_t e = entry(*s);
      if (e < 0x100) {
        *o++ = static_cast<char>(e);
        --outLeft;
        ++s;
      } else if (e == ByteEncoder::kQuestion) {
        *o++ = '?';
        --outLeft;
        ++s;
      } else {
        // A pair goes to iconv whole; anything else alone.
        const size_t k = (*s >= 0xD800u && *s <= 0xDBFFu && end - s >= 2 && s[1] >= 0xDC00u && s[1] <= 0xDFFFu) ? 2 : 1;
        o = iconvUnits(cd, s, k, o, outLeft);
        s += k;
      }
    }
  }
  return static_cast<size_t>(o - dst);
}

}  // namespace systemts::detail
