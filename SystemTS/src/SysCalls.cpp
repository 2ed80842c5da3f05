// The table of OS calls, filled with the C library's functions.
#include "SysCalls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace systemts::detail {

namespace {
// open is variadic; the table takes the mode always.
int openFile(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }

// The C library's mktemp, found at run time: naming ::mktemp here would make
// the linker warn that it is dangerous in every link of the library and of
// the test programs. Callers that keep the name-only form know that a name
// can be taken before they open it (NUVSysPath::GetTempFilePath says so).
char* makeTempName(char* pattern) {
  using Fn = char* (*)(char*);
  static const Fn fn = reinterpret_cast<Fn>(::dlsym(RTLD_DEFAULT, "mktemp"));
  if (fn == nullptr) {
    errno = ENOSYS;
    if (pattern != nullptr) pattern[0] = '\0';
    return pattern;
  }
  return fn(pattern);
}
}  // namespace

#define SYSTEMTS_SYSCALLS_DEFAULTS                                                                \
  {                                                                                               \
    ::iconv_open, ::iconv, ::iconv_close,                                                         \
    ::newlocale, ::duplocale, ::uselocale, ::freelocale, ::setlocale,                             \
    ::pthread_key_create, ::pthread_setspecific,                                                  \
    ::sem_init, ::sem_wait, ::sem_timedwait, ::sem_trywait, ::sem_post, ::clock_gettime,          \
    ::malloc, ::calloc, ::realloc, ::aligned_alloc,                                               \
    openFile, ::read, ::write, ::close, ::fsync, ::stat64, ::lstat64, ::access, ::getcwd,         \
    ::utime, ::unlink, ::rmdir, ::mkdir, ::rename, ::chmod, ::mkstemp,                            \
    makeTempName,                                                                                 \
    ::opendir, ::readdir, ::closedir,                                                             \
    ::dlopen, ::dlsym, ::dlclose, ::dlerror,                                                      \
  }

const SysCalls kDefaultSysCalls = SYSTEMTS_SYSCALLS_DEFAULTS;
SysCalls g_sys = SYSTEMTS_SYSCALLS_DEFAULTS;

#undef SYSTEMTS_SYSCALLS_DEFAULTS

}  // namespace systemts::detail
