// KELString: the 8-bit string operations on top of the shared representation.
#include "KELString.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <ostream>
#include <string_view>

#include "Diagnostics.h"
#include "StringRep.h"
#include "Settings.h"

using namespace systemts::detail;
using Rep = KELInterUnicodeString;

namespace {

Rep* emptyRep() { return Rep::_KELSysEmptyStringPtr; }

char* textOf(Rep* r) { return RepAccess::bytes(r); }
int lengthOf(const Rep* r) { return r->GetPrimaryLength(); }

// A fresh multi-byte block holding the n bytes, or the empty string.
Rep* makeBytes(const char* p, size_t n) {
  if (n == 0 || n > static_cast<size_t>(kMaxUnits)) return emptyRep();
  Rep* r = KELInterStringMBCS::Allocate(static_cast<int>(n));
  if (!r->IsEmptyString()) std::memcpy(textOf(r), p, n);
  return r;
}

bool isPrintable(unsigned char b) { return b == 9 || b == 10 || b == 13 || (b >= 32 && b <= 126); }

const char kWarningStars[] = "*************************************************************************************";

// The first non-printable byte of the n bytes at t, or n.
size_t firstNonPrintable(const char* t, size_t n) {
  for (size_t i = 0; i < n; ++i)
    if (!isPrintable(static_cast<unsigned char>(t[i]))) return i;
  return n;
}

// The printable check of the development stage: true when the text has a
// non-printable byte, after the warning naming its 1-based position (unless
// suppressed). Called only in the development stage.
bool refuseText(const char* t, size_t n) {
  const size_t bad = firstNonPrintable(t, n);
  if (bad == n) return false;
  // Read once, the first time a non-printable byte is met (a function-local
  // static is initialised under the compiler's one-time guard).
  static const bool suppressed = systemts::detail::StringWarningsSuppressedSetting();
  if (Rep::S_devStage != 0 && !suppressed) {
    systemts::detail::Diagnose(
        stdout, systemts::detail::kDiagnoseFlush,
        "%s\n* [KELString][Warning] The code '%d' does not map to a printable US ASCII character. *\n"
        "* String: \"%.*s\".\n%s\n%s\n",
        kWarningStars, static_cast<int>(bad + 1), static_cast<int>(std::min<size_t>(n, INT32_MAX)), t,
        "* STACK TRACE:                                                                      *", kWarningStars);
  }
  return true;
}

// In the development stage, whether a text must be refused.
bool refusedInDevStage(const char* t, size_t n) { return Rep::S_devStage != 0 && refuseText(t, n); }

// Brings a UTF-16 block to the multi-byte form; consumes the reference on
// `r` and returns the block that now holds the text.
Rep* toBytes(Rep* r) {
  const int n = lengthOf(r);
  const auto* u = RepAccess::units(r);
  bool narrow = true;
  for (int i = 0; i < n && narrow; ++i) narrow = (u[i] & 0xFFu) <= 126;
  if (narrow) {
    Rep* fresh = KELInterStringMBCS::Allocate(n);
    if (fresh->GetPrimaryLength() == n) {
      char* out = textOf(fresh);
      for (int i = 0; i < n; ++i) out[i] = static_cast<char>(u[i] & 0xFFu);
    }
    r->Release();
    return fresh;
  }
  if (Rep::S_devStage != 0) {
    systemts::detail::Diagnose(stdout, systemts::detail::kDiagnoseFlush, "%s",
                               "***************************************************************\n"
                               "* [KELString] Risk of data corruption detected:               *\n"
                               "* Non-ASCII Unicode data is being converted to MBCS (char *). *\n"
                               "* STACK TRACE:                                                *\n"
                               "***************************************************************\n");
  }
  const int nb = r->GetLengthInByte();
  const char* view = r->ConvertToChar();
  Rep* fresh = emptyRep();
  if (nb > 0 && !refusedInDevStage(view, static_cast<size_t>(nb))) fresh = makeBytes(view, static_cast<size_t>(nb));
  r->Release();
  return fresh;
}

// Appends written by hand rather than through KELInterUnicodeString::Append,
// which grows by 1.5: a KELString grows to exactly the new length.
//
// When `p` lies inside the block being grown (a string appended to itself,
// or a pointer into its own text), the block takes an extra reference first,
// so that the copy-on-write step cannot free the bytes being copied.
Rep* appendTo(Rep* r, const char* p, size_t n) {
  if (n == 0) return r;
  const size_t len = static_cast<size_t>(lengthOf(r));
  if (len + n > static_cast<size_t>(kMaxUnits)) {  // cannot be allocated: empty, as any failure
    r->Release();
    return emptyRep();
  }
  const auto at = reinterpret_cast<uintptr_t>(p);
  const auto base = reinterpret_cast<uintptr_t>(textOf(r));
  const bool inside = !r->IsEmptyString() && at >= base && at <= base + static_cast<size_t>(r->GetCapacity());
  Rep* keep = inside ? r : nullptr;
  if (keep != nullptr) keep->AddRef();
  const int total = static_cast<int>(len + n);
  Rep* out = r->_AllocNewStringMBCS(total, true, false);
  if (!out->IsEmptyString()) {
    std::memmove(textOf(out) + len, p, n);
    out = out->_SetLength(total);
  }
  if (keep != nullptr) keep->Release();
  return out;
}

// The key of ComputeHashKey over n bytes: 32-bit little-endian words XORed,
// then the tail bytes into the low bytes in order. Eight bytes at a time: the
// XOR of the two halves of a 64-bit little-endian word is the XOR of its two
// 32-bit words.
uint32_t xorWords(const unsigned char* p, size_t n) {
  uint64_t a = 0, b = 0, c = 0, d = 0;
  size_t i = 0;
  for (; i + 32 <= n; i += 32) {
    uint64_t w[4];
    std::memcpy(w, p + i, 32);
    a ^= w[0];
    b ^= w[1];
    c ^= w[2];
    d ^= w[3];
  }
  for (; i + 8 <= n; i += 8) {
    uint64_t w;
    std::memcpy(&w, p + i, 8);
    a ^= w;
  }
  uint64_t x = a ^ b ^ c ^ d;
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  x = __builtin_bswap64(x);
#endif
  uint32_t h = static_cast<uint32_t>(x) ^ static_cast<uint32_t>(x >> 32);
  if (i + 4 <= n) {
    h ^= static_cast<uint32_t>(p[i]) | static_cast<uint32_t>(p[i + 1]) << 8 | static_cast<uint32_t>(p[i + 2]) << 16 |
         static_cast<uint32_t>(p[i + 3]) << 24;
    i += 4;
  }
  for (unsigned shift = 0; i < n; ++i, shift += 8) h ^= static_cast<uint32_t>(p[i]) << shift;
  return h;
}

}  // namespace

// ---------------------------------------------------------------- handle --

Rep* KELString::bytes() const {
  if (_text == nullptr) _text = emptyRep()->GetText();
  Rep* r = Rep::FromText(_text);
  if (r->IsUCS()) {
    r = toBytes(r);
    _text = r->GetText();
  }
  return r;
}

void KELString::reset(Rep* fresh) const {
  Rep* old = _text != nullptr ? Rep::FromText(_text) : nullptr;
  _text = fresh->GetText();
  if (old != nullptr) old->Release();
}

// ---------------------------------------------------------- construction --

KELString::KELString() noexcept : _text(emptyRep()->GetText()) {}

KELString::KELString(const char* text) : _text(emptyRep()->GetText()) {
  if (text == nullptr || *text == '\0') return;
  const size_t n = std::strlen(text);
  if (refusedInDevStage(text, n)) return;
  _text = makeBytes(text, n)->GetText();
}

KELString::KELString(const KELString& other) : _text(other._text) {
  if (_text == nullptr) {
    NUVDebugBreak(1);
    _text = emptyRep()->GetText();
    return;
  }
  Rep::FromText(_text)->AddRef();
}

KELString::KELString(KELString&& other) noexcept : _text(other._text) {
  if (_text == nullptr) _text = emptyRep()->GetText();
  other._text = emptyRep()->GetText();
}

KELString::KELString(KELChar c, unsigned long n) : _text(emptyRep()->GetText()) {
  if (n == 0 || n > static_cast<unsigned long>(kMaxUnits)) return;
  Rep* r = KELInterStringMBCS::Allocate(static_cast<int>(n));
  if (!r->IsEmptyString()) std::memset(textOf(r), static_cast<unsigned char>(c.GetChar()), n);
  _text = r->GetText();
}

KELString::KELString(const KELString& s, unsigned long n) : _text(emptyRep()->GetText()) {
  if (n == 0) return;
  Rep* r = s.bytes();
  if (n == 1) {
    r->AddRef();
    _text = r->GetText();
    return;
  }
  _text = Rep::CreateString(r, n)->GetText();
}

KELString::KELString(const KELUnicodeString& u) : _text(emptyRep()->GetText()) { *this = u; }

KELString::KELString(KELUnicodeString&& u) noexcept : _text(u._text) {
  if (_text == nullptr) _text = emptyRep()->GetText();
  u._text = emptyRep()->GetText();
}

KELString::~KELString() {
  if (_text != nullptr) Rep::FromText(_text)->Release();
}

KELString& KELString::operator=(const char* text) {
  if (_text == nullptr) {
    NUVDebugBreak(1);
    _text = emptyRep()->GetText();
  }
  Rep* fresh = emptyRep();
  if (text != nullptr && *text != '\0') {
    const size_t n = std::strlen(text);
    if (!refusedInDevStage(text, n)) fresh = makeBytes(text, n);
  }
  reset(fresh);
  return *this;
}

KELString& KELString::operator=(const KELString& other) {
  if (other._text != _text) {
    Rep* r = other._text != nullptr ? Rep::FromText(other._text) : emptyRep();
    r->AddRef();
    reset(r);
  }
  return *this;
}

KELString& KELString::operator=(KELString&& other) noexcept {
  if (&other != this) {
    Rep* r = other._text != nullptr ? Rep::FromText(other._text) : emptyRep();
    other._text = emptyRep()->GetText();
    reset(r);
  }
  return *this;
}

KELString& KELString::operator=(const KELUnicodeString& u) {
  Rep* r = u._GetRepresentation();
  if (r == nullptr) r = emptyRep();
  if (r->GetText() != _text) {
    r->AddRef();
    reset(r);
  }
  return *this;
}

int KELSysUTF8Str(KELString* s, char* text) {
  if (s == nullptr || text == nullptr) return 0;
  s->reset(makeBytes(text, std::strlen(text)));
  return *text != '\0' ? 0 : E_FAIL;
}

void* KELString::ClassId() {
  static std::atomic<uintptr_t> record[2];
  record[0].store(0, std::memory_order_relaxed);
  record[1].store(0, std::memory_order_relaxed);
  return record;
}

// ------------------------------------------------------------ comparison --

int KELString::Compare(const char* text) const {
  const char* mine = ConvertToChar();
  if (text == nullptr) return static_cast<signed char>(mine[0]);
  return std::strcmp(mine, text);
}

int KELString::Compare(const KELString& other) const {
  const char* a = ConvertToChar();
  return std::strcmp(a, other.ConvertToChar());
}

int KELString::CompareByCase(const KELString& other) const {
  Rep* a = bytes();
  Rep* b = other.bytes();
  const int n = lengthOf(a);
  if (n != lengthOf(b)) return 0;
  const auto* p = reinterpret_cast<const unsigned char*>(textOf(a));
  const auto* q = reinterpret_cast<const unsigned char*>(textOf(b));
  int result = 1;
  for (int i = 0; i < n; ++i) {
    if (p[i] == q[i]) continue;
    if (std::tolower(p[i]) != std::tolower(q[i])) return 0;
    result = 2;
  }
  return result;
}

// --------------------------------------------------------- concatenation --

void KELString::appendBytes(const char* p, int n) {
  Rep* r = bytes();
  _text = appendTo(r, p, static_cast<size_t>(n))->GetText();
}

KELString& KELString::appendText(const char* text) {
  bytes();
  if (text == nullptr || *text == '\0') return *this;
  const size_t n = std::strlen(text);
  if (n > static_cast<size_t>(kMaxUnits)) return *this;
  if (refusedInDevStage(text, n)) return *this;
  appendBytes(text, static_cast<int>(n));
  return *this;
}

KELString& KELString::operator+=(const char* text) { return appendText(text); }

KELString& KELString::operator+=(const KELChar& c) {
  const char b = c.GetChar();
  appendBytes(&b, 1);
  return *this;
}

KELString& KELString::operator+=(const KELString& other) {
  Rep* o = other.bytes();
  Rep* r = bytes();
  if (lengthOf(r) == 0) {
    if (o != r) {
      o->AddRef();
      reset(o);
    }
    return *this;
  }
  appendBytes(textOf(o), lengthOf(o));
  return *this;
}

// The formats are fixed: see the header for why `long` uses "%d".
KELString& KELString::operator+=(int v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%d", v);
  return appendText(buf);
}
KELString& KELString::operator+=(unsigned int v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%u", v);
  return appendText(buf);
}
KELString& KELString::operator+=(long v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%d", static_cast<int>(static_cast<uint32_t>(v)));
  return appendText(buf);
}
KELString& KELString::operator+=(unsigned long v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%u", static_cast<unsigned>(v));
  return appendText(buf);
}
KELString& KELString::operator+=(long long v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%lld", v);
  return appendText(buf);
}
KELString& KELString::operator+=(unsigned long long v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%llu", v);
  return appendText(buf);
}

KELString KELString::operator+(const KELString& other) const {
  KELString r(*this);
  r += other;
  return r;
}

KELString KELString::operator+(const char* text) const {
  KELString r(*this);
  r += text;
  return r;
}

KELString operator+(const char* text, const KELString& s) {
  if (text == nullptr || *text == '\0') return s;
  const size_t n = std::strlen(text);
  if (refusedInDevStage(text, n)) return s;
  KELString r;
  KELSysUTF8Str(&r, const_cast<char*>(text));
  r += s;
  return r;
}

// --------------------------------------------------------------- reading --

const char* KELString::ConvertToChar() const { return textOf(bytes()); }

KELUnicodeString KELString::getUnicodeString() const {
  Rep* r = bytes();
  KELUnicodeString u;
  r->AddRef();
  u._text = r->GetText();  // u held the empty string, which needs no release
  return u;
}

bool KELString::IsNull() const { return lengthOf(bytes()) == 0; }

int KELString::Length() const { return lengthOf(bytes()); }

KELChar KELString::operator[](int i) const {
  Rep* r = bytes();
  if (i < 0 || i >= lengthOf(r)) return KELChar();
  return KELChar(textOf(r)[i]);
}

unsigned int KELString::ComputeHashKey() const {
  Rep* r = bytes();
  return xorWords(reinterpret_cast<const unsigned char*>(textOf(r)), static_cast<size_t>(lengthOf(r)));
}

// ------------------------------------------------------- search and edit --

int KELString::FindPosition(const KELString& sub, int start) const {
  Rep* s = sub.bytes();
  Rep* r = bytes();
  const int n = lengthOf(r), m = lengthOf(s);
  if (start < 0 || start > n || m > n) return -1;
  if (m == 0) return start;
  const char* hay = textOf(r);
  const void* hit = ::memmem(hay + start, static_cast<size_t>(n - start), textOf(s), static_cast<size_t>(m));
  return hit != nullptr ? static_cast<int>(static_cast<const char*>(hit) - hay) : -1;
}

KELString& KELString::ReplaceSubString(int start, int len, const KELString& by) {
  Rep* b = by.bytes();
  Rep* r = bytes();
  const long n = lengthOf(r);
  if (start < 0 || len < 0 || n == 0 || start > n) return *this;
  const long m = lengthOf(b);
  const long total = n - len + m;
  if (total < 0) return *this;
  // The extra references keep both texts alive while the result is written:
  // `by` may be this string, and the block of the new length is always a
  // fresh one since this block is now shared.
  r->AddRef();
  b->AddRef();
  Rep* out = r->_AllocNewStringMBCS(static_cast<int>(total), true, false);
  if (!out->IsEmptyString()) {
    char* dst = textOf(out);
    const char* src = textOf(r);
    // Before start, then by, then the rest from start + len: each piece cut
    // at the new length (a range past the end still counted len whole).
    long at = std::min<long>(start, total);
    std::memcpy(dst, src, static_cast<size_t>(at));
    const long byPart = std::min(m, total - at);
    std::memcpy(dst + at, textOf(b), static_cast<size_t>(byPart));
    at += byPart;
    const long from = static_cast<long>(start) + len;
    if (from < n && at < total) {
      const long rest = std::min(n - from, total - at);
      std::memcpy(dst + at, src + from, static_cast<size_t>(rest));
      at += rest;
    }
    out = out->_SetLength(static_cast<int>(total));
  }
  r->Release();
  b->Release();
  _text = out->GetText();
  return *this;
}

int KELString::ReplaceSubString(const KELString& what, const KELString& by) {
  const int pos = FindPosition(what, 0);
  if (pos >= 0) ReplaceSubString(pos, what.Length(), by);
  return pos;
}

KELString& KELString::Remove(int start, int len) { return ReplaceSubString(start, len, KELString()); }

KELString& KELString::Insert(int pos, const KELString& s) { return ReplaceSubString(pos, 0, s); }

KELString KELString::SubString(unsigned long start, unsigned long len) const {
  Rep* r = bytes();
  const unsigned long n = static_cast<unsigned long>(lengthOf(r));
  KELString result;
  if (n != 0 && start < start + len && start + len <= n) {
    result.reset(makeBytes(textOf(r) + start, len));
  } else {
    r->AddRef();
    result.reset(r);
  }
  return result;
}

KELString& KELString::Resize(int n, KELChar c, int truncate) {
  Rep* r = bytes();
  const int len = lengthOf(r);
  n = std::max(n, 0);
  if (n > len) {
    Rep* out = r->_AllocNewStringMBCS(n, true, false);
    if (!out->IsEmptyString()) {
      std::memset(textOf(out) + len, static_cast<unsigned char>(c.GetChar()), static_cast<size_t>(n - len));
      out = out->_SetLength(n);
    }
    _text = out->GetText();
  } else if (n < len && truncate != 0) {
    if (n == 0) {
      reset(emptyRep());
    } else {
      r = r->Isolate();
      _text = r->_SetLength(n)->GetText();
    }
  }
  return *this;
}

KELString KELString::Strip(KELStripMode mode, KELChar c) const {
  Rep* r = bytes();
  const char* t = textOf(r);
  const char ch = c.GetChar();
  size_t b = 0, e = static_cast<size_t>(lengthOf(r));
  KELString result;
  if (e != 0 && (mode & KELStripAll) != 0) {
    const size_t n = e;
    const size_t keep = n - static_cast<size_t>(std::count(t, t + n, ch));
    if (keep == n) {
      result = *this;
    } else if (keep != 0) {
      Rep* out = KELInterStringMBCS::Allocate(static_cast<int>(keep));
      if (!out->IsEmptyString()) std::remove_copy(t, t + n, textOf(out), ch);
      result.reset(out);
    }
    return result;
  }
  if ((mode & KELStripLeading) != 0)
    while (b < e && t[b] == ch) ++b;
  if ((mode & KELStripTrailing) != 0)
    while (e > b && t[e - 1] == ch) --e;
  if (b == 0 && e == static_cast<size_t>(lengthOf(r)))
    result = *this;
  else
    result.reset(makeBytes(t + b, e - b));
  return result;
}

namespace {
// Maps each byte by `map` in a private copy; an unchanged string keeps its
// block (and stays shared).
template <typename Map>
Rep* mapBytes(Rep* r, Map map) {
  const int n = lengthOf(r);
  const char* t = textOf(r);
  int i = 0;
  while (i < n && map(static_cast<unsigned char>(t[i])) == static_cast<unsigned char>(t[i])) ++i;
  if (i == n) return r;
  r = r->Isolate();
  if (lengthOf(r) != n) return r;  // the private copy could not be allocated
  char* w = textOf(r);
  for (; i < n; ++i) w[i] = static_cast<char>(map(static_cast<unsigned char>(w[i])));
  return r->_SetLength(n);
}
}  // namespace

KELString& KELString::ToUpper() {
  _text = mapBytes(bytes(), [](unsigned char b) { return static_cast<unsigned char>(std::toupper(b)); })->GetText();
  return *this;
}

KELString& KELString::ToLower() {
  _text = mapBytes(bytes(), [](unsigned char b) { return static_cast<unsigned char>(std::tolower(b)); })->GetText();
  return *this;
}

// ------------------------------------------------------------- streams --

std::istream& KELString::ReadLine(std::istream& in, int skipSpaces) {
  KELString result;
  if (skipSpaces != 0) {
    for (;;) {
      const int ch = in.get();
      if (!in) break;
      if (!std::isspace(static_cast<unsigned char>(ch))) {
        in.putback(static_cast<char>(ch));
        break;
      }
    }
  }
  for (;;) {
    char piece[80];
    piece[0] = '\0';
    in.get(piece, sizeof piece, '\n');
    result += piece;
    const int ch = in.get();
    if (in.fail() || in.eof() || ch == '\n') break;
    in.putback(static_cast<char>(ch));
  }
  *this = std::move(result);
  return in;
}

std::ostream& operator<<(std::ostream& out, const KELString& s) {
  const char* t = s.ConvertToChar();
  if (t == nullptr) {
    out.setstate(std::ios_base::badbit);
    return out;
  }
  return out << std::string_view(t, static_cast<size_t>(s.Length()));
}
