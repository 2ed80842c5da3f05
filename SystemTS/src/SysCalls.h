// SysCalls.h - the library's one table of fallible calls to the operating
// system and the C library.
//
// Every call that can fail (iconv, locales, thread keys, semaphores, the
// clock, files, directories, the dynamic loader, and the allocations whose
// failure has a documented result) goes through `g_sys`, never straight to
// the C library. A test replaces one entry to make that call fail with a
// chosen errno on a chosen call, and so reaches every failure branch
// deterministically; it puts the default back from `kDefaultSysCalls`.
//
// Cost: an entry is a pointer in a hidden global of the library, so a call
// through it is one load and an indirect call, the same as a call through the
// PLT; the conversion loops call iconv this way.
//
// The table is constant-initialised (no constructor runs), so it is usable
// from any static initialiser of the library. Tests change entries only while
// no other thread calls through them, or install hooks that are themselves
// thread-safe (tests/support/FaultInjection.h).
//
// Nothing here is exported: tests reach the table by linking the library's
// objects directly.
#ifndef SYSTEMTS_SYSCALLS_H
#define SYSTEMTS_SYSCALLS_H

#include <dirent.h>
#include <iconv.h>
#include <locale.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <utime.h>

#include <cerrno>
#include <cstddef>

namespace systemts::detail {

struct SysCalls {
  // Code-page conversion.
  iconv_t (*iconvOpen)(const char* to, const char* from);
  size_t (*iconv)(iconv_t, char** in, size_t* inLeft, char** out, size_t* outLeft);
  int (*iconvClose)(iconv_t);

  // Locales.
  locale_t (*newLocale)(int mask, const char* name, locale_t base);
  locale_t (*dupLocale)(locale_t);
  locale_t (*useLocale)(locale_t);
  void (*freeLocale)(locale_t);
  char* (*setLocale)(int category, const char* name);

  // Threads and synchronisation. The pthread entries return an error number
  // (they do not set errno); the semaphore and clock entries return -1 and
  // set errno.
  int (*keyCreate)(pthread_key_t*, void (*destructor)(void*));
  int (*setSpecific)(pthread_key_t, const void*);
  int (*semInit)(sem_t*, int shared, unsigned value);
  int (*semWait)(sem_t*);
  int (*semTimedWait)(sem_t*, const struct timespec*);
  int (*semTryWait)(sem_t*);
  int (*semPost)(sem_t*);
  int (*clockGetTime)(clockid_t, struct timespec*);

  // Memory, where a failure has a documented result.
  void* (*malloc)(size_t);
  void* (*calloc)(size_t, size_t);
  void* (*realloc)(void*, size_t);
  void* (*alignedAlloc)(size_t alignment, size_t size);

  // Files.
  int (*open)(const char* path, int flags, mode_t mode);
  ssize_t (*read)(int fd, void* buf, size_t n);
  ssize_t (*write)(int fd, const void* buf, size_t n);
  int (*close)(int fd);
  int (*fsync)(int fd);
  int (*stat64)(const char* path, struct stat64* st);
  int (*lstat64)(const char* path, struct stat64* st);
  int (*access)(const char* path, int mode);
  char* (*getcwd)(char* buf, size_t size);
  int (*utime)(const char* path, const struct utimbuf* times);
  int (*unlink)(const char* path);
  int (*rmdir)(const char* path);
  int (*mkdir)(const char* path, mode_t mode);
  int (*rename)(const char* from, const char* to);
  int (*chmod)(const char* path, mode_t mode);
  int (*mkstemp)(char* pattern);
  // Fills the XXXXXX of `pattern` with a name no file has now; the name can be
  // taken by another process before it is used (mkstemp creates the file).
  char* (*mktemp)(char* pattern);

  // Directories.
  DIR* (*opendir)(const char* path);
  struct dirent* (*readdir)(DIR*);
  int (*closedir)(DIR*);

  // The dynamic loader.
  void* (*dlopen)(const char* file, int mode);
  void* (*dlsym)(void* handle, const char* name);
  int (*dlclose)(void* handle);
  char* (*dlerror)();
};

// The live table. Hidden: only the library's own code and the tests that
// link its objects see it.
extern SysCalls g_sys;

// The C library's functions, for restoring entries.
extern const SysCalls kDefaultSysCalls;

// Runs `call` again while it fails with EINTR (calls that return -1 and set
// errno).
template <class F>
auto RetryAfterSignal(F call) -> decltype(call()) {
  decltype(call()) rc;
  do {
    rc = call();
  } while (rc == -1 && errno == EINTR);
  return rc;
}

}  // namespace systemts::detail

#endif  // SYSTEMTS_SYSCALLS_H
