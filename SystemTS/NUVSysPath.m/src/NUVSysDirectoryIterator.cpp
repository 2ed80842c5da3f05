// Directory iteration over readdir, with the path filters.
#include "NUVSysDirectoryIterator.h"

#include <fnmatch.h>

#include <cerrno>
#include <cstring>
#include <typeinfo>

#include "NUVSysDirectoryIteratorImpl.h"
#include "NUVSysPathFilter.h"
#include "NUVSysPathNameFilter.h"
#include "PathText.h"
#include "SysCalls.h"

using systemts::detail::g_sys;

namespace {
bool isDotOrDotDot(const char* n) { return n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0')); }
}  // namespace

NUVSysDirectoryIteratorImpl::NUVSysDirectoryIteratorImpl(const NUVSysDirectoryIteratorImpl& other) {
  *this = other;
}

NUVSysDirectoryIteratorImpl& NUVSysDirectoryIteratorImpl::operator=(const NUVSysDirectoryIteratorImpl& other) {
  if (this == &other) return *this;
  Close();
  _patternFlag = other._patternFlag;
  _directory = other._directory;
  _filter = other._filter;
  _current = other._current;
  _state = other._state;
  _pattern = other._pattern;
  _callAccept = other._callAccept;
  _fastJoin = other._fastJoin;
  _prefix = other._prefix;
  _name = other._entry ? other._entry->d_name : other._name;
  _entry = nullptr;
  if (_state == kPositioned && other._stream != nullptr) {
    // A stream of its own, at the original's place.
    _stream = g_sys.opendir(_directory->fsPath());
    if (_stream == nullptr) {
      _state = kFailed;
    } else {
      ::seekdir(_stream, ::telldir(other._stream));
    }
  }
  return *this;
}

NUVSysDirectoryIteratorImpl::~NUVSysDirectoryIteratorImpl() { Close(); }

void NUVSysDirectoryIteratorImpl::Close() {
  if (_stream != nullptr) g_sys.closedir(_stream);
  _stream = nullptr;
  _entry = nullptr;
}

int NUVSysDirectoryIteratorImpl::Init(NUVSysPathImpl* directory, NUVSysPathFilter* filter) {
  if (directory == nullptr || !directory->isDirectory(1)) return E_FAIL;
  if (_stream != nullptr && _state == kPositioned && directory == _directory && filter == _filter) return 0;
  _directory = directory;
  _filter = filter;
  _patternFlag = false;
  _callAccept = false;
  _pattern.clear();
  if (filter != nullptr) {
    _pattern = filter->_pattern.ConvertToUTF8();
    _patternFlag = _pattern != "*.*";
    _callAccept = typeid(*filter) != typeid(NUVSysPathFilter);
  }
  // Entries of an absolute or relative directory are joined by writing the
  // name after the cleaned directory text: that is what Append gives for a
  // name that is one plain segment, without cleaning every entry again.
  const auto& d = directory->data();
  _fastJoin = (d.flags & (NUVSysPathImpl::kAbsolute | NUVSysPathImpl::kRelative)) != 0;
  if (_fastJoin) {
    _prefix.assign(d.path, d.length);
    _prefix.resize(systemts::detail::canonicalize(_prefix.data(), _prefix.size(), d.flags, d.prefixLength));
    if (_prefix == ".") {
      _prefix.clear();
    } else if (_prefix.back() != '/') {
      _prefix += '/';
    }
  }
  Close();
  _stream = g_sys.opendir(directory->fsPath());
  if (_stream == nullptr) {
    _state = kFailed;
    return errno > 0 ? NUVConvertError(errno, 7) : E_FAIL;
  }
  _state = kPositioned;
  const int rc = next();
  return rc == SYSTEMTS_E_NO_MORE_ENTRIES ? 1 : rc;
}

bool NUVSysDirectoryIteratorImpl::buildCurrent(const char* name) {
  if (!_fastJoin) {
    _current = NUVSysPath();
    NUVSysPathImpl copy(*_directory);
    const int rc = copy.append(name);
    if (rc == 0) _current.Set(copy.data().path);
    return rc == 0;
  }
  const size_t n = std::strlen(name);
  const size_t total = _prefix.size() + n;
  NUVSysPathImpl* impl = _current.GetImpl();
  if (impl == nullptr) {
    _current.Set(".");
    impl = _current.GetImpl();
  }
  if (total >= NUVSysPathImpl::kMaxPath) {
    impl->reset();
    impl->data().flags = NUVSysPathImpl::kInvalid;
    return false;
  }
  const auto& d = _directory->data();
  const uint32_t flags = d.flags & (NUVSysPathImpl::kAbsolute | NUVSysPathImpl::kRelative);
  return impl->assignRaw(_prefix.data(), _prefix.size(), name, n, flags, d.prefixLength);
}

int NUVSysDirectoryIteratorImpl::next(bool skipping) {
  if (_state == kFailed) return E_FAIL;
  if (_stream == nullptr) {
    _state = kAtEnd;
    return SYSTEMTS_E_NO_MORE_ENTRIES;
  }
  for (;;) {
    errno = 0;
    struct dirent* e = g_sys.readdir(_stream);
    if (e == nullptr) {
      const int err = errno;
      Close();
      if (err != 0) {
        _state = kFailed;
        return NUVConvertError(err, 7);
      }
      _state = kAtEnd;
      return SYSTEMTS_E_NO_MORE_ENTRIES;
    }
    _entry = e;
    if (isDotOrDotDot(e->d_name)) continue;
    buildCurrent(e->d_name);
    if (_filter == nullptr || skipping) return 0;
    if (_patternFlag && ::fnmatch(_pattern.c_str(), _current.GetUTF8(), 0) != 0) continue;
    if (_callAccept && _filter->accept(_current) == 0) continue;
    return 0;
  }
}

// ---- NUVSysDirectoryIterator ----

NUVSysDirectoryIterator::NUVSysDirectoryIterator() : _impl(new NUVSysDirectoryIteratorImpl()) {}
NUVSysDirectoryIterator::NUVSysDirectoryIterator(const NUVSysDirectoryIterator& other)
    : _impl(new NUVSysDirectoryIteratorImpl(*other._impl)) {}
NUVSysDirectoryIterator& NUVSysDirectoryIterator::operator=(const NUVSysDirectoryIterator& other) {
  if (this != &other) *_impl = *other._impl;
  return *this;
}
NUVSysDirectoryIterator::~NUVSysDirectoryIterator() { delete _impl; }

int NUVSysDirectoryIterator::Init(const NUVSysPath& directory, NUVSysPathFilter* filter) {
  return _impl->Init(directory.GetImpl(), filter);
}
int NUVSysDirectoryIterator::next() { return _impl->next(); }
NUVSysDirectoryIterator& NUVSysDirectoryIterator::operator++() {
  _impl->next();
  return *this;
}

const NUVSysPath& NUVSysDirectoryIterator::operator*() const {
  static const NUVSysPath kEmpty;
  return _impl->_state == NUVSysDirectoryIteratorImpl::kPositioned ? _impl->_current : kEmpty;
}

int NUVSysDirectoryIterator::GetCurrentPath(NUVSysPath& path) const {
  if (_impl->_state != NUVSysDirectoryIteratorImpl::kPositioned) return E_FAIL;
  path = _impl->_current;
  return 0;
}

const char* NUVSysDirectoryIterator::GetCurrentNameUTF8() const {
  if (_impl->_state != NUVSysDirectoryIteratorImpl::kPositioned) return nullptr;
  return _impl->_entry ? _impl->_entry->d_name : _impl->_name.c_str();
}

int NUVSysDirectoryIterator::GetCurrentName(KELUnicodeString& name) const {
  const char* n = GetCurrentNameUTF8();
  if (n == nullptr) return E_FAIL;
  name = KELUnicodeString::FromUTF8(n);
  return 0;
}

int NUVSysDirectoryIterator::GetCurrentName(KELSysTSUnicodeString& name) const {
  KELUnicodeString n;
  const int rc = GetCurrentName(n);
  if (rc == 0) name = n;
  return rc;
}

bool NUVSysDirectoryIterator::operator==(const NUVSysDirectoryIterator& other) const {
  if (_impl->_directory != other._impl->_directory) return false;
  const int a = _impl->_state, b = other._impl->_state;
  if (a == b) return true;
  return (a == -1 ? 1 : a) == (b == -1 ? 1 : b);
}

void NUVSysDirectoryIterator::Close() {
  _impl->Close();
  if (_impl->_state == NUVSysDirectoryIteratorImpl::kPositioned) _impl->_state = NUVSysDirectoryIteratorImpl::kAtEnd;
}

// ---- the path's side of iteration ----

int NUVSysPath::GetDirectoryIterator(NUVSysDirectoryIterator& iterator, NUVSysPathFilter* filter) const {
  return iterator.Init(*this, filter);
}

NUVSysDirectoryIterator NUVSysPath::Begin(int* result, NUVSysPathFilter* filter) const {
  NUVSysDirectoryIterator it;
  const int rc = it.Init(*this, filter);
  if (result) *result = rc;
  it.GetImpl()->_directory = _impl;  // so that it compares with End() even when Init refused
  return it;
}

NUVSysDirectoryIterator NUVSysPath::End() const {
  NUVSysDirectoryIterator it;
  it.GetImpl()->_directory = _impl;
  it.GetImpl()->_state = NUVSysDirectoryIteratorImpl::kAtEnd;
  return it;
}

// ---- filters ----

NUVSysPathFilter::NUVSysPathFilter() : _pattern(KELUnicodeString::FromUTF8("*.*")) {}
NUVSysPathFilter::~NUVSysPathFilter() = default;
int NUVSysPathFilter::accept(const NUVSysPath&) { return 1; }

NUVSysPathNameFilter::NUVSysPathNameFilter(const char* pattern, bool ignoreCase)
    : _namePattern(pattern ? pattern : "*"), _ignoreCase(ignoreCase) {}
NUVSysPathNameFilter::~NUVSysPathNameFilter() = default;

bool NUVSysPathNameFilter::matchName(const char* name) const {
  if (name == nullptr) return false;
  return ::fnmatch(_namePattern.c_str(), name, _ignoreCase ? FNM_CASEFOLD : 0) == 0;
}

int NUVSysPathNameFilter::accept(const NUVSysPath& path) {
  const char* text = path.GetUTF8();
  const char* slash = std::strrchr(text, '/');
  return matchName(slash ? slash + 1 : text) ? 1 : 0;
}
