// KELUnicodeString: the public string operations on top of the shared
// representation.
#include "KELUnicodeString.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <ostream>

#include "NUVSysUCAlgorithm.h"
#include "StringRep.h"
#include "SysCalls.h"
#include "UTFCore.h"

using namespace systemts::detail;
using Rep = KELInterUnicodeString;

namespace {

Rep* emptyRep() { return Rep::_KELSysEmptyStringPtr; }

// What a builder or an edit gives when memory cannot be had, or a text would
// pass the 2^30-unit limit of a string.
const int kOutOfMemory = SystemTSResultFromErrno(ENOMEM);
// The largest code point; wchar_t values and code points above it (negative
// wchar_t values included) have no UTF-16 form.
constexpr uint32_t kMaxCodePoint = 0x10FFFF;

// The UTF-16 text of a block (its view built once when it is multi-byte).
std::u16string_view unitsOf(Rep* r) {
  if (r == nullptr) return {};
  const int n = r->GetLengthInChar();
  return {reinterpret_cast<const char16_t*>(r->ConvertToUCChar()), static_cast<size_t>(n)};
}

// A fresh UCS block holding the n units, or the empty string.
Rep* makeUnits(const char16_t* units, size_t n) {
  if (n == 0 || n > static_cast<size_t>(kMaxUnits)) return emptyRep();
  Rep* r = KELInterStringUCS::Allocate(static_cast<int>(n));
  if (!r->IsEmptyString()) std::memcpy(r->GetText(), units, n * 2);
  return r;
}

Rep* makeBytes(const char* text, size_t n) {
  if (n == 0 || n > static_cast<size_t>(kMaxUnits)) return emptyRep();
  Rep* r = KELInterStringMBCS::Allocate(static_cast<int>(n));
  if (!r->IsEmptyString()) std::memcpy(r->GetText(), text, n);
  return r;
}

size_t clampPos(int pos, size_t len) { return pos < 0 ? 0 : std::min(static_cast<size_t>(pos), len); }
size_t clampLen(int n, size_t start, size_t len) {
  return n < 0 ? len - start : std::min(static_cast<size_t>(n), len - start);
}

// A growable UTF-16 buffer for results built piece by piece. Kept here
// rather than std::u16string so that no out-of-line template of the standard
// library is instantiated into, and exported from, the shared object. A
// failed allocation marks the buffer failed; its text is then dropped.
class Units {
 public:
  Units() = default;
  Units(const Units&) = delete;
  Units& operator=(const Units&) = delete;
  ~Units() { std::free(data_); }

  void push(char16_t u) {
    if (size_ == capacity_ && !reserve(size_ + 1)) return;
    data_[size_++] = u;
  }
  void append(std::u16string_view s) {
    if (s.empty() || !reserve(size_ + s.size())) return;
    std::memcpy(data_ + size_, s.data(), 2 * s.size());
    size_ += s.size();
  }
  void fill(size_t n, char16_t u) {
    if (!reserve(size_ + n)) return;
    std::fill(data_ + size_, data_ + size_ + n, u);
    size_ += n;
  }
  std::u16string_view view() const { return failed_ ? std::u16string_view() : std::u16string_view(data_, size_); }

 private:
  bool reserve(size_t need) {
    if (failed_) return false;
    if (need <= capacity_) return true;
    const size_t cap = std::max({need, 2 * capacity_, size_t{16}});
    auto* grown = static_cast<char16_t*>(g_sys.realloc(data_, 2 * cap));
    if (grown == nullptr || need > static_cast<size_t>(kMaxUnits)) {
      if (grown != nullptr) data_ = grown;
      failed_ = true;
      return false;
    }
    data_ = grown;
    capacity_ = cap;
    return true;
  }

  char16_t* data_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
  bool failed_ = false;
};

// ---- case mapping ----

struct CaseRun {
  uint32_t first;
  uint32_t last;
  uint32_t stride;
  int32_t delta;
};
#include "UnicodeCaseTables.inc"

template <size_t N>
uint32_t mapCase(const CaseRun (&runs)[N], uint32_t cp) {
  const CaseRun* it =
      std::upper_bound(runs, runs + N, cp, [](uint32_t c, const CaseRun& r) { return c < r.first; });
  if (it == runs) return cp;
  --it;
  if (cp > it->last || (cp - it->first) % it->stride != 0) return cp;
  return static_cast<uint32_t>(static_cast<int32_t>(cp) + it->delta);
}

uint32_t toUpper(uint32_t cp) {
  if (cp < 0x80) return cp >= 'a' && cp <= 'z' ? cp - 32 : cp;
  return mapCase(kUpperRuns, cp);
}
uint32_t toLower(uint32_t cp) {
  if (cp < 0x80) return cp >= 'A' && cp <= 'Z' ? cp + 32 : cp;
  return mapCase(kLowerRuns, cp);
}
uint32_t foldCase(uint32_t cp) {
  if (cp < 0x80) return cp >= 'A' && cp <= 'Z' ? cp + 32 : cp;
  return mapCase(kFoldRuns, cp);
}

// Reads one code point for case work: a well-formed surrogate pair combines,
// any other unit (a lone surrogate included) stands for itself, so text that
// is not well-formed passes through unchanged.
uint32_t nextCodePoint(std::u16string_view s, size_t& i) {
  const uint32_t u = s[i++];
  if (u >= 0xD800 && u <= 0xDBFF && i < s.size() && s[i] >= 0xDC00 && s[i] <= 0xDFFF)
    return 0x10000u + ((u - 0xD800u) << 10) + (s[i++] - 0xDC00u);
  return u;
}

void putCodePoint(Units& out, uint32_t cp) {
  if (cp > 0xFFFF) {
    out.push(static_cast<char16_t>(0xD7C0u + (cp >> 10)));
    out.push(static_cast<char16_t>(0xDC00u + (cp & 0x3FFu)));
  } else {
    out.push(static_cast<char16_t>(cp));
  }
}

// The text with `map` applied to every code point, or false when nothing
// changes (so an unchanged string keeps sharing its block).
template <typename Map>
bool mapText(std::u16string_view s, Map map, Units& out) {
  size_t i = 0;
  while (i < s.size()) {
    const size_t at = i;
    const uint32_t cp = nextCodePoint(s, i);
    if (map(cp) != cp) {
      out.append(s.substr(0, at));
      i = at;
      while (i < s.size()) putCodePoint(out, map(nextCodePoint(s, i)));
      return true;
    }
  }
  return false;
}

// Unicode White_Space within the BMP (there is none beyond it).
bool isWhiteSpace(char16_t u) {
  return (u >= 0x09 && u <= 0x0D) || u == 0x20 || u == 0x85 || u == 0xA0 || u == 0x1680 ||
         (u >= 0x2000 && u <= 0x200A) || u == 0x2028 || u == 0x2029 || u == 0x202F || u == 0x205F ||
         u == 0x3000;
}

}  // namespace

// ---------------------------------------------------------- construction --

KELUnicodeString::KELUnicodeString() noexcept : _text(emptyRep()->GetText()) {}

KELUnicodeString::KELUnicodeString(KELUnicodeString&& other) noexcept : _text(other._text) {
  if (other._text != nullptr) other._text = emptyRep()->GetText();
}

KELUnicodeString::KELUnicodeString(const char* text) : KELUnicodeString() { *this = text; }

KELUnicodeString::KELUnicodeString(std::u16string_view text) : KELUnicodeString() {
  assignUnits(text.data(), text.size());
}

int KELUnicodeString::emptied(int result) {
  reset(emptyRep());
  return result;
}

void KELUnicodeString::reset(Rep* fresh) {
  Rep* old = rep();
  _text = fresh->GetText();
  if (old != nullptr) old->Release();
}

KELUnicodeString& KELUnicodeString::operator=(const KELUnicodeString& other) noexcept {
  if (other._text != _text) {
    Rep* r = other.rep();
    if (r == nullptr) r = emptyRep();
    r->AddRef();
    reset(r);
  }
  return *this;
}

KELUnicodeString& KELUnicodeString::operator=(KELUnicodeString&& other) noexcept {
  if (&other != this) {
    Rep* r = other.rep();
    if (r == nullptr) r = emptyRep();
    other._text = emptyRep()->GetText();
    reset(r);
  }
  return *this;
}

KELUnicodeString& KELUnicodeString::operator=(const char* text) {
  reset(text == nullptr ? emptyRep() : makeBytes(text, std::strlen(text)));
  return *this;
}

KELUnicodeString& KELUnicodeString::operator=(std::u16string_view text) {
  assignUnits(text.data(), text.size());
  return *this;
}

void KELUnicodeString::assignUnits(const char16_t* units, size_t n) {
  // A fresh block first, then the old one released: `units` may point into it.
  reset(makeUnits(units, n));
}

// -------------------------------------------------------------- builders --

int KELUnicodeString::BuildFromUTF8(const char* utf8, int len) {
  if (len < -1 || (utf8 == nullptr && len > 0)) {
    reset(emptyRep());
    return E_INVALIDARG;
  }
  const size_t n = utf8 == nullptr ? 0 : len < 0 ? std::strlen(utf8) : static_cast<size_t>(len);
  if (n == 0) return emptied(0);
  // A byte gives at most one unit, except that a four-byte lead cut off by
  // the end still decodes to a pair: n + 1 units always suffice.
  if (n + 1 > static_cast<size_t>(kMaxUnits)) return emptied(kOutOfMemory);
  Rep* r = KELInterStringUCS::Allocate(static_cast<int>(n + 1));
  if (r->IsEmptyString()) return emptied(kOutOfMemory);
  auto* out = static_cast<unsigned short*>(r->GetText());
  const size_t got = static_cast<size_t>(NUVSysUCAlgorithm::unchecked::utf8to16(utf8, utf8 + n, out) - out);
  // Text that shrank much (CJK: three bytes a unit) moves to a block of its
  // own size rather than keep the slack for its whole life.
  if (got + 16 < (n + 1) - (n + 1) / 4) {
    Rep* exact = makeUnits(reinterpret_cast<const char16_t*>(out), got);
    if (exact->IsEmptyString()) {
      reset(r->_SetLength(static_cast<int>(got)));  // keep the roomy block: the text is right
      return 0;
    }
    r->Release();
    reset(exact);
    return 0;
  }
  reset(r->_SetLength(static_cast<int>(got)));
  return 0;
}

int KELUnicodeString::BuildFromUCChar(const unsigned short* text, int len) {
  if (len < -1 || (text == nullptr && len > 0)) {
    reset(emptyRep());
    return E_INVALIDARG;
  }
  size_t n = 0;
  if (text != nullptr) {
    if (len >= 0) {
      n = static_cast<size_t>(len);
    } else {
      while (text[n] != 0) ++n;
    }
  }
  assignUnits(reinterpret_cast<const char16_t*>(text), n);
  return n != 0 && IsNull() ? kOutOfMemory : 0;
}

int KELUnicodeString::BuildFromWChar(const wchar_t* text, int len) {
  if (len < -1 || (text == nullptr && len > 0)) {
    reset(emptyRep());
    return E_INVALIDARG;
  }
  const size_t n = text == nullptr ? 0 : len < 0 ? std::wcslen(text) : static_cast<size_t>(len);
  if (n == 0) return emptied(0);
  if (n > static_cast<size_t>(kMaxUnits) / 2) return emptied(kOutOfMemory);
  Rep* r = KELInterStringUCS::Allocate(static_cast<int>(2 * n));
  if (r->IsEmptyString()) return emptied(kOutOfMemory);
  uint16_t* const o0 = static_cast<uint16_t*>(r->GetText());
  uint16_t* o = o0;
  for (size_t i = 0; i < n; ++i) {
    // wchar_t is signed: a negative value is as much out of range as one
    // above U+10FFFF, and neither has a UTF-16 form.
    const auto cp = static_cast<uint32_t>(text[i]);
    if (cp > kMaxCodePoint) {
      r->Release();
      return emptied(E_INVALIDARG);
    }
    o = appendUtf16(cp, o);
  }
  reset(r->_SetLength(static_cast<int>(o - o0)));
  return 0;
}

int KELUnicodeString::BuildFromCodePoint(unsigned codePoint, unsigned long count) {
  if (codePoint > kMaxCodePoint) return emptied(E_INVALIDARG);
  Rep* r = KELInterStringUCS::CreateString(codePoint, count);
  reset(r);
  // Empty for count 0; otherwise too long for a string, or no memory.
  return r->IsEmptyString() && count != 0 ? kOutOfMemory : 0;
}

namespace {
// Decimal digits, written backwards from the end of a 24-unit buffer (enough
// for 2^64 and a sign). Written by hand: std::to_chars for integers would put
// its digit table among the library's exported symbols.
int buildInteger(KELUnicodeString& s, bool negative, unsigned long long magnitude) {
  char16_t units[24];
  char16_t* p = units + sizeof units / sizeof units[0];
  do {
    *--p = static_cast<char16_t>(u'0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  if (negative) *--p = u'-';
  s = std::u16string_view(p, static_cast<size_t>(units + 24 - p));
  return 0;
}
int buildSigned(KELUnicodeString& s, long long v) {
  // The magnitude in unsigned arithmetic, so that the smallest value works.
  const unsigned long long m = v < 0 ? 0ULL - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
  return buildInteger(s, v < 0, m);
}
}  // namespace

int KELUnicodeString::BuildFromNum(int value) { return buildSigned(*this, value); }
int KELUnicodeString::BuildFromNum(unsigned value) { return buildInteger(*this, false, value); }
int KELUnicodeString::BuildFromNum(long value) { return buildSigned(*this, value); }
int KELUnicodeString::BuildFromNum(unsigned long value) { return buildInteger(*this, false, value); }
int KELUnicodeString::BuildFromNum(long long value) { return buildSigned(*this, value); }
int KELUnicodeString::BuildFromNum(unsigned long long value) { return buildInteger(*this, false, value); }
int KELUnicodeString::BuildFromNum(double value) {
  if (std::isnan(value)) {  // one spelling, whatever the sign bit and payload
    *this = u"nan";
    return 0;
  }
  // The shortest text that reads back to the same value; "inf", "-inf".
  char buf[64] = {};
  const std::to_chars_result res = std::to_chars(buf, buf + sizeof buf, value);
  char16_t units[64];
  const size_t n = static_cast<size_t>(res.ptr - buf);
  for (size_t i = 0; i < n; ++i) units[i] = static_cast<char16_t>(buf[i]);
  *this = std::u16string_view(units, n);
  return 0;
}

KELUnicodeString KELUnicodeString::FromUTF8(std::string_view utf8) {
  KELUnicodeString s;
  if (utf8.size() < static_cast<size_t>(kMaxUnits)) s.BuildFromUTF8(utf8.data(), static_cast<int>(utf8.size()));
  return s;
}

KELUnicodeString KELUnicodeString::FromUTF16(std::u16string_view utf16) { return KELUnicodeString(utf16); }

// ------------------------------------------------------------ conversion --

int KELUnicodeString::ConvertToUTF8(char* buf, int capacity) const {
  if (capacity < 0 || (buf == nullptr && capacity > 0)) return -1;
  const std::u16string_view s = unitsOf(rep());
  const auto* p = reinterpret_cast<const uint16_t*>(s.data());
  const auto* const e = p + s.size();
  // Room for the worst case (three bytes a unit, four for a high surrogate
  // left last, then the NUL): convert in one go.
  if (static_cast<size_t>(capacity) >= 3 * s.size() + 2) {
    const char* end = NUVSysUCAlgorithm::unchecked::utf16to8(
        reinterpret_cast<const unsigned short*>(p), reinterpret_cast<const unsigned short*>(e), buf);
    const int n = static_cast<int>(end - buf);
    buf[n] = '\0';
    return n;
  }
  // Otherwise whole characters while they fit, and count the rest.
  size_t written = 0, total = 0;
  bool full = false;
  while (p < e) {
    uint8_t one[4];
    const size_t k = static_cast<size_t>(appendUtf8(decodeUtf16(p, e), one) - one);
    if (!full && written + k < static_cast<size_t>(capacity)) {
      std::memcpy(buf + written, one, k);
      written += k;
    } else {
      full = true;
    }
    total += k;
  }
  if (capacity > 0) buf[written] = '\0';
  return static_cast<int>(std::min<size_t>(total, INT32_MAX));
}

std::string KELUnicodeString::ConvertToUTF8() const {
  const std::u16string_view s = unitsOf(rep());
  if (s.empty()) return std::string();
  const auto* b = reinterpret_cast<const unsigned short*>(s.data());
  const size_t room = 3 * s.size() + 1;
  char stack[3072];
  char* out = room <= sizeof stack ? stack : static_cast<char*>(g_sys.malloc(room));
  if (out == nullptr) return std::string();
  const char* end = NUVSysUCAlgorithm::unchecked::utf16to8(b, b + s.size(), out);
  std::string result(out, static_cast<size_t>(end - out));
  if (out != stack) std::free(out);
  return result;
}

const char* KELUnicodeString::ConvertToChar() const {
  Rep* r = rep();
  return r == nullptr ? "" : r->ConvertToChar();
}

const unsigned short* KELUnicodeString::ConvertToUCChar() const {
  static const unsigned short kNone[1] = {0};
  Rep* r = rep();
  return r == nullptr ? kNone : r->ConvertToUCChar();
}

std::wstring KELUnicodeString::ConvertToWChar() const {
  const std::u16string_view s = unitsOf(rep());
  std::wstring out;
  out.reserve(s.size());
  const auto* p = reinterpret_cast<const uint16_t*>(s.data());
  const auto* const e = p + s.size();
  while (p < e) out += static_cast<wchar_t>(decodeUtf16(p, e));
  return out;
}

std::u16string KELUnicodeString::ToU16String() const { return std::u16string(unitsOf(rep())); }

std::u16string_view KELUnicodeString::ToU16StringView() const { return unitsOf(rep()); }

// --------------------------------------------------------------- queries --

int KELUnicodeString::GetLengthInChar() const {
  Rep* r = rep();
  return r == nullptr ? 0 : r->GetLengthInChar();
}

int KELUnicodeString::GetLengthInByte() const {
  Rep* r = rep();
  return r == nullptr ? 0 : r->GetLengthInByte();
}

bool KELUnicodeString::IsNull() const {
  Rep* r = rep();
  return r == nullptr || r->IsEmptyString() || r->GetPrimaryLength() == 0;
}

unsigned short KELUnicodeString::operator[](int i) const {
  const std::u16string_view s = unitsOf(rep());
  return i < 0 || static_cast<size_t>(i) >= s.size() ? 0 : s[static_cast<size_t>(i)];
}

unsigned int KELUnicodeString::ComputeHashKey() const {
  Rep* r = rep();
  return r == nullptr ? 0 : r->ComputeHashKey();
}

// ------------------------------------------------------------ comparison --

bool KELUnicodeString::operator==(const KELUnicodeString& other) const {
  Rep* a = rep();
  Rep* b = other.rep();
  if (a == nullptr) a = emptyRep();
  if (b == nullptr) b = emptyRep();
  if (a == b) return true;
  if (!a->IsUCS() && !b->IsUCS()) {
    // Equal bytes are equal text; different bytes may still convert alike.
    const int n = a->GetPrimaryLength();
    if (n == b->GetPrimaryLength() && std::memcmp(a->GetText(), b->GetText(), static_cast<size_t>(n)) == 0)
      return true;
  }
  return unitsOf(a) == unitsOf(b);
}

int KELUnicodeString::Compare(const KELUnicodeString& other) const {
  if (_text == other._text) return 0;
  const int c = unitsOf(rep()).compare(unitsOf(other.rep()));
  return c < 0 ? -1 : c > 0 ? 1 : 0;
}

int KELUnicodeString::CompareNoCase(const KELUnicodeString& other) const {
  // Folded code points are compared as UTF-16 units, so that the order
  // agrees with Compare on text without case.
  struct Folded {
    std::u16string_view s;
    size_t i = 0;
    char16_t pending = 0;
    bool next(char16_t& u) {
      if (pending != 0) {
        u = pending;
        pending = 0;
        return true;
      }
      if (i >= s.size()) return false;
      const uint32_t cp = foldCase(nextCodePoint(s, i));
      if (cp > 0xFFFF) {
        u = static_cast<char16_t>(0xD7C0u + (cp >> 10));
        pending = static_cast<char16_t>(0xDC00u + (cp & 0x3FFu));
      } else {
        u = static_cast<char16_t>(cp);
      }
      return true;
    }
  } a{unitsOf(rep())}, b{unitsOf(other.rep())};
  for (;;) {
    char16_t x = 0, y = 0;
    const bool hx = a.next(x), hy = b.next(y);
    if (!hx || !hy) return hx ? 1 : hy ? -1 : 0;
    if (x != y) return x < y ? -1 : 1;
  }
}

// --------------------------------------------------------- concatenation --

KELUnicodeString& KELUnicodeString::operator+=(const KELUnicodeString& other) {
  Rep* r = rep();
  Rep* o = other.rep();
  if (r == nullptr || o == nullptr) return *this;
  if (r->IsEmptyString()) return *this = other;  // nothing to copy: share
  _text = r->Append(o)->GetText();
  return *this;
}

KELUnicodeString& KELUnicodeString::operator+=(const char* text) {
  Rep* r = rep();
  if (r == nullptr || text == nullptr || *text == '\0') return *this;
  Rep* add = makeBytes(text, std::strlen(text));
  if (r->IsEmptyString()) {
    reset(add);
    return *this;
  }
  _text = r->Append(add)->GetText();
  add->Release();
  return *this;
}

KELUnicodeString& KELUnicodeString::operator+=(char16_t unit) {
  Rep* r = rep();
  if (r == nullptr) return *this;
  if (!RepAccess::appendUnitInPlace(r, unit)) {
    const size_t len = static_cast<size_t>(r->GetLengthInChar());
    replaceRange(len, 0, &unit, 1, nullptr);
  }
  return *this;
}

KELUnicodeString& KELUnicodeString::AppendCodePoint(unsigned codePoint) {
  Rep* r = rep();
  if (r == nullptr) return *this;
  uint16_t units[2];
  const size_t n = static_cast<size_t>(appendUtf16(codePoint, units) - units);
  replaceRange(static_cast<size_t>(r->GetLengthInChar()), 0, reinterpret_cast<const char16_t*>(units), n,
               nullptr);
  return *this;
}

KELUnicodeString operator+(const KELUnicodeString& a, const KELUnicodeString& b) {
  KELUnicodeString s(a);
  s += b;
  return s;
}

KELUnicodeString operator+(const KELUnicodeString& a, const char* b) {
  KELUnicodeString s(a);
  s += b;
  return s;
}

KELUnicodeString operator+(const char* a, const KELUnicodeString& b) {
  KELUnicodeString s(a);
  s += b;
  return s;
}

KELUnicodeString operator+(const KELUnicodeString& a, char16_t b) {
  KELUnicodeString s(a);
  s += b;
  return s;
}

// --------------------------------------------------------------- editing --

void KELUnicodeString::replaceRange(size_t start, size_t len, const char16_t* units, size_t n, Rep* source) {
  Rep* r = rep();
  if (r == nullptr) return;
  const size_t old = static_cast<size_t>(r->GetLengthInChar());
  const size_t total = old - len + n;
  if (total == 0 || total > static_cast<size_t>(kMaxUnits)) {
    reset(emptyRep());  // empty, or too long to allocate: the empty string
    return;
  }
  // With the source held, a source that is this very text is shared, so the
  // copy-on-write step copies and the source stays intact.
  if (source != nullptr) source->AddRef();
  const int room = static_cast<int>(std::max(old, total));
  r = r->_AllocNewStringUCS(room, true, total > old);
  if (!r->IsEmptyString()) {
    char16_t* t = static_cast<char16_t*>(r->GetText());
    std::memmove(t + start + n, t + start + len, (old - start - len) * 2);
    if (n != 0) std::memcpy(t + start, units, n * 2);
    r = r->_SetLength(static_cast<int>(total));
  }
  _text = r->GetText();
  if (source != nullptr) source->Release();
}

KELUnicodeString KELUnicodeString::SubString(int start, int len) const {
  Rep* r = rep();
  const std::u16string_view s = unitsOf(r);
  const size_t b = clampPos(start, s.size());
  const size_t n = clampLen(len, b, s.size());
  if (r != nullptr && b == 0 && n == s.size()) return *this;  // the whole text: share it
  return KELUnicodeString(s.substr(b, n));
}

int KELUnicodeString::SearchSubString(const KELUnicodeString& what, int start, bool fromEnd) const {
  const std::u16string_view s = unitsOf(rep());
  const std::u16string_view w = unitsOf(what.rep());
  size_t at;
  if (fromEnd)
    at = s.rfind(w, start < 0 ? std::u16string_view::npos : static_cast<size_t>(start));
  else
    at = s.find(w, clampPos(start, s.size()));
  return at == std::u16string_view::npos ? -1 : static_cast<int>(at);
}

KELUnicodeString& KELUnicodeString::ReplaceSubString(int start, int len, const KELUnicodeString& with) {
  Rep* r = rep();
  if (r == nullptr) return *this;
  const size_t size = static_cast<size_t>(r->GetLengthInChar());
  const size_t b = clampPos(start, size);
  const std::u16string_view w = unitsOf(with.rep());
  replaceRange(b, clampLen(len, b, size), w.data(), w.size(), with.rep());
  return *this;
}

int KELUnicodeString::ReplaceSubString(const KELUnicodeString& what, const KELUnicodeString& with,
                                       int maxCount) {
  if (rep() == nullptr) return 0;
  const std::u16string_view s = unitsOf(rep());
  const std::u16string_view w = unitsOf(what.rep());
  if (w.empty() || maxCount == 0) return 0;
  const std::u16string_view by = unitsOf(with.rep());
  Units out;
  int count = 0;
  size_t from = 0;
  for (size_t at = s.find(w); at != std::u16string_view::npos && (maxCount < 0 || count < maxCount);
       at = s.find(w, from)) {
    out.append(s.substr(from, at - from));
    out.append(by);
    from = at + w.size();
    ++count;
  }
  if (count == 0) return 0;
  out.append(s.substr(from));
  assignUnits(out.view().data(), out.view().size());
  return count;
}

KELUnicodeString& KELUnicodeString::Insert(int pos, const KELUnicodeString& text) {
  Rep* r = rep();
  if (r == nullptr) return *this;
  const std::u16string_view w = unitsOf(text.rep());
  if (w.empty()) return *this;
  if (r->IsEmptyString()) return *this = text;
  replaceRange(clampPos(pos, static_cast<size_t>(r->GetLengthInChar())), 0, w.data(), w.size(), text.rep());
  return *this;
}

KELUnicodeString& KELUnicodeString::Remove(int start, int len) {
  Rep* r = rep();
  if (r == nullptr) return *this;
  const size_t size = static_cast<size_t>(r->GetLengthInChar());
  const size_t b = clampPos(start, size);
  const size_t n = clampLen(len, b, size);
  if (n != 0) replaceRange(b, n, nullptr, 0, nullptr);
  return *this;
}

int KELUnicodeString::Resize(int n, char16_t fill) {
  Rep* r = rep();
  if (r == nullptr) return 0;
  const size_t size = static_cast<size_t>(r->GetLengthInChar());
  const size_t want = n < 0 ? 0 : static_cast<size_t>(n);
  if (want == size) return 0;
  if (want > static_cast<size_t>(kMaxUnits)) return kOutOfMemory;
  Units pad;
  if (want > size) {
    pad.fill(want - size, fill);
    if (pad.view().size() != want - size) return kOutOfMemory;
  }
  // The old text is held until the new one exists, so that a copy that
  // cannot be allocated leaves the string as it was.
  r->AddRef();
  if (want < size)
    replaceRange(want, size - want, nullptr, 0, nullptr);
  else
    replaceRange(size, 0, pad.view().data(), want - size, nullptr);
  if (static_cast<size_t>(GetLengthInChar()) != want) {
    reset(r);
    return kOutOfMemory;
  }
  r->Release();
  return 0;
}

KELUnicodeString& KELUnicodeString::Strip(StripMode mode) {
  Rep* r = rep();
  if (r == nullptr) return *this;
  const std::u16string_view s = unitsOf(r);
  size_t b = 0, e = s.size();
  if (mode & kStripLeading)
    while (b < e && isWhiteSpace(s[b])) ++b;
  if (mode & kStripTrailing)
    while (e > b && isWhiteSpace(s[e - 1])) --e;
  if (b == 0 && e == s.size()) return *this;
  if (e < s.size()) replaceRange(e, s.size() - e, nullptr, 0, nullptr);
  if (b > 0) replaceRange(0, b, nullptr, 0, nullptr);
  return *this;
}

KELUnicodeString& KELUnicodeString::ToUpper() {
  Units out;
  if (rep() != nullptr && mapText(unitsOf(rep()), toUpper, out)) assignUnits(out.view().data(), out.view().size());
  return *this;
}

KELUnicodeString& KELUnicodeString::ToLower() {
  Units out;
  if (rep() != nullptr && mapText(unitsOf(rep()), toLower, out)) assignUnits(out.view().data(), out.view().size());
  return *this;
}

void KELUnicodeString::Pack() {
  if (Rep* r = rep()) _text = r->Pack()->GetText();
}

std::ostream& operator<<(std::ostream& out, const KELUnicodeString& s) { return out << s.ConvertToUTF8(); }
