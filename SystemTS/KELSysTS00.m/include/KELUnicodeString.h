// KELUnicodeString.h - the Unicode string value type.
//
// A KELUnicodeString is one pointer: the address of the text inside a shared,
// reference-counted KELInterUnicodeString (see KELInterUnicodeString.h). Text
// is kept in UTF-16 or in the process code page, whichever it was built from;
// the other form is converted once, on first request, and cached.
//
// Value semantics:
// - Copying costs one atomic increment; copies share the text.
// - Every change to a string whose text is shared copies it first, so a
//   change to one copy never shows in another.
// - Every empty string, whatever produced it, is the one shared empty string.
// - Every change drops the cached other form and the cached hash key.
//
// Units: every position and length is in UTF-16 code units (a character
// outside the Basic Multilingual Plane counts 2). Positions are never
// adjusted to keep surrogate pairs whole.
//
// Forms: text from the process code page (operator=(const char*), +=
// const char*) is stored as is (multi-byte form); every other builder stores
// UTF-16, and every operation by position works on, and gives, UTF-16. Which
// form a string is in changes only its cost, never its value: equality,
// order and hash are those of the UTF-16 text.
//
// Bad input: out-of-range positions and lengths are clamped (documented on
// each operation), null pointers are taken as empty text, and nothing throws
// or aborts. Text that cannot be allocated leaves the string empty, except
// where an operation says otherwise (the builders and Resize report it).
//
// Threads: distinct KELUnicodeString objects may be read, copied, converted
// and changed on different threads at once even when they share their text
// (as std::shared_ptr copies may). One object changed on one thread must not
// be used on another at the same time. The pointers handed out by
// ConvertToChar, ConvertToUCChar and ToU16StringView stay valid until the
// string is next changed, assigned or destroyed.
//
// A null handle (a zero-filled object) is tolerated: it reads as empty, edits
// (+=, Insert, ToUpper ...) leave it as it is, and assignments and builders
// give it a text.
//
// Case operations use the simple (one to one) case mappings of Unicode 15.0,
// from tables generated into the library (tools/gen_case_tables.py); they do
// not depend on the C locale, and nothing outside the library is needed.
#ifndef KELUNICODESTRING_H
#define KELUNICODESTRING_H

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "KELInterUnicodeString.h"
#include "SystemTSCommon.h"

class SYSTEMTS_API KELUnicodeString {
 public:
  // ---- construction and assignment ----

  // The empty string.
  KELUnicodeString() noexcept;
  // Shares `other`'s text (one atomic increment). Inline, like the
  // destructor, so that a copy costs no call.
  KELUnicodeString(const KELUnicodeString& other) noexcept : _text(other._text) {
    if (_text != nullptr) KELInterUnicodeString::FromText(_text)->AddRef();
  }
  // Takes `other`'s text; `other` is left empty.
  KELUnicodeString(KELUnicodeString&& other) noexcept;
  // Text in the process code page, NUL-terminated (null: empty), kept in the
  // multi-byte form.
  explicit KELUnicodeString(const char* text);
  // UTF-16 text, taken as it is.
  explicit KELUnicodeString(std::u16string_view text);
  ~KELUnicodeString() {
    if (_text != nullptr) KELInterUnicodeString::FromText(_text)->Release();
  }

  KELUnicodeString& operator=(const KELUnicodeString& other) noexcept;
  KELUnicodeString& operator=(KELUnicodeString&& other) noexcept;
  // Text in the process code page, NUL-terminated; null gives the empty
  // string. Stored in the multi-byte form.
  KELUnicodeString& operator=(const char* text);
  KELUnicodeString& operator=(std::u16string_view text);

  // The builders replace the whole text and return 0. On failure the string
  // is empty afterwards and the result says why:
  //   E_INVALIDARG  a null text with a length other than 0 or -1; a code
  //                 point, or a wchar_t value, above 0x10FFFF (negative
  //                 wchar_t values included);
  //   0x8007000C    (SystemTSResultFromErrno(ENOMEM)) the text would pass the
  //                 limit of 2^30 UTF-16 units, or memory could not be had.
  // A length of -1 means "up to the terminating 0". Lone surrogates are not
  // refused (text is taken as UTF-16 units, as everywhere in the class).
  // UTF-8, decoded leniently as NUVSysUCAlgorithm does (malformed bytes are
  // never refused).
  int BuildFromUTF8(const char* utf8, int len = -1);
  // UTF-16 code units, taken as they are.
  int BuildFromUCChar(const unsigned short* text, int len = -1);
  // wchar_t text: UTF-32 code points on this platform; above 0xFFFF they
  // become surrogate pairs. A value outside 0..0x10FFFF fails the whole text.
  int BuildFromWChar(const wchar_t* text, int len = -1);
  // `codePoint` `count` times (a surrogate pair each above 0xFFFF); count 0
  // gives the empty string and 0.
  int BuildFromCodePoint(unsigned codePoint, unsigned long count = 1);
  // Decimal text of a number. Doubles are written in the shortest form that
  // reads back to the same value ("0.1", "1e+20", "-0", "inf", "nan"), always
  // with '.' as the decimal point whatever the C locale says.
  int BuildFromNum(int value);
  int BuildFromNum(unsigned value);
  int BuildFromNum(long value);
  int BuildFromNum(unsigned long value);
  int BuildFromNum(long long value);
  int BuildFromNum(unsigned long long value);
  int BuildFromNum(double value);

  // Factories for C++ code: UTF-8 (lenient, as BuildFromUTF8) and UTF-16.
  static KELUnicodeString FromUTF8(std::string_view utf8);
  static KELUnicodeString FromUTF16(std::u16string_view utf16);

  // ---- conversion out ----

  // Writes the text as UTF-8 into `buf` (capacity bytes, terminator
  // included): as many whole characters as fit, then a terminating NUL
  // (when capacity > 0). Returns the byte length of the whole UTF-8 text
  // (not counting the NUL), as snprintf does, so a result >= capacity means
  // the text was cut; -1 when capacity < 0 or buf is null with capacity > 0.
  // Unpaired surrogates are written as three-byte sequences.
  int ConvertToUTF8(char* buf, int capacity) const;
  std::string ConvertToUTF8() const;
  // The text in the process code page (converted once and cached; a
  // character the code page lacks becomes '?'), terminated. Never null.
  const char* ConvertToChar() const;
  // The UTF-16 text, terminated. Never null.
  const unsigned short* ConvertToUCChar() const;
  // The text as UTF-32 (surrogate pairs combined).
  std::wstring ConvertToWChar() const;

  std::string ToStdString() const { return ConvertToUTF8(); }
  std::u16string ToU16String() const;
  // A view of the UTF-16 text, valid until the string next changes.
  std::u16string_view ToU16StringView() const;

  // ---- queries ----

  // Length in UTF-16 code units / in bytes in the process code page.
  int GetLengthInChar() const;
  int GetLengthInByte() const;
  // True for the empty string (and a null handle).
  bool IsNull() const;
  // The code unit at `i`; 0 when i is out of range.
  unsigned short operator[](int i) const;
  // The V3 hash key of the UTF-16 text (31 bits), cached until the next change.
  unsigned int ComputeHashKey() const;

  // ---- comparison (by UTF-16 code units) ----

  bool operator==(const KELUnicodeString& other) const;
  bool operator!=(const KELUnicodeString& other) const { return !(*this == other); }
  bool operator<(const KELUnicodeString& other) const { return Compare(other) < 0; }
  // Negative, 0 or positive as this text orders before, equal to or after
  // `other`, unit by unit (a prefix orders first).
  int Compare(const KELUnicodeString& other) const;
  // The same after simple case folding of each code point (so "STRASSE" and
  // "strasse" are equal, "ß" and "ss" are not).
  int CompareNoCase(const KELUnicodeString& other) const;

  // ---- concatenation ----

  KELUnicodeString& operator+=(const KELUnicodeString& other);
  // Text in the process code page.
  KELUnicodeString& operator+=(const char* text);
  // One UTF-16 code unit.
  KELUnicodeString& operator+=(char16_t unit);
  // One code point (a surrogate pair above 0xFFFF).
  KELUnicodeString& AppendCodePoint(unsigned codePoint);

  // ---- editing; positions and lengths in UTF-16 units ----

  // The `len` units from `start`. start is clamped to [0, length]; a
  // negative len, or one running past the end, means "to the end".
  KELUnicodeString SubString(int start, int len = -1) const;
  // Position of the first occurrence of `what` at or after `start` (clamped
  // to [0, length]), or with fromEnd the last occurrence starting at or before
  // `start` (a negative start: the end). -1 when there is none. An empty
  // `what` is found at the clamped start, as std::u16string::find/rfind do.
  int SearchSubString(const KELUnicodeString& what, int start = 0, bool fromEnd = false) const;
  // Replaces the `len` units from `start` (clamped as SubString) by `with`.
  KELUnicodeString& ReplaceSubString(int start, int len, const KELUnicodeString& with);
  // Replaces the non-overlapping occurrences of a non-empty `what`, left to
  // right, by `with`, at most maxCount of them (negative: all). Returns how
  // many were replaced.
  int ReplaceSubString(const KELUnicodeString& what, const KELUnicodeString& with, int maxCount = -1);
  // Inserts `text` before the unit at `pos` (clamped to [0, length]).
  KELUnicodeString& Insert(int pos, const KELUnicodeString& text);
  // Removes `len` units from `start` (clamped as SubString).
  KELUnicodeString& Remove(int start, int len = -1);
  // Cuts the text to n units, or pads it with `fill` up to n (n < 0: 0).
  // Returns 0; 0x8007000C (SystemTSResultFromErrno(ENOMEM)) when n passes
  // the limit of 2^30 units or memory could not be had, and the string then
  // keeps its text unchanged.
  int Resize(int n, char16_t fill = u' ');
  // Removes white space (Unicode White_Space) from the start, the end or both.
  enum StripMode { kStripLeading = 1, kStripTrailing = 2, kStripBoth = 3 };
  KELUnicodeString& Strip(StripMode mode = kStripBoth);
  // Simple case mapping of every code point (Unicode 15.0; not only ASCII).
  KELUnicodeString& ToUpper();
  KELUnicodeString& ToLower();

  // ---- the representation (for the library and its tests) ----

  // The block holding the text, or null for a null handle. The handle keeps
  // its reference.
  KELInterUnicodeString* _GetRepresentation() const {
    return _text ? KELInterUnicodeString::FromText(_text) : nullptr;
  }
  // Turns a UCS text of only ASCII into the multi-byte form (see
  // KELInterUnicodeString::Pack).
  void Pack();

 private:
  // Shares blocks with the 8-bit string without a copy.
  friend class KELString;

  KELInterUnicodeString* rep() const { return _GetRepresentation(); }
  // Points the handle at `fresh` (whose reference it takes) and releases the
  // old text.
  SYSTEMTS_HIDDEN void reset(KELInterUnicodeString* fresh);
  SYSTEMTS_HIDDEN void assignUnits(const char16_t* units, size_t n);
  // Leaves the string empty and returns `result` (a builder's failure path).
  SYSTEMTS_HIDDEN int emptied(int result);
  // Replaces units [start, start + len) of the UTF-16 text by n units from
  // `units`; `source` (may be null) is the block `units` lives in, kept alive
  // for the duration.
  SYSTEMTS_HIDDEN void replaceRange(size_t start, size_t len, const char16_t* units, size_t n,
                                    KELInterUnicodeString* source);

  void* _text;  // the text inside the representation
};

SYSTEMTS_API KELUnicodeString operator+(const KELUnicodeString& a, const KELUnicodeString& b);
// `b` (or `a`) is text in the process code page.
SYSTEMTS_API KELUnicodeString operator+(const KELUnicodeString& a, const char* b);
SYSTEMTS_API KELUnicodeString operator+(const char* a, const KELUnicodeString& b);
SYSTEMTS_API KELUnicodeString operator+(const KELUnicodeString& a, char16_t b);

// Writes the text as UTF-8.
SYSTEMTS_API std::ostream& operator<<(std::ostream& out, const KELUnicodeString& s);

// Hashes by ComputeHashKey, so equal strings hash alike in either form.
namespace std {
template <>
struct hash<KELUnicodeString> {
  size_t operator()(const KELUnicodeString& s) const noexcept { return s.ComputeHashKey(); }
};
}  // namespace std

#endif  // KELUNICODESTRING_H
