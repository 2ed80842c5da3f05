// KELSysTSUnicodeString.h - a KELUnicodeString that several threads may share.
//
// A KELSysTSUnicodeString holds one KELUnicodeString behind a mutex of its
// own. Every public operation (assign, append, read a copy, compare,
// convert) is atomic with respect to the others on any thread: a reader sees
// the text before or after a change, never part of one. Changes happen under
// the mutex; reads take a copy of the text under it (one atomic increment:
// the copy shares the text, which no change can touch while shared) and
// compare or convert the copy after releasing it.
//
// What it is: a convenience for a string that threads share, such as a
// setting one thread updates while others read it. It is not a fast path:
// every call locks, and reading hands out a copy (one atomic increment of the
// shared text) rather than a pointer into the string, since a pointer could be
// invalidated by another thread's change at any time. For text that one
// thread owns, use KELUnicodeString; to work on a value at length, take a
// copy with Get() and work on the copy without the lock.
//
// Sequences of calls are not atomic: `if (s.IsNull()) s = x;` may race with
// another writer. Compose such steps on the caller's side under a lock of the
// caller's.
//
// Conversions: to KELUnicodeString by Get() or the conversion operator (a
// copy of the text at that moment); from KELUnicodeString by construction
// or assignment (the text is shared, then copied on the next change as
// KELUnicodeString always does).
//
// Failure and bad input: as KELUnicodeString (null text reads as empty; text
// that cannot be allocated leaves the string empty). Nothing throws.
#ifndef KELSYSTSUNICODESTRING_H
#define KELSYSTSUNICODESTRING_H

#include <mutex>
#include <string>

#include "KELUnicodeString.h"
#include "SystemTSCommon.h"

class SYSTEMTS_API KELSysTSUnicodeString {
 public:
  KELSysTSUnicodeString() noexcept;
  explicit KELSysTSUnicodeString(const KELUnicodeString& value) noexcept;
  // Text in the process code page (null: empty), as KELUnicodeString(const char*).
  explicit KELSysTSUnicodeString(const char* text);
  // A copy of `other`'s text at this moment.
  KELSysTSUnicodeString(const KELSysTSUnicodeString& other) noexcept;
  ~KELSysTSUnicodeString();

  // Each takes a copy of the source first (under the source's lock, when it
  // is thread-safe too), then stores it under this string's lock; no two locks
  // are ever held together, so assigning two strings to each other from two
  // threads cannot deadlock.
  KELSysTSUnicodeString& operator=(const KELSysTSUnicodeString& other) noexcept;
  KELSysTSUnicodeString& operator=(const KELUnicodeString& value) noexcept;
  KELSysTSUnicodeString& operator=(const char* text);
  void Set(const KELUnicodeString& value) noexcept;
  // UTF-8, decoded leniently as KELUnicodeString::BuildFromUTF8 does; same
  // results (0, or E_INVALIDARG for a null text with a length other than 0
  // or -1).
  int BuildFromUTF8(const char* utf8, int len = -1);

  // A copy of the text at this moment.
  KELUnicodeString Get() const noexcept;
  operator KELUnicodeString() const noexcept { return Get(); }

  // Appends a copy of `other`'s text, or `other` itself.
  KELSysTSUnicodeString& operator+=(const KELSysTSUnicodeString& other);
  KELSysTSUnicodeString& operator+=(const KELUnicodeString& other);

  // The text as UTF-8, as KELUnicodeString::ConvertToUTF8.
  std::string ConvertToUTF8() const;
  int ConvertToUTF8(char* buf, int capacity) const;
  // The text as UTF-16.
  std::u16string ToU16String() const;

  int GetLengthInChar() const;
  bool IsNull() const;

  // Comparisons of the texts at this moment, by UTF-16 code units as
  // KELUnicodeString::Compare.
  int Compare(const KELUnicodeString& other) const;
  int Compare(const KELSysTSUnicodeString& other) const;
  bool operator==(const KELUnicodeString& other) const { return Compare(other) == 0; }
  bool operator==(const KELSysTSUnicodeString& other) const { return Compare(other) == 0; }
  bool operator!=(const KELUnicodeString& other) const { return Compare(other) != 0; }
  bool operator!=(const KELSysTSUnicodeString& other) const { return Compare(other) != 0; }

 private:
  mutable std::mutex _lock;
  KELUnicodeString _value;  // guarded by _lock
};

#endif  // KELSYSTSUNICODESTRING_H
