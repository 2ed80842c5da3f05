// KELString.h - the 8-bit string value type.
//
// A KELString is one pointer: the address of the text inside a shared,
// reference-counted KELInterUnicodeString (see KELInterUnicodeString.h), the
// same representation KELUnicodeString uses, so text moves between the two
// classes without copying. The text is bytes in the process code page;
// every length and position is in bytes.
//
// Value semantics, as KELUnicodeString: a copy is one atomic increment, a
// change to shared text copies it first, every empty result is the one shared
// empty string, and every change drops the cached other form and hash key.
//
// UTF-16 text: a KELString built from a KELUnicodeString shares its block as
// it is. The first KELString operation on it (any member, const ones
// included) brings the handle to the multi-byte form:
// - when every UTF-16 unit's low byte is at most 126, the bytes are those low
//   bytes. Compatibility: only the low byte is looked at, so U+0141 becomes
//   'A' (0x41) and U+0100 a 0 byte; results callers rely on depend on it;
// - otherwise the text goes through the process code page (the block's
//   multi-byte view). In the development stage a banner is printed first, and
//   converted text holding a non-printable byte gives the empty string.
// Because even const members may convert the handle, the first use of a
// string that holds UTF-16 text counts as a change for the threading rule
// below.
//
// The development stage (KELInterUnicodeString::S_devStage, from
// "KELDevelopmentStage" at load): text taken from a `const char*` (the
// constructor, assignment, +=, operator+, ReadLine) must be printable US
// ASCII: TAB, LF, CR and bytes 32 to 126. A text with any other byte is
// refused (the result is empty, or an append appends nothing), and a
// four-line warning naming the 1-based position of the first such byte is
// written on standard output, unless "KELStringWarningSuppress" is set (read
// once, the first time a non-printable byte is met). KELSysUTF8Str takes any
// bytes. Outside the development stage no text is checked.
//
// Messages, on standard output and only in the development stage:
//   the printable check (gated also by "KELStringWarningSuppress"), five
//   lines: a line of 85 '*', "* [KELString][Warning] The code '<position>'
//   does not map to a printable US ASCII character. *" (one line),
//   "* String: \"<text>\".", "* STACK TRACE:" padded with spaces to a final
//   '*', and the line of '*' again;
//   the conversion of UTF-16 text with a unit above 126 to the multi-byte
//   form (not gated), five lines framed by lines of 63 '*': "* [KELString]
//   Risk of data corruption detected:", "* Non-ASCII Unicode data is being
//   converted to MBCS (char *).", "* STACK TRACE:" (each padded to a final
//   '*').
// And on standard error, "NUVDebugBreak(1)" (KELInterUnicodeString.h) for a
// null source handle, in every stage.
//
// Growth: appends allocate exactly the new length (no growth factor), so a
// string built by many small appends is copied on nearly every one of them.
// This is intended; build long texts elsewhere and assign them once.
//
// Bad input: out-of-range positions and lengths get the documented result of
// each operation (often "nothing happens" or "the whole string"), never a
// crash. A null handle (a zero-filled object) is pointed at the empty string
// by the first operation; the copy constructor and assignment from text
// report it with NUVDebugBreak(1) first. Text that cannot be allocated leaves
// the string empty. Nothing throws.
//
// Threads: distinct KELString objects may be used on different threads at
// once even when they share their text. One object must not be used on one
// thread while another thread changes it. The pointer handed out by
// ConvertToChar stays valid until the string is next changed, assigned or
// destroyed.
#ifndef KELSTRING_H
#define KELSTRING_H

#include <iosfwd>

#include "KELChar.h"
#include "KELInterUnicodeString.h"
#include "KELUnicodeString.h"
#include "SystemTSCommon.h"

class KELString;
// Declared here for the class's friend declaration; documented at the end.
SYSTEMTS_API int KELSysUTF8Str(KELString* s, char* text);

// Strip modes, a bit set: 1 leading, 2 trailing, 3 both; 4 every occurrence
// wherever it stands (1 and 2 are then irrelevant); 0 nothing.
enum KELStripMode {
  KELStripNone = 0,
  KELStripLeading = 1,
  KELStripTrailing = 2,
  KELStripBoth = 3,
  KELStripAll = 4
};

class SYSTEMTS_API KELString {
 public:
  // ---- construction and assignment ----

  // The empty string.
  KELString() noexcept;
  // Text in the process code page. Null or "" gives the empty string; in the
  // development stage so does a text with a non-printable byte (after the
  // warning).
  KELString(const char* text);  // NOLINT: implicit, as callers pass literals
  // Shares `other`'s text. A null source handle calls NUVDebugBreak(1) and
  // gives the empty string.
  KELString(const KELString& other);
  // Takes `other`'s text; `other` is left empty.
  KELString(KELString&& other) noexcept;
  // `n` copies of the byte of `c`; n = 0 (or too large to allocate) gives the
  // empty string. A 0 byte is kept: the length is n.
  KELString(KELChar c, unsigned long n);
  // `s` repeated `n` times: n = 1 shares s, n = 0 gives the empty string.
  KELString(const KELString& s, unsigned long n);
  // Shares the Unicode string's block (brought to bytes on first use, see
  // above); the move takes it and leaves `u` empty.
  explicit KELString(const KELUnicodeString& u);
  explicit KELString(KELUnicodeString&& u) noexcept;
  ~KELString();

  // As the constructor from text. The old text is released in every case,
  // after the new one is built (so `text` may point into this string).
  KELString& operator=(const char* text);
  // Shares; assigning the same block does nothing.
  KELString& operator=(const KELString& other);
  KELString& operator=(KELString&& other) noexcept;
  KELString& operator=(const KELUnicodeString& u);

  // ---- comparison (bytes as strcmp orders them) ----

  // strcmp of the two texts. A null `text` returns this string's first byte
  // as a signed value (0 for the empty string).
  int Compare(const char* text) const;
  int Compare(const KELString& other) const;
  int compare(const char* text) const { return Compare(text); }
  int compare(const KELString& other) const { return Compare(other); }
  // 1 when identical byte for byte (two empty strings included), 2 when equal
  // only after tolower of each byte, 0 when different (lengths differ or a
  // byte pair still differs after tolower).
  int CompareByCase(const KELString& other) const;

  bool operator==(const char* t) const { return Compare(t) == 0; }
  bool operator!=(const char* t) const { return Compare(t) != 0; }
  bool operator<(const char* t) const { return Compare(t) < 0; }
  bool operator<=(const char* t) const { return Compare(t) <= 0; }
  bool operator>(const char* t) const { return Compare(t) > 0; }
  bool operator>=(const char* t) const { return Compare(t) >= 0; }
  bool operator==(const KELString& o) const { return Compare(o) == 0; }
  bool operator!=(const KELString& o) const { return Compare(o) != 0; }
  bool operator<(const KELString& o) const { return Compare(o) < 0; }
  bool operator<=(const KELString& o) const { return Compare(o) <= 0; }
  bool operator>(const KELString& o) const { return Compare(o) > 0; }
  bool operator>=(const KELString& o) const { return Compare(o) >= 0; }
  bool equal(const KELString& o) const { return Compare(o) == 0; }
  bool equal(const char* t) const { return Compare(t) == 0; }

  // ---- concatenation (exact growth, see above) ----

  // Null or "" does nothing; refused in the development stage when the text
  // has a non-printable byte. `text` may point into this string.
  KELString& operator+=(const char* text);
  // One byte (also 0).
  KELString& operator+=(const KELChar& c);
  // The other's bytes; an empty string takes `other`'s block instead (shares
  // it). Appending a string to itself doubles it.
  KELString& operator+=(const KELString& other);
  KELString& Append(const KELString& other) { return *this += other; }
  // Numbers in decimal. Compatibility: `long` and `unsigned long` are written
  // with the 32-bit formats "%d" and "%u", so only their low 32 bits count
  // (4294967297L appends "1"). A `char` argument picks the `int` overload
  // (its code in decimal); append a byte with KELChar(c).
  KELString& operator+=(int v);
  KELString& operator+=(unsigned int v);
  KELString& operator+=(long v);
  KELString& operator+=(unsigned long v);
  KELString& operator+=(long long v);
  KELString& operator+=(unsigned long long v);

  // A new string: this followed by the other.
  KELString operator+(const KELString& other) const;
  KELString operator+(const char* text) const;

  // ---- reading ----

  // The bytes, terminated; never null.
  const char* ConvertToChar() const;
  operator const char*() const { return ConvertToChar(); }
  const char* CastToCharPtr() const { return ConvertToChar(); }
  const char* getMBCSString() const { return ConvertToChar(); }
  // A Unicode string sharing this block.
  KELUnicodeString getUnicodeString() const;

  // True for the empty string and any string of length 0.
  bool IsNull() const;
  // The byte length.
  int Length() const;
  int length() const { return Length(); }
  int GetLengthInChar() const { return Length(); }
  int GetLengthInByte() const { return Length(); }
  // The byte at i; a default KELChar (0) when i < 0 or i >= length.
  KELChar operator[](int i) const;

  // XOR of the text's 32-bit little-endian words, then the 1 to 3 bytes left
  // over XORed into the low bytes of the key in order; 0 for the empty
  // string. Not the representation's cached V3 key.
  unsigned int ComputeHashKey() const;
  unsigned int hash() const { return ComputeHashKey(); }

  // ---- search and editing; positions and lengths in bytes ----

  // The first position at or after `start` where `sub` occurs. -1 when
  // start < 0, start > length, sub is longer than this whole string (whatever
  // start is), or there is no match. An empty `sub` is found at start.
  int FindPosition(const KELString& sub, int start = 0) const;
  int index(const KELString& sub, int start = 0) const { return FindPosition(sub, start); }

  // Replaces bytes [start, start + len) by `by`. Nothing happens when
  // start < 0, len < 0, this string is empty (so nothing is inserted into an
  // empty string), start > length, or length - len + length of by < 0.
  // Compatibility: a range running past the end still counts len whole: the
  // result has length - len + length of by bytes, the first ones of
  // (bytes before start, then by), so "abc" with (1, 5, "abcdefgh") gives
  // "aabcde". `by` may be this string.
  KELString& ReplaceSubString(int start, int len, const KELString& by);
  // Replaces the first occurrence of `what` (FindPosition from 0); returns its
  // position, or -1 (nothing changed).
  int ReplaceSubString(const KELString& what, const KELString& by);
  KELString& replace(int start, int len, const KELString& by) { return ReplaceSubString(start, len, by); }
  int replace(const KELString& what, const KELString& by) { return ReplaceSubString(what, by); }
  // ReplaceSubString(start, len, empty string).
  KELString& Remove(int start, int len);
  KELString& remove(int start, int len) { return Remove(start, len); }
  // ReplaceSubString(pos, 0, s): so pos == length appends, and nothing is
  // inserted into an empty string.
  KELString& Insert(int pos, const KELString& s);
  KELString& insert(int pos, const KELString& s) { return Insert(pos, s); }

  // `len` bytes from `start`. Compatibility: unless this is non-empty,
  // len > 0 and start + len <= length (without wrap-around), the result is a
  // copy of the whole string, not an empty one.
  KELString SubString(unsigned long start, unsigned long len) const;

  // Grows to n bytes, filling with the byte of c. A longer string is cut to n
  // only when truncate is non-zero (n < 0 counts as 0).
  KELString& Resize(int n, KELChar c = KELChar(' '), int truncate = 0);
  KELString& pad(int n, char c = ' ', int truncate = 0) { return Resize(n, KELChar(c), truncate); }

  // A new string without the bytes equal to c that `mode` names (see
  // KELStripMode); a string made only of c gives the empty string.
  KELString Strip(KELStripMode mode = KELStripBoth, KELChar c = KELChar(' ')) const;
  // Compatibility: leading bytes only (Strip with mode 1), not trailing ones.
  KELString strip(char c = ' ') const { return Strip(KELStripLeading, KELChar(c)); }

  // Each byte mapped by the C library's toupper / tolower (current C locale)
  // in a private copy; a string that would not change keeps sharing.
  KELString& ToUpper();
  KELString& ToLower();
  KELString& toUpper() { return ToUpper(); }
  KELString& toLower() { return ToLower(); }

  // Reads one line into this string and returns `in`:
  // 1. with skipSpaces non-zero, leading isspace characters are skipped (and
  //    empty lines with them);
  // 2. the line is read with in.get(buffer, 80, '\n'), that is in pieces of at
  //    most 79 characters, each appended as operator+=(const char*) does (in
  //    the development stage a piece with a non-printable byte is dropped);
  // 3. after each piece one character is read: a line feed ends the line and
  //    is consumed; end of stream or failure ends it too.
  // What a caller sees: a CR before the LF is kept ("a\r" for "a\r\n"). A last
  // line without a line feed is read, but the stream is then at end and failed,
  // so `while (s.ReadLine(in, 0))` skips it: test s after the loop. Without
  // skipSpaces an empty line reads nothing and fails the stream (std::get
  // extracts no character), leaving the line feed in it: the string is empty
  // and the caller must clear() the stream and consume the line feed to go on.
  std::istream& ReadLine(std::istream& in, int skipSpaces);

  // The address of a static record of two pointer-sized words identifying the
  // class, both cleared before it is returned. Thread-safe.
  static void* ClassId();

 private:
  friend int KELSysUTF8Str(KELString* s, char* text);

  // The block, with a null handle first pointed at the empty string and UTF-16
  // text first brought to bytes.
  SYSTEMTS_HIDDEN KELInterUnicodeString* bytes() const;
  // Points the handle at `fresh` (whose reference it takes); releases the old.
  SYSTEMTS_HIDDEN void reset(KELInterUnicodeString* fresh) const;
  SYSTEMTS_HIDDEN void appendBytes(const char* p, int n);
  SYSTEMTS_HIDDEN KELString& appendText(const char* text);

  mutable void* _text;  // the text inside the representation
};

// A new string: `text` followed by `s`. Null or "" `text`, or in the
// development stage a text with a non-printable byte, gives a copy of `s`.
SYSTEMTS_API KELString operator+(const char* text, const KELString& s);

// The comparisons with the text on the left, as Compare with the sides swapped
// (without them `"a" == s` would compare pointers).
inline bool operator==(const char* t, const KELString& s) { return s.Compare(t) == 0; }
inline bool operator!=(const char* t, const KELString& s) { return s.Compare(t) != 0; }
inline bool operator<(const char* t, const KELString& s) { return s.Compare(t) > 0; }
inline bool operator<=(const char* t, const KELString& s) { return s.Compare(t) >= 0; }
inline bool operator>(const char* t, const KELString& s) { return s.Compare(t) < 0; }
inline bool operator>=(const char* t, const KELString& s) { return s.Compare(t) <= 0; }

// Writes the bytes (honouring the stream's width and fill); a null text sets
// the stream's bad bit instead.
SYSTEMTS_API std::ostream& operator<<(std::ostream& out, const KELString& s);

// Puts the bytes of `text` into *s as they are, with no printable check in
// any stage; s's old text is released. Null s or null text: returns 0 and
// changes nothing. Returns 0 when text is not empty, E_FAIL (0x80004005) when
// it is (*s is then the empty string). The name says UTF-8 because that is
// what callers store this way; the bytes are not checked as UTF-8 either.
SYSTEMTS_API int KELSysUTF8Str(KELString* s, char* text);

#endif  // KELSTRING_H
