// Depth-first walk of a directory tree on readdir's d_type.
#include "NUVSysDirectoryWalker.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "NUVSysPathImpl.h"
#include "SysCalls.h"

using systemts::detail::g_sys;

struct NUVSysDirectoryWalker::State {
  struct Frame {
    DIR* dir;
    size_t pathLength;  // bytes of `path` up to and with the "/" before a child's name
    dev_t dev;
    ino_t ino;
  };
  std::vector<Frame> stack;
  std::string path;       // the current entry
  size_t nameOffset = 0;  // where its name begins in `path`
  bool open = false;
  bool current = false;   // positioned on an entry
  bool isDir = false;
  bool isLink = false;
  bool descend = false;   // open the current entry on the next Next
  int options = 0;
  long skipped = 0;
  int lastSkippedError = 0;

  void skip(int err) {
    ++skipped;
    lastSkippedError = err > 0 ? NUVConvertError(err, 7) : E_FAIL;
  }

  // Opens `path` as a directory and pushes it; false (counted as skipped)
  // when it cannot be opened.
  bool enter() {
    DIR* dir = g_sys.opendir(path.c_str());
    if (dir == nullptr) {
      skip(errno);
      return false;
    }
    Frame f{dir, path.size(), 0, 0};
    if (path.empty() || path.back() != '/') {
      path += '/';
      ++f.pathLength;
    }
    if (options & kFollowLinks) {
      struct stat64 st;
      if (g_sys.stat64(path.c_str(), &st) == 0) {
        f.dev = st.st_dev;
        f.ino = st.st_ino;
      }
    }
    stack.push_back(f);
    return true;
  }

  bool onStack(const struct stat64& st) const {
    for (const Frame& f : stack)
      if (f.dev == st.st_dev && f.ino == st.st_ino) return true;
    return false;
  }

  void closeAll() {
    for (Frame& f : stack) g_sys.closedir(f.dir);
    stack.clear();
  }
};

NUVSysDirectoryWalker::NUVSysDirectoryWalker() : _state(new State()) {}
NUVSysDirectoryWalker::~NUVSysDirectoryWalker() {
  Close();
  delete _state;
}

void NUVSysDirectoryWalker::Close() {
  _state->closeAll();
  _state->open = false;
  _state->current = false;
  _state->descend = false;
}

int NUVSysDirectoryWalker::Open(const NUVSysPath& root, int options) {
  Close();
  _state->options = options;
  _state->skipped = 0;
  _state->lastSkippedError = 0;
  const char* p = root.GetImpl() ? root.GetImpl()->fsPath() : nullptr;
  if (p == nullptr) return E_FAIL;
  _state->path = p;
  if (!_state->enter()) {
    const int rc = _state->lastSkippedError;
    _state->skipped = 0;
    _state->lastSkippedError = 0;
    return rc;
  }
  _state->open = true;
  return 0;
}

int NUVSysDirectoryWalker::Next() {
  State& s = *_state;
  if (!s.open) return E_FAIL;
  if (s.descend) {
    s.descend = false;
    s.enter();
  }
  s.current = false;
  while (!s.stack.empty()) {
    State::Frame& top = s.stack.back();
    errno = 0;
    struct dirent* e = g_sys.readdir(top.dir);
    if (e == nullptr) {
      if (errno != 0) s.skip(errno);
      g_sys.closedir(top.dir);
      s.stack.pop_back();
      continue;
    }
    const char* name = e->d_name;
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
    s.path.resize(top.pathLength);
    s.nameOffset = top.pathLength;
    s.path += name;
    unsigned char type = e->d_type;
    if (type == DT_UNKNOWN) {
      struct stat64 st;
      if (g_sys.lstat64(s.path.c_str(), &st) == 0) {
        type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISLNK(st.st_mode) ? DT_LNK : DT_REG;
      }
    }
    s.isLink = type == DT_LNK;
    s.isDir = type == DT_DIR;
    s.descend = s.isDir;
    if (s.isLink && (s.options & kFollowLinks)) {
      struct stat64 st;
      if (g_sys.stat64(s.path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        s.isDir = true;
        s.descend = !s.onStack(st);  // a loop is reported, not entered
      }
    }
    s.current = true;
    return 0;
  }
  s.open = false;
  return SYSTEMTS_E_NO_MORE_ENTRIES;
}

void NUVSysDirectoryWalker::SkipCurrentDirectory() { _state->descend = false; }

const char* NUVSysDirectoryWalker::GetCurrentPathUTF8() const {
  return _state->current ? _state->path.c_str() : nullptr;
}
size_t NUVSysDirectoryWalker::GetCurrentPathLength() const { return _state->current ? _state->path.size() : 0; }
const char* NUVSysDirectoryWalker::GetCurrentName() const {
  return _state->current ? _state->path.c_str() + _state->nameOffset : nullptr;
}
int NUVSysDirectoryWalker::GetDepth() const {
  return _state->current ? static_cast<int>(_state->stack.size()) : 0;
}
bool NUVSysDirectoryWalker::IsDirectory() const { return _state->current && _state->isDir; }
bool NUVSysDirectoryWalker::IsSymbolicLink() const { return _state->current && _state->isLink; }
NUVSysPath NUVSysDirectoryWalker::GetCurrentPath() const {
  return _state->current ? NUVSysPath(_state->path.c_str()) : NUVSysPath();
}
long NUVSysDirectoryWalker::GetSkippedCount() const { return _state->skipped; }
int NUVSysDirectoryWalker::GetLastSkippedError() const { return _state->lastSkippedError; }
