// LockInternal.h - typed calls the library makes on its own locks.
//
// The exported lock interface keeps its legacy shape (op codes for the global
// mutex, integer flags for creation modes and mutex kinds); the library's own
// code says what it means through these instead.
#ifndef SYSTEMTS_LOCKINTERNAL_H
#define SYSTEMTS_LOCKINTERNAL_H

#include "KELMutex.h"
#include "KELResourceLock.h"

namespace systemts::detail {

// The process's global mutex, the one KELSysMTGlobalMutex serves. Recursive.
// lockGlobalMutex returns false only when the mutex is gone or was destroyed
// while the caller waited for it (KELSysMTGlobalMutex(8, ...), at process
// end); the caller must then not unlock.
bool lockGlobalMutex();
void unlockGlobalMutex();

// Holds the global mutex for a scope.
class GlobalMutexLock {
 public:
  GlobalMutexLock() : _held(lockGlobalMutex()) {}
  ~GlobalMutexLock() {
    if (_held) unlockGlobalMutex();
  }
  GlobalMutexLock(const GlobalMutexLock&) = delete;
  GlobalMutexLock& operator=(const GlobalMutexLock&) = delete;

 private:
  bool _held;
};

// A new recursive mutex, unlocked, its platform mutex made at once.
KELMutex* newRecursiveMutex();
// A new read/write lock (the exported constructor's kind is ignored).
KELResourceLock* newResourceLock();

// The kinds NUVSysSemaphore::NUVSysCreateSemaphore takes.
enum SemaphoreKind : char { kPlainSemaphore = 0, kCountingSemaphore = 1 };

// Creates the shared lock into `ref` once, however many threads race to
// (NUVCreateMutex / NUVCreateResourceLock in mode 1: checked under the global
// mutex). Keeps an existing lock.
void createSharedMutex(KELMutex*& ref);
void createSharedResourceLock(KELResourceLock*& ref);

}  // namespace systemts::detail

#endif  // SYSTEMTS_LOCKINTERNAL_H
