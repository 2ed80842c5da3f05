// KELResourceLock.h - the library's readers/writer lock.
//
// Any number of readers may hold the lock together; a writer holds it alone.
// Built from a recursive KELMutex and a manual-reset KELWaitingPoint: readers
// take the mutex only to count themselves in and out, and a writer keeps the
// mutex for its whole write section, so readers and other writers queue on it
// while a writer is inside.
//
// Policy:
// - No writer preference. A writer waiting for readers to leave does not hold
//   the mutex, so new readers keep entering: under a steady stream of readers
//   a writer can wait indefinitely.
// - The writer may nest: the thread holding the write lock may take and
//   release read locks inside it, and may take the write lock again; each
//   WriteLock is matched by a WriteUnlock.
// - The other order deadlocks: a thread that holds a read lock and asks for
//   the write lock waits for ever, because its own read lock keeps the reader
//   count above zero. Release the read lock first.
//
// Threads: any thread may call any operation; unlocking a lock the calling
// thread does not hold is the caller's error. Operations on an object whose
// implementation is missing do nothing.
//
// Debug mode (thread-debug flag on, see KELThreads.h): each operation passes
// its event lines ("evt=readW | m=0x%x \n" and so on, with the lock's address)
// to thread_trace, and, when the calling thread has a KELThreads record, keeps
// its counter of lock operations under way: ReadLock, WriteLock and
// WriteUnlock add 1 before and take it back after; ReadUnlock adds 1 before
// and 1 after, so the counter drifts up by 2 on every read unlock. That drift
// is kept on purpose: existing thread listers expect it.
#ifndef KELRESOURCELOCK_H
#define KELRESOURCELOCK_H

#include "SystemTSCommon.h"

class KELResourceLockImplItf;

class SYSTEMTS_API KELResourceLock {
 public:
  // The argument is accepted and ignored: every lock behaves alike.
  explicit KELResourceLock(unsigned char kind);
  ~KELResourceLock();
  KELResourceLock(const KELResourceLock&) = delete;
  KELResourceLock& operator=(const KELResourceLock&) = delete;

  void ReadLock();
  void ReadUnlock();
  void WriteLock();
  void WriteUnlock();

 private:
  KELResourceLockImplItf* _impl;
};

// Scoped read lock: ReadLock on construction, ReadUnlock on destruction.
class KELReadLockGuard {
 public:
  explicit KELReadLockGuard(KELResourceLock& l) : _l(l) { _l.ReadLock(); }
  ~KELReadLockGuard() { _l.ReadUnlock(); }
  KELReadLockGuard(const KELReadLockGuard&) = delete;
  KELReadLockGuard& operator=(const KELReadLockGuard&) = delete;

 private:
  KELResourceLock& _l;
};

// Scoped write lock: WriteLock on construction, WriteUnlock on destruction.
class KELWriteLockGuard {
 public:
  explicit KELWriteLockGuard(KELResourceLock& l) : _l(l) { _l.WriteLock(); }
  ~KELWriteLockGuard() { _l.WriteUnlock(); }
  KELWriteLockGuard(const KELWriteLockGuard&) = delete;
  KELWriteLockGuard& operator=(const KELWriteLockGuard&) = delete;

 private:
  KELResourceLock& _l;
};

// Creates a KELResourceLock(1) into `ref` by the rules of NUVCreateMutex
// (KELMutex.h): mode 0 always, mode 1 exactly once while `ref` is null, any
// other mode nothing. The caller owns the object.
SYSTEMTS_API void NUVCreateResourceLock(KELResourceLock*& ref, unsigned int mode);

#endif  // KELRESOURCELOCK_H
