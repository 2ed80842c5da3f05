// NUVSysUCAlgorithm.h - transforms between UTF-8, UTF-16 and UTF-32, UTF-8
// validation, and the string hashes every text class of the library uses.
//
// Units: a UTF-16 code unit is an `unsigned short`; a code point (UTF-32 unit)
// an `unsigned int`; UTF-8 and multi-byte text are `char` bytes. Names that
// say "UCS2" mean the same 16-bit unit and accept surrogate pairs.
//
// Threads: every operation is static and stateless, callable from any thread
// on distinct buffers. Nothing here allocates, traces or throws.
//
// Leniency (a compatibility promise; callers rely on it):
// - Decoding never fails. A byte that cannot start a UTF-8 sequence (a stray
//   continuation byte 0x80-0xBF, or 0xF8-0xFF) passes through as the code
//   point of the same value, U+0080..U+00FF. Continuation bytes are not
//   checked: the lead byte alone decides how many bytes a character takes.
// - A high surrogate (0xD800-0xDBFF) always combines with the unit after it,
//   whatever that unit is: cp = (high << 10) + next - 0x35FDC00 (32-bit
//   arithmetic). Lone low surrogates pass through unchanged.
// - Code points are encoded without range checks: a surrogate code point
//   becomes a three-byte sequence; code points above 0xFFFF become the pair
//   0xD7C0 + (cp >> 10), 0xDC00 + (cp & 0x3FF), each kept to 16 bits.
// Only IsUTF8, CharUTF8Len and the legacy decoder's statuses report malformed
// input.
//
// The end of the input: no operation reads past the end it is given. A UTF-8
// sequence cut by the end is completed with zero bytes, and a high surrogate
// in the last position with a zero unit: exactly what a NUL-terminated buffer
// supplies, so results on terminated text are those of the classic unchecked
// decoder. (The one exception is ConvertUTF8ToUCS2Legacy's documented
// boundary, which reads one byte past the length.)
#ifndef NUVSYSUCALGORITHM_H
#define NUVSYSUCALGORITHM_H

#include "SystemTSCommon.h"

class NUVSysCodePage;

class SYSTEMTS_API NUVSysUCAlgorithm {
 public:
  // Transforms that trust their input: no validation, no capacity. The output
  // must have room for the result (at most one UTF-16 unit per UTF-8 byte, two
  // UTF-16 units or four UTF-8 bytes per code point, three UTF-8 bytes per
  // UTF-16 unit). Each returns the output position past the last item written,
  // and the output unchanged for an empty range.
  struct SYSTEMTS_API unchecked {
    static unsigned short* utf8to16(const char* begin, const char* end, unsigned short* out);
    static unsigned int* utf8to32(const char* begin, const char* end, unsigned int* out);
    static char* utf16to8(const unsigned short* begin, const unsigned short* end, char* out);
    static unsigned int* utf16to32(const unsigned short* begin, const unsigned short* end,
                                   unsigned int* out);
    static char* utf32to8(const unsigned int* begin, const unsigned int* end, char* out);
    static unsigned short* utf32to16(const unsigned int* begin, const unsigned int* end,
                                     unsigned short* out);
  };

  // Bounded, resumable UTF-8 to UTF-16. `src` and `srcLen` (bytes) advance as
  // input is consumed.
  // - Counting mode (`out` null): returns the units the whole input needs.
  // - Writing mode: writes at most `capacity` units and returns the count. A
  //   character that no longer fits is given back whole (`src` points at its
  //   first byte, `srcLen` counts it again), so a surrogate pair is never
  //   split. Nothing is written past `capacity` units and no terminator is
  //   added.
  // - Capacities 0 and 1: the classic algorithm writes the first character
  //   without a room test and, its limit wrapping, everything after it. A call
  //   whose whole output fits (an empty input, or at capacity 1 a single
  //   one-unit character) gives exactly that result; any other writes
  //   nothing, returns 0 and leaves `src` and `srcLen` as they were: the
  //   "call again with more room" result. Give at least 2 units to make
  //   progress on any input.
  // - When everything was consumed, `srcLen` is 0 and `src` is null. A
  //   non-null `src` with `srcLen` > 0 means: call again with more room. A
  //   sequence cut by the end of the input counts as consumed (its missing
  //   bytes read as zero); `srcLen` then ends at 0, never below.
  // Failure: 0xFFFFFFFF, nothing touched, when `src` is null or `srcLen` < 0.
  static unsigned int ConvertUTF8ToUTF16(const char*& src, int& srcLen, unsigned short* out,
                                         unsigned int capacity);
  // The same with a 64-bit length: narrowed to int, converted, written back
  // sign-extended.
  static unsigned int ConvertUTF8ToUCS2(const char*& src, unsigned long& srcLen,
                                        unsigned short* out, unsigned long capacity);

  // Bounded, resumable UTF-16 to UTF-8, the mirror of ConvertUTF8ToUTF16 with
  // units in and bytes out. The last character that does not fit in the room
  // left is given back whole; nothing is written past `capacity` bytes and no
  // terminator is added. Capacities 0 to 3, where the classic limit wraps: a
  // call whose whole output fits gives that result; any other writes nothing,
  // returns 0 and leaves `src` and `srcLen` as they were (call again with at
  // least 4 bytes). A high surrogate in the last position takes a zero unit
  // as its partner and counts as consumed. Failure: 0xFFFFFFFF when `src` is
  // null or `srcLen` < 0.
  static unsigned int ConvertUTF16ToUTF8(const unsigned short*& src, int& srcLen, char* out,
                                         unsigned int capacity);
  static unsigned int ConvertUCS2ToUTF8(const unsigned short*& src, unsigned long& srcLen,
                                        char* out, unsigned long capacity);

  // The earlier table-driven UTF-8 decoder, kept for its statuses:
  //   0 all input decoded; -1 `out` null (nothing stored through `written`);
  //  -2 the next sequence runs past the end (decoding stops before it);
  //  -3 the output, assumed to hold `len` units, is full.
  // The lead byte alone gives the sequence length (up to six bytes); values
  // above 0xFFFF are stored as '?' (0x3F). `*written` receives the units
  // written on every status but -1.
  // Compatibility: a sequence whose last byte falls exactly one past the end
  // is still decoded, reading the byte at src[len]. Callers pass
  // NUL-terminated text (the NUL is then read as a continuation byte).
  static int ConvertUTF8ToUCS2Legacy(const char* src, unsigned long len, unsigned short* out,
                                     int* written);

  // 0 when the `len` bytes at `text` are valid UTF-8 (shortest forms, no
  // surrogates, nothing above U+10FFFF; an empty range is valid), -1
  // otherwise. `text` is not advanced.
  static int IsUTF8(const char*& text, unsigned long len);

  // Bytes of the first character (1 to 4) when it is a valid sequence within
  // `len`; 0 when the first byte is NUL; -1 for a null text or an invalid or
  // cut sequence.
  static int CharUTF8Len(const char* text, unsigned long len);

  // String hash "V3": h = h * 37 + unit over UTF-16 code units, modulo 2^32,
  // starting from `seed`. The UTF-16, UTF-8 and code-page forms of one text
  // hash alike.
  static unsigned int HashV3FromUCS2(const unsigned short* units, unsigned long n,
                                     unsigned int seed);
  static unsigned int HashV3FromUTF8(const char* bytes, unsigned long n, unsigned int seed);
  // Hashes text in `codePage` through its UTF-16 form; a null text gives
  // `seed`. A null code page means the process's environment converter
  // (NUVSysCodePage::GetEnvConverter).
  static unsigned int HashV3FromMBCS(const char* bytes, unsigned long n, unsigned int seed,
                                     const NUVSysCodePage* codePage);
  // HashV3FromMBCS with an ASCII fast path: bytes up to 0x7F are hashed
  // directly; the rest, from the first byte above 0x7F, goes through
  // HashV3FromMBCS.
  static unsigned int HashV3FromMBCSOptimistic(const char* bytes, unsigned long n,
                                               unsigned int seed,
                                               const NUVSysCodePage* codePage);

  // The older sampling hash, h = h * 37 + item in a 64-bit accumulator over
  // every item of texts below 400 items and every (n >> 6)-th item of longer
  // ones. HashV2UCS2 gives 1 for an empty text or a zero accumulator, else
  // h & 0x7FFFFFFF (which may itself be 0). HashV2MBCS takes bytes as signed
  // chars and gives h & 0x7FFFFFFF, 0 for an empty text. The two differ on
  // purpose; both are kept as they are.
  static unsigned int HashV2UCS2(const unsigned short* units, unsigned long n);
  static unsigned int HashV2MBCS(const char* bytes, unsigned long n);
};

#endif  // NUVSYSUCALGORITHM_H
