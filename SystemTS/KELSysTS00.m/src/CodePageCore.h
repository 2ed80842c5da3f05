// CodePageCore.h - the typed core behind NUVSysCodePage. Private to the
// library.
//
// A converter is an immutable CodePageState: which method pair it uses, its
// name, its C locale and its two iconv handles. NUVSysCodePage publishes the
// current state through one atomic pointer; a conversion loads it once and
// works from that snapshot to the end of the call, so a change of language on
// another thread is seen whole or not at all, never half-applied.
//
// Lifetime: a state is never changed after it is published and is freed only
// with its converter. A converter keeps every state it has had (a conversion
// may still be running through an older one) and reuses a kept state when it
// is set to the same code page and locale again, so the states a converter
// holds are bounded by the distinct code page and locale pairs it has been
// set to; the environment converter, never destroyed, keeps them for the
// process's life (one per distinct language seen, each about 130 bytes).
//
// The decoder and encoder return what happened instead of writing back
// through reference arguments: bytes or units consumed, units or bytes
// written, and a status.
#ifndef SYSTEMTS_CODEPAGECORE_H
#define SYSTEMTS_CODEPAGECORE_H

#include <cstddef>
#include <cstdint>

#include "NUVSysIConvTSWrap.h"

namespace systemts::detail {

enum class CodePageKind : uint8_t {
  Identity,  // bytes widen to units, units narrow to their low byte
  Utf8,      // the library's own UTF-8 transforms
  Iconv,     // iconv through NUVSysIConvTSWrap (or single-byte tables)
};

constexpr size_t kCLocaleSize = 85;

struct CodePageState {
  CodePageKind kind = CodePageKind::Identity;
  IConvDesc_t toUcs = 0;    // code page -> "UTF-16LE" (Iconv only)
  IConvDesc_t fromUcs = 0;  // "UTF-16LE" -> code page (Iconv only)
  char* name = nullptr;     // owned (malloc), "Identity", or null when it could not be copied
  char cLocale[kCLocaleSize] = "C";  // the associated C locale, "C" when none
  CodePageState* older = nullptr;    // the converter's previous states
};

enum class CodeStatus : uint8_t {
  Ok,       // converted as far as the input or the room allowed
  Refused,  // the UTF-8 transform refused its arguments; nothing is reliable
};

struct CodeStep {
  size_t consumed;  // input bytes (decode) or units (encode) used
  size_t written;   // units (decode) or bytes (encode) stored, terminator excluded
  CodeStatus status;
};

// No capacity: the one-shot form, which may write up to len + 2 units.
constexpr size_t kUnbounded = SIZE_MAX;

// Code page to UTF-16: converts from `src` (`len` bytes) into `dst`, at most
// `cap` units plus the terminating 0 the UTF-8 and identity methods add
// (`cap` is kUnbounded or at least 1). The iconv method writes no terminator.
CodeStep decodeCodePage(const CodePageState& s, const char* src, size_t len, unsigned short* dst,
                        size_t cap) noexcept;

// UTF-16 to code page: converts all `n` units into `dst` (room for 4n + 1
// bytes). The identity and iconv methods always terminate; the UTF-8 method
// only when `terminate` is set (the caller asked for the length).
CodeStep encodeCodePage(const CodePageState& s, const unsigned short* src, size_t n, char* dst,
                        bool terminate) noexcept;

}  // namespace systemts::detail

#endif  // SYSTEMTS_CODEPAGECORE_H
