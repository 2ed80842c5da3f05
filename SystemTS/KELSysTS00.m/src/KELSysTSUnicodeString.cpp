// The thread-safe string: every operation under the string's own mutex.
#include "KELSysTSUnicodeString.h"

#include <utility>

KELSysTSUnicodeString::KELSysTSUnicodeString() noexcept = default;

KELSysTSUnicodeString::KELSysTSUnicodeString(const KELUnicodeString& value) noexcept : _value(value) {}

KELSysTSUnicodeString::KELSysTSUnicodeString(const char* text) : _value(text) {}

KELSysTSUnicodeString::KELSysTSUnicodeString(const KELSysTSUnicodeString& other) noexcept
    : _value(other.Get()) {}

KELSysTSUnicodeString::~KELSysTSUnicodeString() = default;

KELSysTSUnicodeString& KELSysTSUnicodeString::operator=(const KELSysTSUnicodeString& other) noexcept {
  if (&other != this) Set(other.Get());
  return *this;
}

KELSysTSUnicodeString& KELSysTSUnicodeString::operator=(const KELUnicodeString& value) noexcept {
  Set(value);
  return *this;
}

KELSysTSUnicodeString& KELSysTSUnicodeString::operator=(const char* text) {
  // Built outside the lock: only the exchange is guarded.
  KELUnicodeString value(text);
  std::lock_guard<std::mutex> g(_lock);
  std::swap(_value, value);
  return *this;
}

void KELSysTSUnicodeString::Set(const KELUnicodeString& value) noexcept {
  KELUnicodeString copy(value);
  std::lock_guard<std::mutex> g(_lock);
  std::swap(_value, copy);
  // The old text is released after the lock, with `copy`.
}

int KELSysTSUnicodeString::BuildFromUTF8(const char* utf8, int len) {
  KELUnicodeString value;
  const int rc = value.BuildFromUTF8(utf8, len);
  std::lock_guard<std::mutex> g(_lock);
  std::swap(_value, value);
  return rc;
}

KELUnicodeString KELSysTSUnicodeString::Get() const noexcept {
  std::lock_guard<std::mutex> g(_lock);
  return _value;
}

KELSysTSUnicodeString& KELSysTSUnicodeString::operator+=(const KELSysTSUnicodeString& other) {
  return *this += other.Get();
}

KELSysTSUnicodeString& KELSysTSUnicodeString::operator+=(const KELUnicodeString& other) {
  std::lock_guard<std::mutex> g(_lock);
  _value += other;
  return *this;
}

std::string KELSysTSUnicodeString::ConvertToUTF8() const { return Get().ConvertToUTF8(); }

int KELSysTSUnicodeString::ConvertToUTF8(char* buf, int capacity) const {
  return Get().ConvertToUTF8(buf, capacity);
}

std::u16string KELSysTSUnicodeString::ToU16String() const { return Get().ToU16String(); }

int KELSysTSUnicodeString::GetLengthInChar() const { return Get().GetLengthInChar(); }

bool KELSysTSUnicodeString::IsNull() const { return Get().IsNull(); }

int KELSysTSUnicodeString::Compare(const KELUnicodeString& other) const { return Get().Compare(other); }

int KELSysTSUnicodeString::Compare(const KELSysTSUnicodeString& other) const {
  if (&other == this) return 0;
  return Get().Compare(other.Get());
}
