// KELMutex.h - the library's mutex handle, the process-wide global mutex and
// once-only creation of a lock into a caller's static pointer.
//
// A KELMutex is a handle of one pointer onto a platform mutex. It is either
// made at once (recursive or not, optionally locked at creation) or deferred:
// a deferred mutex makes its platform mutex on the first Lock or TryLock, under
// KELMutex::_mutexGlobal so that two threads racing for the first lock share
// one, and that mutex is always recursive whatever the constructor said.
//
// Threads: Lock, Unlock and TryLock may be called from any thread. Destroying a
// mutex that another thread still uses is the caller's error.
// Failure: results are the platform's (0 for success); nothing throws except
// std::bad_alloc when a platform mutex cannot be allocated.
//
// Debug mode: when the thread-debug flag (KELThreads.h) was on as the first
// platform mutex of the process was made, Lock sets the KELThreads::
// BlockedOnMutex bit of the calling thread's record (if it has one) while it
// waits, so that a thread lister can tell which threads are blocked.
#ifndef KELMUTEX_H
#define KELMUTEX_H

#include <atomic>

#include "SystemTSCommon.h"

class KELMutexRealData;

class SYSTEMTS_API KELMutex {
 public:
  // Flags in order: lock at creation, recursive, deferred. A deferred mutex
  // is never locked at creation.
  KELMutex(int lockAtCreation, int recursive, int deferred);
  // Destroys the platform mutex, if one was made. It must not be locked.
  ~KELMutex();

  KELMutex(const KELMutex&) = delete;
  KELMutex& operator=(const KELMutex&) = delete;

  // Makes the platform mutex if missing, then locks it. Returns the platform
  // result, 0 on success.
  int Lock();
  // Unlocks. A mutex that was never made (deferred, never locked) is left
  // alone and 0 is returned.
  int Unlock();
  // Makes the platform mutex if missing, then tries to lock it without
  // waiting. Note the sense: returns 0 when the lock was taken and 1 when it
  // was not (held by another thread, or any other failure).
  int TryLock();

  // Makes the platform mutex if it does not exist yet. useGlobal non-zero
  // takes _mutexGlobal around the check and the creation; recursive non-zero
  // makes a recursive mutex.
  void _Initialize(int useGlobal, int recursive);

  // Guards the lazy creation of every other KELMutex. Recursive, made during
  // library start-up, not locked. Never held while user code runs.
  static KELMutex _mutexGlobal;
  // KELMutex::Lock, Unlock and TryLock. The global-mutex functions call
  // through these.
  static int (KELMutex::*LockF)();
  static int (KELMutex::*UnlockF)();
  static int (KELMutex::*TryLockF)();

 private:
  KELMutexRealData* impl() const { return _impl.load(std::memory_order_acquire); }
  // The platform mutex, made first (recursive, under _mutexGlobal) when it
  // is missing, as Lock and TryLock need it; null if it still is not there.
  SYSTEMTS_HIDDEN KELMutexRealData* made();

  std::atomic<KELMutexRealData*> _impl;
};

// Scoped lock of a KELMutex: locks on construction, unlocks on destruction.
class KELMutexGuard {
 public:
  explicit KELMutexGuard(KELMutex& m) : _m(m) { _m.Lock(); }
  ~KELMutexGuard() { _m.Unlock(); }
  KELMutexGuard(const KELMutexGuard&) = delete;
  KELMutexGuard& operator=(const KELMutexGuard&) = delete;

 private:
  KELMutex& _m;
};

// The process-wide global mutex: a recursive KELMutex made on the first call
// (thread-safe) and never freed by this function.
SYSTEMTS_API KELMutex* GetMyGlobalMutex();

// Operates the global mutex. `name` must be null and `flags` 0, else -1.
// op 1: lock; returns 1 (or -1 if the mutex was destroyed meanwhile).
// op 2: unlock; returns 0. As the very first call of the process it fetches
//       the mutex, unlocks nothing and returns 0.
// op 8: lock, then destroy and free the global mutex; returns 0. For process
//       shut-down only: GetMyGlobalMutex keeps handing back the freed object.
// Any other op: -1.
SYSTEMTS_API int KELSysMTGlobalMutex(int op, const char* name, int flags);

// Creates a recursive KELMutex (lockAtCreation 0, recursive 1, deferred 0)
// into `ref`. Mode 0: always, overwriting `ref` (an old object is not freed).
// Mode 1: only while `ref` is null, exactly once however many threads race
// (double test under the global mutex; the pointer is published only after
// the object is fully built). Any other mode: nothing.
// Ownership: the caller owns the object (usually a static that lives for the
// process).
SYSTEMTS_API void NUVCreateMutex(KELMutex*& ref, unsigned int mode);

// A full memory fence (loads and stores), nothing else.
SYSTEMTS_API void NUVMemoryBarrier();

#endif  // KELMUTEX_H
