// The path's text: type detection, checks, joining, cleaning, extensions,
// splitting, logical names and web-address forms.
#include "NUVSysPathImpl.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "NUVSysPath.h"
#include "PathText.h"
#include "PathInternal.h"

namespace systemts::detail {

namespace {
constexpr char kLogicalPrefix[] = {'\x01', '\x02', '\\'};

bool startsWith(const char* p, size_t n, const char* what, size_t k) {
  return n >= k && std::memcmp(p, what, k) == 0;
}
}  // namespace

PathType detectPathType(const char* p, size_t n) {
  if (p == nullptr) return {NUVSysPathImpl::kInvalid, 0};
  if (startsWith(p, n, kLogicalPrefix, 3)) return {NUVSysPathImpl::kLogical, 3};
  if (startsWith(p, n, "http://", 7)) return {NUVSysPathImpl::kHttp, 7};
  if (startsWith(p, n, "https://", 8)) return {NUVSysPathImpl::kHttps, 8};
  if (n >= 1 && p[0] == '/') return {NUVSysPathImpl::kAbsolute, 1};
  return {NUVSysPathImpl::kRelative, 0};
}

int checkPath(const char* p, size_t n, PathType type) {
  if (type.flags & NUVSysPathImpl::kInvalid) return -1;
  if (type.prefix >= n && !(type.flags & NUVSysPathImpl::kAbsolute)) return -1;
  const bool web = (type.flags & (NUVSysPathImpl::kHttp | NUVSysPathImpl::kHttps)) != 0;
  if (!web) return n >= NUVSysPathImpl::kMaxPath ? -1 : 0;
  if (n > 0xFFFF) return -1;  // the 16-bit length field
  for (size_t i = type.prefix; i < n; ++i) {
    const unsigned char c = static_cast<unsigned char>(p[i]);
    if (c < 0x20 || c > 0x7D) return -1;
  }
  return 0;
}

size_t canonicalize(char* p, size_t n, uint32_t flags, uint16_t prefix) {
  // [0, keep) stays as it is; after it comes either a rooted part (one "/",
  // then segments that ".." cannot climb above) or a relative one.
  size_t keep = 0;
  bool rooted = false;
  if (flags & NUVSysPathImpl::kAbsolute) {
    rooted = true;
  } else if (flags & (NUVSysPathImpl::kHttp | NUVSysPathImpl::kHttps | NUVSysPathImpl::kLogical)) {
    keep = prefix;
    while (keep < n && p[keep] != '/') ++keep;  // the authority, or NAME
    if (keep == n) return n;
    rooted = true;
  }
  // Most texts are clean already (every join cleans): one read-only pass
  // finds that out and spares the rewriting below. It may answer "not
  // clean" for a text the rewriting leaves as it is ("."), never the reverse.
  {
    size_t i = keep;
    bool clean = n > 0;
    if (rooted && i < n && p[i] == '/') ++i;  // the root's one "/"
    if (rooted && i == keep) clean = false;   // "NAME" part followed by no "/"
    bool onlyDotDots = true;                  // a relative path may begin with ".." segments
    while (clean && i < n) {
      size_t end = i;  // segments are short: a plain loop beats memchr's call
      while (end < n && p[end] != '/') ++end;
      const size_t len = end - i;
      const bool dotDot = len == 2 && p[i] == '.' && p[i + 1] == '.';
      if (len == 0 || (len == 1 && p[i] == '.') || end + 1 == n || (dotDot && (rooted || !onlyDotDots))) {
        clean = false;  // an empty, "." or climbing ".." segment, or a final "/"
        break;
      }
      onlyDotDots = onlyDotDots && dotDot;
      i = end + 1;
    }
    if (clean) return n;
  }
  size_t out = keep;
  size_t i = keep;
  if (rooted) {
    p[out++] = '/';
    while (i < n && p[i] == '/') ++i;
  }
  const size_t base = out;
  while (i < n) {
    while (i < n && p[i] == '/') ++i;
    if (i == n) break;
    const size_t s = i;
    while (i < n && p[i] != '/') ++i;
    const size_t len = i - s;
    if (len == 1 && p[s] == '.') continue;
    if (len == 2 && p[s] == '.' && p[s + 1] == '.') {
      if (out > base) {
        size_t j = out;
        while (j > base && p[j - 1] != '/') --j;  // start of the last segment
        const bool lastIsDotDot = out - j == 2 && p[j] == '.' && p[j + 1] == '.';
        if (!lastIsDotDot) {
          out = j > base ? j - 1 : base;
          continue;
        }
      } else if (rooted) {
        continue;  // never above the root
      }
    }
    if (out > base) p[out++] = '/';
    std::memmove(p + out, p + s, len);
    out += len;
  }
  if (!rooted && out == 0) p[out++] = '.';
  return out;
}

}  // namespace systemts::detail

using namespace systemts::detail;

// Copies member by member rather than through operator=: assigning would
// first zero-fill the whole record (status included) only to overwrite it,
// and a copy is most of what a join costs.
NUVSysPathImpl::NUVSysPathImpl(const NUVSysPathImpl& other) : _data(other._data) {
  _data.path = nullptr;
  _data.translatedName = nullptr;
  _data.capacity = 0;
  if (other._data.path == nullptr || !reserve(other._data.length + 1u)) {
    // As operator= leaves a path it could not copy: the flags only.
    if (other._data.path != nullptr) _data.statCache = {};  // no memory: as a fresh record
    _data.statValid = false;
    _data.length = 0;
    _data.prefixLength = 0;
    if (_data.path != nullptr) _data.path[0] = '\0';
    return;
  }
  std::memcpy(_data.path, other._data.path, other._data.length + 1u);
  if (other._data.translatedName != nullptr) _data.translatedName = ::strdup(other._data.translatedName);
}

NUVSysPathImpl& NUVSysPathImpl::operator=(const NUVSysPathImpl& other) {
  if (this == &other) return *this;
  const NUVSysPathImplInternalData& o = other._data;
  if (o.path == nullptr || !reserve(o.length + 1u)) {
    reset();
    _data.flags = o.flags;
    return *this;
  }
  std::memcpy(_data.path, o.path, o.length + 1u);
  std::free(_data.translatedName);
  _data.translatedName = o.translatedName ? ::strdup(o.translatedName) : nullptr;
  _data.statCache = o.statCache;
  _data.statValid = o.statValid;
  _data.flags = o.flags;
  _data.length = o.length;
  _data.prefixLength = o.prefixLength;
  return *this;
}

NUVSysPathImpl::~NUVSysPathImpl() {
  std::free(_data.path);
  std::free(_data.translatedName);
}

void NUVSysPathImpl::reset() {
  std::free(_data.translatedName);
  _data.translatedName = nullptr;
  if (_data.path != nullptr) _data.path[0] = '\0';
  _data.statValid = false;
  _data.flags = 0;
  _data.length = 0;
  _data.prefixLength = 0;
}

bool NUVSysPathImpl::reserve(size_t bytes) {
  if (bytes <= _data.capacity && _data.path != nullptr) return true;
  size_t cap = _data.capacity < 64 ? 64 : _data.capacity;
  while (cap < bytes) cap *= 2;
  if (cap > 0xFFFFFFFFu) return false;
  char* fresh = static_cast<char*>(std::realloc(_data.path, cap));
  if (fresh == nullptr) return false;
  _data.path = fresh;
  _data.capacity = static_cast<uint32_t>(cap);
  return true;
}

bool NUVSysPathImpl::assignRaw(const char* bytes, size_t n, const char* more, size_t m, uint32_t flags,
                               uint16_t prefix) {
  if (n + m > 0xFFFF || !reserve(n + m + 1)) return false;
  if (n) std::memmove(_data.path, bytes, n);
  if (m) std::memmove(_data.path + n, more, m);
  _data.path[n + m] = '\0';
  _data.length = static_cast<uint16_t>(n + m);
  _data.flags = flags;
  _data.prefixLength = prefix;
  _data.statValid = false;
  return true;
}

int NUVSysPathImpl::BuildFromUTF8(const char* utf8, long n) {
  reset();
  _data.flags = kInvalid;
  if (utf8 == nullptr) {
    printInTrace("BuildFromUTF8 Failed", NUVSysTraceInfoLevel);
    return E_FAIL;
  }
  size_t len = n < 0 ? std::strlen(utf8) : ::strnlen(utf8, static_cast<size_t>(n));
  if (len == 0 || len > 0xFFFF || !reserve(len + 1)) {
    printInTrace("BuildFromUTF8 Failed", NUVSysTraceInfoLevel);
    return E_FAIL;
  }
  std::memmove(_data.path, utf8, len);
  _data.path[len] = '\0';
  _data.length = static_cast<uint16_t>(len);
  if (InitPathType() != 0 || _CheckPath() != 0) {
    PathTrace("BuildFromUTF8 Failed", _data.path, NUVSysTraceInfoLevel);
    reset();
    _data.flags = kInvalid;
    return E_FAIL;
  }
  if (_data.length > _data.prefixLength && _data.path[_data.length - 1] == '/') {
    _data.path[--_data.length] = '\0';
  }
  if (_data.flags & kLogical) TranslateDLName();
  return 0;
}

int NUVSysPathImpl::BuildFromWCHAR(const unsigned short* utf16) {
  if (utf16 == nullptr) return BuildFromUTF8(nullptr);
  size_t units = 0;
  while (utf16[units] != 0) ++units;
  std::u16string_view view(reinterpret_cast<const char16_t*>(utf16), units);
  std::string utf8 = KELUnicodeString::FromUTF16(view).ConvertToUTF8();
  return BuildFromUTF8(utf8.c_str(), static_cast<long>(utf8.size()));
}

int NUVSysPathImpl::BuildFromString(const KELUnicodeString& text) {
  std::string utf8 = text.ConvertToUTF8();
  return BuildFromUTF8(utf8.c_str(), static_cast<long>(utf8.size()));
}

int NUVSysPathImpl::InitPathType() {
  _data.flags = kInvalid;
  if (_data.path == nullptr) return E_FAIL;
  PathType t = detectPathType(_data.path, _data.length);
  _data.flags = t.flags;
  _data.prefixLength = t.prefix;
  return (t.flags & kInvalid) ? E_FAIL : 0;
}

int NUVSysPathImpl::_CheckPath() {
  if (_data.path == nullptr) return E_FAIL;
  PathType t{_data.flags, _data.prefixLength};
  return checkPath(_data.path, _data.length, t) == 0 ? 0 : E_FAIL;
}

int NUVSysPathImpl::append(const char* component, long n) {
  if (_data.path == nullptr || (_data.flags & kInvalid) || _data.length == 0) return E_FAIL;
  if (component == nullptr) return E_FAIL;
  if (component >= _data.path && component < _data.path + _data.capacity) {
    // A piece of this very path (p.Append(p)): the buffer may move below.
    const std::string own(component, n < 0 ? std::strlen(component) : ::strnlen(component, static_cast<size_t>(n)));
    return append(own.c_str(), static_cast<long>(own.size()));
  }
  size_t len = n < 0 ? std::strlen(component) : ::strnlen(component, static_cast<size_t>(n));
  if (len >= kMaxPath) return E_FAIL;
  if (len == 1 && component[0] == '.') return 0;
  if (len > 0 && component[len - 1] == '/') --len;
  if (len > 0 && component[0] == '/') {
    ++component;
    --len;
  }
  const size_t old = _data.length;
  const bool endsWithSlash = _data.path[old - 1] == '/';
  const size_t total = old + (endsWithSlash ? 0 : 1) + len;
  if (total > 0xFFFF || !reserve(total + 1)) return E_FAIL;
  // Cleaning rewrites the old text too ("a//b" becomes "a/b"), so a copy of
  // it is kept until the result has passed the checks: on the stack for the
  // usual lengths, so that a join allocates nothing when the buffer fits.
  char local[kMaxPath];
  std::string far;
  char* saved = local;
  if (old > sizeof local) {
    far.assign(_data.path, old);
    saved = far.data();
  } else {
    std::memcpy(local, _data.path, old);
  }
  size_t at = old;
  if (!endsWithSlash) _data.path[at++] = '/';
  if (len > 0) std::memcpy(_data.path + at, component, len);
  at += len;
  size_t cleaned = canonicalize(_data.path, at, _data.flags, _data.prefixLength);
  // Folding ".." can bring another kind's prefix to the front of a relative
  // path ("x/../\x01\x02\\N" would read as a logical name): such a join is
  // refused rather than letting the path change its kind.
  const PathType now = detectPathType(_data.path, cleaned);
  const bool sameKind =
      now.flags == (_data.flags & ~static_cast<uint32_t>(kAppended)) && now.prefix == _data.prefixLength;
  if (!sameKind || checkPath(_data.path, cleaned, PathType{_data.flags, _data.prefixLength}) != 0) {
    std::memcpy(_data.path, saved, old);  // refused: the path stays as it was
    _data.path[old] = '\0';
    return E_FAIL;
  }
  _data.path[cleaned] = '\0';
  _data.length = static_cast<uint16_t>(cleaned);
  _data.flags &= ~static_cast<uint32_t>(kAppended);
  _data.statValid = false;
  if (_data.flags & kLogical) TranslateDLName();
  return 0;
}

int NUVSysPathImpl::CleanAndCanonicalize() {
  if (_data.path == nullptr || (_data.flags & kInvalid) || _data.length == 0) return E_FAIL;
  size_t cleaned = canonicalize(_data.path, _data.length, _data.flags, _data.prefixLength);
  _data.path[cleaned] = '\0';
  _data.length = static_cast<uint16_t>(cleaned);
  _data.statValid = false;
  return 0;
}

int NUVSysPathImpl::getExtension(KELUnicodeString& extension) const {
  if (_data.path == nullptr || (_data.flags & kInvalid) || _data.length == 0) return E_FAIL;
  const char* p = _data.path;
  const char* slash = static_cast<const char*>(::memrchr(p, '/', _data.length));
  if (slash == nullptr && !(_data.flags & kRelative)) return E_FAIL;
  const char* name = slash ? slash + 1 : p;
  const char* end = p + _data.length;
  const char* dot = static_cast<const char*>(::memrchr(name, '.', static_cast<size_t>(end - name)));
  if (dot == nullptr || dot + 1 == end) return E_FAIL;
  extension = KELUnicodeString::FromUTF8(std::string_view(dot + 1, static_cast<size_t>(end - dot - 1)));
  return 0;
}

int NUVSysPathImpl::addExtension(const char* extension) {
  if (_data.path == nullptr || (_data.flags & kInvalid) || _data.length == 0) return E_FAIL;
  if (_data.path[_data.length - 1] == '/' || extension == nullptr || *extension == '\0') return E_FAIL;
  std::string text(_data.path, _data.length);
  if (extension[0] != '.') text += '.';
  text += extension;
  if (checkPath(text.data(), text.size(), PathType{_data.flags, _data.prefixLength}) != 0) return E_FAIL;
  if (!assignRaw(text.data(), text.size(), nullptr, 0, _data.flags, _data.prefixLength)) return E_FAIL;
  if (_data.flags & kLogical) TranslateDLName();
  return 0;
}

int NUVSysPathImpl::removeExtension() {
  if (_data.path == nullptr || (_data.flags & kInvalid) || _data.length == 0) return E_FAIL;
  const char* p = _data.path;
  size_t n = _data.length;
  if (p[n - 1] == '/') return E_FAIL;
  size_t i = n;
  while (i > 0 && p[i - 1] != '.' && p[i - 1] != '/') --i;
  if (i == 0 || p[i - 1] == '/') return E_FAIL;  // no "." in the last component
  const size_t dot = i - 1;
  if (dot == 0) return E_FAIL;
  if (p[dot - 1] == '/') return E_FAIL;  // .profile keeps its name
  if (p[dot - 1] == '.' && (dot == 1 || p[dot - 2] == '/')) return E_FAIL;  // ".."
  std::string text(p, dot);
  NUVSysPathImpl rebuilt;
  if (rebuilt.BuildFromUTF8(text.c_str(), static_cast<long>(text.size())) != 0) return E_FAIL;
  *this = rebuilt;
  return 0;
}

int NUVSysPathImpl::removeExtension(const char* extension) {
  if (_data.path == nullptr || (_data.flags & kInvalid) || _data.length == 0) return E_FAIL;
  if (_data.path[_data.length - 1] == '/' || extension == nullptr || *extension == '\0') return E_FAIL;
  std::string suffix = extension[0] == '.' ? std::string(extension) : "." + std::string(extension);
  const std::string_view text(_data.path, _data.length);
  if (text.size() <= suffix.size() || text.compare(text.size() - suffix.size(), suffix.size(), suffix) != 0)
    return E_FAIL;
  std::string rest(text.substr(0, text.size() - suffix.size()));
  NUVSysPathImpl rebuilt;
  if (rebuilt.BuildFromUTF8(rest.c_str(), static_cast<long>(rest.size())) != 0) return E_FAIL;
  *this = rebuilt;
  return 0;
}

int NUVSysPathImpl::split(NUVSysPathImpl* parent, KELUnicodeString* name) const {
  if (_data.path == nullptr || (_data.flags & kInvalid) || _data.length == 0) return E_FAIL;
  const char* p = _data.path;
  size_t n = _data.length;
  if (n > 0 && p[n - 1] == '/') --n;  // a final "/" does not count ("/" alone has no parent)
  const size_t from = (_data.flags & kAbsolute) ? 0 : _data.prefixLength;
  size_t slash = n;
  for (size_t i = n; i > from; --i) {
    if (p[i - 1] == '/') {
      slash = i - 1;
      break;
    }
  }
  if (slash == n) {
    if (name) *name = KELUnicodeString::FromUTF8(std::string_view(p, _data.length));
    return 1;
  }
  if (parent) {
    const size_t plen = slash == 0 ? 1 : slash;
    if (parent->BuildFromUTF8(p, static_cast<long>(plen)) != 0) return E_FAIL;
  }
  if (name) *name = KELUnicodeString::FromUTF8(std::string_view(p + slash + 1, n - slash - 1));
  return 0;
}

int NUVSysPathImpl::TranslateDLName() {
  std::free(_data.translatedName);
  _data.translatedName = nullptr;
  if (!(_data.flags & kLogical) || _data.path == nullptr) return E_FAIL;
  const char* name = _data.path + 3;
  const char* end = _data.path + _data.length;
  const char* slash = static_cast<const char*>(std::memchr(name, '/', static_cast<size_t>(end - name)));
  const char* nameEnd = slash ? slash : end;
  std::string value;
  if (!LookUpLogicalName(std::string(name, nameEnd), value) || value.empty()) return E_FAIL;
  std::string rest(nameEnd, end);  // "" or "/rest"
  if (!rest.empty() && value.back() == '/') value.pop_back();
  value += rest;
  _data.translatedName = ::strdup(value.c_str());
  return _data.translatedName ? 0 : E_FAIL;
}

namespace {
bool isHex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
bool isHostChar(char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return std::strchr("-._!$&'()*+,;=%", c) != nullptr;
}
}  // namespace

int NUVSysPathImpl::Initialize() const {
  if (_data.path == nullptr || !(_data.flags & (kHttp | kHttps))) return E_FAIL;
  const std::string_view all(_data.path, _data.length);
  for (size_t i = 0; i < all.size(); ++i) {
    if (all[i] == '%' && (i + 2 >= all.size() || !isHex(all[i + 1]) || !isHex(all[i + 2]))) return E_FAIL;
  }
  std::string_view rest = all.substr(_data.prefixLength);
  std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
  if (const size_t at = authority.rfind('@'); at != std::string_view::npos) authority.remove_prefix(at + 1);
  if (authority.empty()) return E_FAIL;
  std::string_view host = authority;
  std::string_view port;
  if (authority.front() == '[') {
    const size_t close = authority.find(']');
    if (close == std::string_view::npos || close < 2) return E_FAIL;
    host = authority.substr(0, close + 1);
    std::string_view after = authority.substr(close + 1);
    if (!after.empty()) {
      if (after.front() != ':') return E_FAIL;
      port = after.substr(1);
      if (port.empty()) return E_FAIL;
    }
  } else {
    if (const size_t colon = authority.rfind(':'); colon != std::string_view::npos) {
      host = authority.substr(0, colon);
      port = authority.substr(colon + 1);
      if (port.empty()) return E_FAIL;
    }
    if (host.empty()) return E_FAIL;
    for (char c : host)
      if (!isHostChar(c)) return E_FAIL;
  }
  if (!port.empty()) {
    if (port.size() > 5) return E_FAIL;
    long value = 0;
    for (char c : port) {
      if (c < '0' || c > '9') return E_FAIL;
      value = value * 10 + (c - '0');
    }
    if (value > 65535) return E_FAIL;
  }
  return 0;
}

const char* NUVSysPathImpl::fsPath() const {
  if (_data.path == nullptr || (_data.flags & kInvalid) || _data.length == 0) return nullptr;
  if (_data.flags & (kHttp | kHttps)) return nullptr;
  if (_data.flags & kLogical) return _data.translatedName;
  return _data.path;
}

KELUnicodeString NUVSysPathImpl::ToString_NoExtendedLengthPrefix() const {
  if (_data.path == nullptr || _data.length == 0) return KELUnicodeString();
  return KELUnicodeString::FromUTF8(std::string_view(_data.path, _data.length));
}

void NUVSysPathImpl::printInTrace(const char* label, int level) const {
  PathTrace(label, _data.path ? _data.path : "", level);
}
