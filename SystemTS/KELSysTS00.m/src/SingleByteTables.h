// SingleByteTables.h - table conversion for single-byte code pages, behind
// NUVSysCodePage's iconv methods. Private to the library.
//
// For a code page in which every byte is one character and iconv keeps no
// state, iconv's answer for a byte or a unit never depends on its
// neighbours, so it can be asked once per byte and once per unit and kept.
// The tables are filled from iconv itself, through the calling thread's own
// descriptor, and record what iconv refuses as well as what it converts; the
// converter's loops then give exactly what they give through iconv.
//
// A code page qualifies when, asked byte by byte, iconv turns every byte into
// exactly one UTF-16 unit or refuses it (EILSEQ), and the accepted bytes in
// one text, and their units in one text, convert to exactly what each gives
// alone, with nothing held back for the end. Multi-byte code pages fail the
// first test (a lead byte alone is incomplete), and so do the ones glibc
// composes characters in (CP1255, CP1258, TCVN: a letter alone is held back
// for a mark that may follow, and gives nothing).
//
// Tables are made on first use per handle (IConvDesc_t), published with a
// compare-and-swap, and kept until the process ends: handles are never reused.
// Handles past kMaxHandle are not tabulated and go through iconv.
#ifndef SYSTEMTS_SINGLEBYTETABLES_H
#define SYSTEMTS_SINGLEBYTETABLES_H

#include <iconv.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "NUVSysIConvTSWrap.h"

namespace systemts::detail {

constexpr IConvDesc_t kMaxHandle = 1024;

// Code page to UTF-16: one unit per byte, kRefused for a byte iconv refuses.
struct ByteDecoder {
  static constexpr uint16_t kRefused = 0xFFFF;  // no byte qualifies that gives U+FFFF
  uint16_t unit[256];
  unsigned sameBelow;  // 0, 0x80 or 0x100: bytes below it are their own unit
};

// UTF-16 to code page, in 256 blocks of 256 units, each filled on first use.
struct ByteEncoder {
  // An entry is the byte (0 to 255), kQuestion for a unit iconv refuses
  // (the converter writes '?'), or kIconv for a unit the converter hands to
  // iconv as it stands: surrogates, and any unit that is not one byte.
  static constexpr uint16_t kQuestion = 0x100;
  static constexpr uint16_t kIconv = 0x200;
  struct Block {
    uint16_t entry[256];
  };
  mutable std::atomic<const Block*> blocks[256];
  unsigned sameBelow;  // 0, 0x80 or 0x100: units below it are their own byte

  ByteEncoder() = default;
  ByteEncoder(const ByteEncoder&) = delete;
  ByteEncoder& operator=(const ByteEncoder&) = delete;
  // Only an encoder that lost the race to be published is ever destroyed.
  ~ByteEncoder() {
    for (auto& b : blocks) delete b.load(std::memory_order_relaxed);
  }
};

// Why a decoding run stopped.
enum class RunEnd { Input, Refused, Full };

// The decoder for handle `toUtf16` (code page to "UTF-16LE"), made on first
// use with `cd`, the calling thread's descriptor for that handle. Null when
// the code page does not qualify or the handle is out of range.
const ByteDecoder* byteDecoder(IConvDesc_t toUtf16, iconv_t cd) noexcept;

// The encoder for handle `fromUtf16` ("UTF-16LE" to code page), made on first
// use with `cd` (the calling thread's descriptor for it); `decoder` is the
// same code page's decoder, null when it does not qualify.
const ByteEncoder* byteEncoder(IConvDesc_t fromUtf16, iconv_t cd, const ByteDecoder* decoder) noexcept;

// Is the encoder for `fromUtf16` decided (made, or known not to qualify)?
// Lets a caller skip looking for the decoder when it will not be needed.
bool byteEncoderDecided(IConvDesc_t fromUtf16) noexcept;

// Converts bytes at `in` to UTF-16LE at `out` as iconv does on such a code
// page, with the same bookkeeping (`outLeft` in bytes): stops at the end of
// the input (Input); at a refused byte, which stays unconsumed, even when no
// room is left (Refused, iconv's EILSEQ); or when the next byte's unit does
// not fit (Full, iconv's E2BIG).
RunEnd decodeRun(const ByteDecoder& t, char*& in, size_t& inLeft, char*& out, size_t& outLeft) noexcept;

// The whole UTF-16 to code page loop of NUVSysCodePage::_UC2toCP on such a
// code page: `n` units from `src` to `dst`, a refused unit giving '?'; units
// marked kIconv go through `cd` with that loop's rules. Returns the bytes
// written; `dst` holds 4 * n. Does not terminate.
size_t encodeUnits(const ByteEncoder& t, iconv_t cd, const unsigned short* src, size_t n, char* dst) noexcept;

}  // namespace systemts::detail

#endif  // SYSTEMTS_SINGLEBYTETABLES_H
