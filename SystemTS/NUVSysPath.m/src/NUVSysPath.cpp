// NUVSysPath: the public value, forwarding to NUVSysPathImpl; the
// well-known directories and the small utilities of the path module.
#include "NUVSysPath.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "NUVSysEnvironmentManager.h"
#include "NUVSysPathImpl.h"
#include "NUVSysTrace.h"
#include "PathInternal.h"

namespace systemts::detail {

void PathTrace(const char* label, const char* text, int level) {
  static std::atomic<NUVSysTrace*> s_trace{nullptr};
  NUVSysTrace* trace = s_trace.load(std::memory_order_acquire);
  if (trace == nullptr) {
    NUVSysTrace* mine = NUVSysTraceCreate__("NUVSysPath");
    if (mine == nullptr) return;
    if (s_trace.compare_exchange_strong(trace, mine, std::memory_order_acq_rel)) {
      trace = mine;
    } else {
      NUVSysTraceDestroy__(mine);  // another thread made it first
    }
  }
  NUVSYSTRACE_PRINT(trace, level, "%s : Path is %s", label ? label : "", text ? text : "");
}

bool LookUpLogicalName(const std::string& name, std::string& value) {
  if (name.empty()) return false;
  KELUnicodeString found;
  if (NUVGetEnvInt(name.c_str(), &found) != 1) return false;
  value = found.ConvertToUTF8();
  return true;
}

}  // namespace systemts::detail

using systemts::detail::PathTrace;

namespace {
std::string utf8Of(const KELUnicodeString& s) { return s.ConvertToUTF8(); }

std::string utf8Of(const unsigned short* utf16) {
  if (utf16 == nullptr) return std::string();
  size_t units = 0;
  while (utf16[units] != 0) ++units;
  return KELUnicodeString::FromUTF16(std::u16string_view(reinterpret_cast<const char16_t*>(utf16), units))
      .ConvertToUTF8();
}

// A new, empty implementation. Copied from a blank one because that copies
// the record with plain moves, where default construction zero-fills it with
// a string instruction that costs more than the rest of a split.
NUVSysPathImpl* newImpl() {
  static const NUVSysPathImpl& blank = *new NUVSysPathImpl();  // never destroyed: usable at exit
  return new NUVSysPathImpl(blank);
}

bool sameBytes(const NUVSysPathImpl* impl, const char* utf8, size_t n) {
  const size_t len = impl && impl->data().path ? impl->data().length : 0;
  return len == n && (n == 0 || std::memcmp(impl->data().path, utf8, n) == 0);
}
}  // namespace

NUVSysPath::NUVSysPath(const char* utf8) { Set(utf8); }
NUVSysPath::NUVSysPath(const unsigned short* utf16) { Set(utf16); }
NUVSysPath::NUVSysPath(const KELUnicodeString& text) { Set(text); }
NUVSysPath::NUVSysPath(KELSysTSUnicodeString& text) { Set(text); }

NUVSysPath::NUVSysPath(const NUVSysPath& other)
    : _impl(other._impl ? new NUVSysPathImpl(*other._impl) : nullptr) {}

NUVSysPath::NUVSysPath(NUVSysPath&& other) noexcept : _impl(other._impl) { other._impl = nullptr; }

NUVSysPath& NUVSysPath::operator=(const NUVSysPath& other) {
  if (this == &other) return *this;
  if (other._impl == nullptr) {
    delete _impl;
    _impl = nullptr;
  } else {
    *ensure() = *other._impl;
  }
  return *this;
}

NUVSysPath& NUVSysPath::operator=(NUVSysPath&& other) noexcept {
  if (this != &other) {
    delete _impl;
    _impl = other._impl;
    other._impl = nullptr;
  }
  return *this;
}

NUVSysPath::~NUVSysPath() { delete _impl; }

NUVSysPathImpl* NUVSysPath::ensure() {
  if (_impl == nullptr) _impl = newImpl();
  return _impl;
}

int NUVSysPath::Set(const char* utf8) { return ensure()->BuildFromUTF8(utf8); }
int NUVSysPath::Set(const unsigned short* utf16) { return ensure()->BuildFromWCHAR(utf16); }
int NUVSysPath::Set(const KELUnicodeString& text) { return ensure()->BuildFromString(text); }
int NUVSysPath::Set(KELSysTSUnicodeString& text) { return ensure()->BuildFromString(text.Get()); }

uint32_t NUVSysPath::getType() const { return _impl ? NUVSysPathImpl::GetTypeFromMask(_impl->data().flags) : 0; }
uint32_t NUVSysPath::GetTypeMask() const { return getType(); }
bool NUVSysPath::IsRelative() const { return (getType() & NUVSysPathImpl::kRelative) != 0; }
bool NUVSysPath::IsAbsolute() const { return (getType() & NUVSysPathImpl::kAbsolute) != 0; }
bool NUVSysPath::IsValid() const {
  return _impl && _impl->data().path && _impl->data().length > 0 && !(_impl->data().flags & NUVSysPathImpl::kInvalid);
}

bool NUVSysPath::operator==(const NUVSysPath& other) const {
  const size_t n = other._impl && other._impl->data().path ? other._impl->data().length : 0;
  return sameBytes(_impl, n ? other._impl->data().path : "", n);
}
bool NUVSysPath::operator==(const char* utf8) const {
  return sameBytes(_impl, utf8 ? utf8 : "", utf8 ? std::strlen(utf8) : 0);
}
bool NUVSysPath::operator==(const unsigned short* utf16) const {
  const std::string s = utf8Of(utf16);
  return sameBytes(_impl, s.data(), s.size());
}
bool operator==(const char* utf8, const NUVSysPath& path) { return path == utf8; }
bool operator==(const unsigned short* utf16, const NUVSysPath& path) { return path == utf16; }

int NUVSysPath::Append(const NUVSysPath& component) {
  if (!component.IsValid()) return E_FAIL;
  return Append(component.GetUTF8());
}
int NUVSysPath::Append(const KELUnicodeString& component) { return Append(utf8Of(component).c_str()); }
int NUVSysPath::Append(const unsigned short* component) {
  if (component == nullptr) return E_FAIL;
  return Append(utf8Of(component).c_str());
}
int NUVSysPath::Append(const char* component) { return _impl ? _impl->append(component) : E_FAIL; }
int NUVSysPath::append(KELSysTSUnicodeString& component) { return Append(component.Get()); }

NUVSysPath NUVSysPath::Add(const KELUnicodeString& component, int* result) const {
  NUVSysPath copy(*this);
  const int rc = copy.Append(component);
  if (result) *result = rc;
  return copy;
}

int NUVSysPath::GetExtension(KELUnicodeString& extension) const {
  return _impl ? _impl->getExtension(extension) : E_FAIL;
}
int NUVSysPath::getExtension(KELSysTSUnicodeString& extension) const {
  KELUnicodeString e;
  const int rc = GetExtension(e);
  if (rc == 0) extension = e;
  return rc;
}
int NUVSysPath::AddExtension(const KELUnicodeString& extension) {
  return _impl ? _impl->addExtension(utf8Of(extension).c_str()) : E_FAIL;
}
int NUVSysPath::addExtension(KELSysTSUnicodeString& extension) { return AddExtension(extension.Get()); }
int NUVSysPath::RemExtension() { return _impl ? _impl->removeExtension() : E_FAIL; }
int NUVSysPath::removeExtension() { return RemExtension(); }
int NUVSysPath::RemExtension(const KELUnicodeString& extension) {
  return _impl ? _impl->removeExtension(utf8Of(extension).c_str()) : E_FAIL;
}
int NUVSysPath::removeExtension(KELSysTSUnicodeString& extension) { return RemExtension(extension.Get()); }

int NUVSysPath::split(NUVSysPath& parent, KELUnicodeString& name) const {
  if (_impl == nullptr) return E_FAIL;
  if (parent._impl == nullptr) {
    // The usual case (a fresh parent): built in place, adopted on success.
    NUVSysPathImpl* fresh = newImpl();
    const int rc = _impl->split(fresh, &name);
    if (rc == 0) {
      parent._impl = fresh;
    } else {
      delete fresh;
    }
    return rc;
  }
  // The parent keeps its text until the split has succeeded.
  NUVSysPathImpl fresh;
  const int rc = _impl->split(&fresh, &name);
  if (rc == 0) std::swap(parent._impl->data(), fresh.data());  // fresh frees the old parent's text
  return rc;
}
int NUVSysPath::split(NUVSysPath& parent, KELSysTSUnicodeString& name) const {
  KELUnicodeString n;
  const int rc = split(parent, n);
  if (rc == 0 || rc == 1) name = n;
  return rc;
}
int NUVSysPath::split(NUVSysPath& parent, KELUnicodeString& base, KELUnicodeString& extension) const {
  KELUnicodeString name;
  const int rc = split(parent, name);
  if (rc != 0 && rc != 1) return rc;
  const std::string text = name.ConvertToUTF8();
  const size_t dot = text.rfind('.');
  if (dot == std::string::npos || dot == 0) {
    base = name;
    extension = KELUnicodeString();
  } else {
    base = KELUnicodeString::FromUTF8(std::string_view(text).substr(0, dot));
    extension = KELUnicodeString::FromUTF8(std::string_view(text).substr(dot + 1));
  }
  return rc;
}
int NUVSysPath::split(NUVSysPath& parent, KELSysTSUnicodeString& base, KELSysTSUnicodeString& extension) const {
  KELUnicodeString b, e;
  const int rc = split(parent, b, e);
  if (rc == 0 || rc == 1) {
    base = b;
    extension = e;
  }
  return rc;
}

NUVSysPath NUVSysPath::GetParent(int* result) const {
  NUVSysPath parent;
  KELUnicodeString name;
  const int rc = split(parent, name);
  if (result) *result = rc;
  return parent;
}

KELUnicodeString NUVSysPath::GetName(int* result) const {
  NUVSysPath parent;
  KELUnicodeString name;
  const int rc = split(parent, name);
  if (result) *result = rc;
  return name;
}

KELUnicodeString NUVSysPath::GetAsString() const {
  return _impl ? _impl->ToString_NoExtendedLengthPrefix() : KELUnicodeString();
}
void NUVSysPath::getAsString(KELSysTSUnicodeString& text) const { text = GetAsString(); }
KELUnicodeString NUVSysPath::ToString(int* result) const {
  if (result) *result = IsValid() ? 0 : E_FAIL;
  return GetAsString();
}
const char* NUVSysPath::GetUTF8() const { return _impl && _impl->data().path ? _impl->data().path : ""; }

void NUVSysPath::PrintInTrace(const char* label, int level) const { PathTrace(label, GetUTF8(), level); }

int NUVSysPath::getHomeDirectory(NUVSysPath& result) { return NUVSysPathHome(result); }
int NUVSysPath::getTempDirectory(NUVSysPath& result) { return NUVSysPathTemporary(result); }

// ---- well-known directories ----

namespace {
// Fills `slot` once: the first thread's string wins, a loser frees its copy.
const char* fillOnce(std::atomic<char*>& slot, char* (*make)()) {
  char* have = slot.load(std::memory_order_acquire);
  if (have != nullptr) return have;
  char* mine = make();
  if (mine == nullptr) return nullptr;
  if (slot.compare_exchange_strong(have, mine, std::memory_order_acq_rel)) return mine;
  std::free(mine);
  return have;
}

char* copyHome() {
  const char* home = std::getenv("HOME");
  return home ? ::strdup(home) : nullptr;
}

std::atomic<char*> g_home{nullptr};
std::atomic<char*> g_document{nullptr};
std::atomic<char*> g_temporary{nullptr};
std::atomic<char*> g_resource{nullptr};

int pathFrom(const char* text, NUVSysPath& result) { return text ? result.Set(text) : E_FAIL; }
}  // namespace

const char* NUVSysPathImplGetHomeDirectoryPathA() { return fillOnce(g_home, copyHome); }
const char* NUVSysPathImplGetDocumentDirectoryPathA() { return fillOnce(g_document, copyHome); }

const char* NUVSysPathImplGetTemporaryDirectoryPathA() {
  return fillOnce(g_temporary, [] {
    // "/tmp" in the environment's code page (the same bytes in every code
    // page the library supports, but converted as any text would be).
    const KELUnicodeString text = KELUnicodeString::FromUTF8("/tmp");
    const char* mbcs = text.ConvertToChar();
    return ::strdup(mbcs && *mbcs ? mbcs : "/tmp");
  });
}

const char* NUVSysPathImplGetResourceDirectoryPathA() {
  return fillOnce(g_resource, [] {
    const char* value = std::getenv("KELInstallPath");
    if (value == nullptr) return static_cast<char*>(nullptr);
    const char* colon = std::strchr(value, ':');
    return ::strndup(value, colon ? static_cast<size_t>(colon - value) : std::strlen(value));
  });
}

int NUVSysPathImplSetDirectoryPathA(char** slot, const char* path) {
  if (slot == nullptr) return -1;
  std::free(*slot);
  *slot = nullptr;
  if (path == nullptr) return 0;
  char* copy = ::strdup(path);
  if (copy == nullptr) return -1;
  size_t n = std::strlen(copy);
  const char* last = std::strrchr(copy, '/');
  if (last != nullptr && last == copy + n - 1) {
    while (n > 1 && copy[n - 1] == '/') copy[--n] = '\0';
  }
  *slot = copy;
  return 0;
}

int NUVSysPathHome(NUVSysPath& result) { return pathFrom(NUVSysPathImplGetHomeDirectoryPathA(), result); }
int NUVSysPathDocument(NUVSysPath& result) { return pathFrom(NUVSysPathImplGetDocumentDirectoryPathA(), result); }
int NUVSysPathTemporary(NUVSysPath& result) {
  return pathFrom(NUVSysPathImplGetTemporaryDirectoryPathA(), result);
}
int NUVSysPathBaseName(const NUVSysPath& path, KELUnicodeString& name) {
  NUVSysPath parent;
  return path.split(parent, name);
}

int StripMultileBackSlash(unsigned short* target, const unsigned short* source, int& length) {
  if (target == nullptr || source == nullptr) return -1;
  int out = 0;
  for (int i = 0; length < 0 ? source[i] != 0 : i < length; ++i) {
    if (source[i] == u'\\' && out > 0 && target[out - 1] == u'\\') continue;
    target[out++] = source[i];
  }
  target[out] = 0;
  length = out;
  return 0;
}

int NUVConvertError(int error, int category) {
  if (category == 7) return SystemTSResultFromErrno(error);
  if (error < 1) return error;
  return static_cast<int>(0x80000000u | ((static_cast<unsigned>(category) & 0x7FFu) << 16) |
                          (static_cast<unsigned>(error) & 0xFFFFu));
}
