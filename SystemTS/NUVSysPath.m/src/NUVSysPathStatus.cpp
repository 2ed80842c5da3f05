// The path's questions to the file system and its changes to it. Every call
// goes through the library's table of OS calls.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "NUVSysPath.h"
#include "NUVSysPathImpl.h"
#include "SysCalls.h"

using systemts::detail::g_sys;
using systemts::detail::RetryAfterSignal;

namespace {

int lastError() {
  const int e = errno;
  return e > 0 ? NUVConvertError(e, 7) : E_FAIL;
}

// Removes everything below the directory `path` (its text, which this
// function extends and restores), then the directory. Symbolic links are
// unlinked, never entered: an entry counts as a directory only when lstat
// (or readdir's d_type) says so, so the walk stays inside the tree.
int removeTree(std::string& path) {
  DIR* dir = g_sys.opendir(path.c_str());
  if (dir == nullptr) return lastError();
  const size_t base = path.size();
  int rc = 0;
  for (;;) {
    errno = 0;
    struct dirent* e = g_sys.readdir(dir);
    if (e == nullptr) {
      if (errno != 0) rc = lastError();
      break;
    }
    const char* name = e->d_name;
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
    path.resize(base);
    path += '/';
    path += name;
    bool isDir = e->d_type == DT_DIR;
    if (e->d_type == DT_UNKNOWN) {
      struct stat64 st;
      if (g_sys.lstat64(path.c_str(), &st) != 0) {
        rc = lastError();
        break;
      }
      isDir = S_ISDIR(st.st_mode);
    }
    rc = isDir ? removeTree(path) : (g_sys.unlink(path.c_str()) == 0 ? 0 : lastError());
    if (rc != 0) break;
  }
  g_sys.closedir(dir);
  path.resize(base);
  if (rc != 0) return rc;
  return g_sys.rmdir(path.c_str()) == 0 ? 0 : lastError();
}

}  // namespace

int NUVSysPathImpl::refreshStat(int refresh) {
  const char* p = fsPath();
  if (p == nullptr) return E_FAIL;
  if (_data.statValid && refresh == 0) return 0;
  _data.statValid = false;
  if (g_sys.stat64(p, &_data.statCache) != 0) return lastError();
  _data.statValid = true;
  return 0;
}

bool NUVSysPathImpl::canRead(int) {
  if (_data.flags & (kHttp | kHttps)) return Initialize() == 0;
  const char* p = fsPath();
  if (p == nullptr) return false;
  return g_sys.access(p, R_OK) == 0;
}

bool NUVSysPathImpl::canWrite(int) {
  const char* p = fsPath();
  if (p == nullptr) return false;
  return g_sys.access(p, W_OK) == 0;
}

bool NUVSysPathImpl::isFile(int refresh) {
  return refreshStat(refresh) == 0 && S_ISREG(_data.statCache.st_mode);
}

bool NUVSysPathImpl::isDirectory(int refresh) {
  return refreshStat(refresh) == 0 && S_ISDIR(_data.statCache.st_mode);
}

bool NUVSysPathImpl::exists(int refresh) { return refreshStat(refresh) == 0; }

int NUVSysPathImpl::removeFile() {
  if (!isFile(1)) return E_FAIL;
  _data.statValid = false;
  return g_sys.unlink(fsPath()) == 0 ? 0 : lastError();
}

int NUVSysPathImpl::removeDirectory(int recursive) {
  const char* p = fsPath();
  if (p == nullptr) return E_FAIL;
  _data.statValid = false;
  if (recursive == 0) return g_sys.rmdir(p) == 0 ? 0 : lastError();
  std::string path(p);
  return removeTree(path);
}

int NUVSysPathImpl::createDirectory() {
  const char* p = fsPath();
  if (p == nullptr) return E_FAIL;
  _data.statValid = false;
  if (g_sys.mkdir(p, 0777) == 0) return 0;
  int err = errno;
  if (err == ENOENT) {
    // Make each missing parent, from the top down, then the directory.
    std::string path(p);
    for (size_t i = 1; i < path.size(); ++i) {
      if (path[i] != '/' || path[i - 1] == '/') continue;
      path[i] = '\0';
      if (g_sys.mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) {
        return lastError();
      }
      path[i] = '/';
    }
    if (g_sys.mkdir(p, 0777) == 0) return 0;
    err = errno;
  }
  if (err == EEXIST && isDirectory(1)) return 0;
  return err > 0 ? NUVConvertError(err, 7) : E_FAIL;
}

// ---- NUVSysPath's forwarding of the status operations ----

int NUVSysPath::GetTimes(time_t& access, time_t& modification) const {
  if (_impl == nullptr) return E_FAIL;
  const int rc = _impl->refreshStat(1);
  if (rc != 0) return rc;
  access = _impl->data().statCache.st_atime;
  modification = _impl->data().statCache.st_mtime;
  return 0;
}

int NUVSysPath::SetTimes(time_t access, time_t modification) {
  const char* p = _impl ? _impl->fsPath() : nullptr;
  if (p == nullptr) return E_FAIL;
  _impl->data().statValid = false;
  struct utimbuf times {};
  times.actime = access;
  times.modtime = modification;
  return g_sys.utime(p, &times) == 0 ? 0 : lastError();
}

int NUVSysPath::Stat(struct stat64& status, int refresh) const {
  if (_impl == nullptr) return E_FAIL;
  const int rc = _impl->refreshStat(refresh);
  if (rc == 0) status = _impl->data().statCache;
  return rc;
}

bool NUVSysPath::CanRead(int refresh) const { return _impl && _impl->canRead(refresh); }
bool NUVSysPath::CanWrite(int refresh) const { return _impl && _impl->canWrite(refresh); }
bool NUVSysPath::IsFile(int refresh) const { return _impl && _impl->isFile(refresh); }
bool NUVSysPath::IsDirectory(int refresh) const { return _impl && _impl->isDirectory(refresh); }
bool NUVSysPath::Exists(int refresh) const { return _impl && _impl->exists(refresh); }

int NUVSysPath::MakeDir() { return _impl ? _impl->createDirectory() : E_FAIL; }

int NUVSysPath::Remove(int recursive) {
  const char* p = _impl ? _impl->fsPath() : nullptr;
  if (p == nullptr) return E_FAIL;
  struct stat64 st;
  _impl->data().statValid = false;
  if (g_sys.lstat64(p, &st) != 0) return lastError();
  if (S_ISDIR(st.st_mode)) return _impl->removeDirectory(recursive);
  if (S_ISREG(st.st_mode)) return _impl->removeFile();
  return g_sys.unlink(p) == 0 ? 0 : lastError();  // a link, a pipe: the name only
}

int NUVSysPath::Chmod(int mode) {
  const char* p = _impl ? _impl->fsPath() : nullptr;
  if (p == nullptr) return E_FAIL;
  _impl->data().statValid = false;
  return g_sys.chmod(p, static_cast<mode_t>(mode)) == 0 ? 0 : lastError();
}

int NUVSysPath::Move(const NUVSysPath& destination) {
  const char* from = _impl ? _impl->fsPath() : nullptr;
  const char* to = destination._impl ? destination._impl->fsPath() : nullptr;
  if (from == nullptr || to == nullptr) return E_FAIL;
  _impl->data().statValid = false;
  return g_sys.rename(from, to) == 0 ? 0 : lastError();
}

namespace {
int makeTempName(NUVSysPath& result, const char* prefix, const NUVSysPath* directory, int* fd) {
  const char* dir = "/tmp";
  if (directory != nullptr) {
    dir = directory->GetImpl() ? directory->GetImpl()->fsPath() : nullptr;
    if (dir == nullptr) return E_FAIL;
  }
  std::string name(dir);
  if (name.empty() || name.back() != '/') name += '/';
  if (prefix != nullptr && std::strlen(dir) + std::strlen(prefix) <= 255) name += prefix;
  name += "_XXXXXX";
  errno = 0;
  if (fd != nullptr) {
    *fd = RetryAfterSignal([&] { return g_sys.mkstemp(name.data()); });
    if (*fd < 0) return lastError();
  } else {
    char* made = g_sys.mktemp(name.data());
    if (made == nullptr || name[0] == '\0') return lastError();
  }
  const int rc = result.Set(name.c_str());
  if (rc != 0 && fd != nullptr) {
    g_sys.unlink(name.c_str());
    g_sys.close(*fd);
    *fd = -1;
  }
  return rc;
}
}  // namespace

int NUVSysPath::GetTempFilePath(NUVSysPath& result, const char* prefix, const NUVSysPath* directory) {
  return makeTempName(result, prefix, directory, nullptr);
}

int NUVSysPath::CreateTempFile(NUVSysPath& result, int& fd, const char* prefix, const NUVSysPath* directory) {
  fd = -1;
  return makeTempName(result, prefix, directory, &fd);
}
