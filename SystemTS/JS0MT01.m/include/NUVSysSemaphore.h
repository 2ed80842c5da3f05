// NUVSysSemaphore.h - counting semaphores with a maximum count.
//
// A semaphore holds a count between 0 and its maximum. Wait takes one unit,
// blocking while the count is 0; Signal gives one back, and is refused when the
// count already equals the maximum, so a semaphore never rises above it.
//
// Two kinds, chosen at creation:
//   kind 0, the plain kind: one unit at a time. Waits that must sleep sleep on
//     a POSIX semaphore; the count itself is an atomic, so Signal makes no
//     system call when nobody waits, and a waiter spins briefly before it
//     sleeps. Timed waits run to a deadline on the real-time clock (a change
//     of the wall clock moves the deadline).
//   kind 1, the variable-count kind: the count may be raised and lowered by n
//     units at once (IncreaseCount, DecreaseCount). Built on a mutex and a
//     condition variable; timed waits run on the monotonic clock, so a change
//     of the wall clock neither stretches nor cuts them.
//
// Threads: every operation may be called from any thread at any time.
// Destroying a semaphore that a thread still waits on is the caller's error.
// Signal handlers: a wait interrupted by a signal handler goes on waiting (a
// timed wait to the same deadline); it never fails with EINTR.
// Failure: results, never exceptions. Error codes of the operating system are
// given as SystemTSResultFromErrno(errno) (SystemTSCommon.h).
#ifndef NUVSYSSEMAPHORE_H
#define NUVSYSSEMAPHORE_H

#include "SystemTSCommon.h"

class SYSTEMTS_API NUVSysSemaphore {
 public:
  // Creates a semaphore of `kind` (0 plain, 1 variable-count) with count
  // `initialCount` and maximum `maxCount`; a `maxCount` of -1 means 0x7fffffff.
  // Returns null when `initialCount` is negative, when `maxCount` is below -1,
  // when `maxCount` is not negative and `initialCount` exceeds it, for any
  // other kind, and when the semaphore cannot be allocated or initialised.
  // Note that a `maxCount` of 0 with `initialCount` 0 is accepted: that
  // semaphore can never be signalled.
  // Ownership: the caller deletes the semaphore.
  static NUVSysSemaphore* NUVSysCreateSemaphore(int maxCount, int initialCount, char kind);

  virtual ~NUVSysSemaphore();

  // Takes one unit, blocking without limit while the count is 0. Returns 0,
  // or the error code of errno when the wait itself fails.
  virtual int Wait() = 0;

  // Takes one unit, waiting at most `milliseconds`. -1 waits without limit
  // (Wait); 0 only tries and never sleeps. Returns 0 when a unit was taken,
  // 1 when the time ran out, 0x80070057 (E_INVALIDARG) for any other negative
  // value without waiting, or the error code of errno (the plain kind also
  // when the real-time clock cannot be read).
  virtual int TimedWait(int milliseconds) = 0;

  // Gives back one unit and wakes a waiter if there is one. Returns 0, or
  // 0x80004005 (E_FAIL) with the count unchanged when the count already
  // equals the maximum, or the error code of errno when waking fails (plain
  // kind: the POSIX semaphore refused the post); the count is then as before
  // the call and the waiter goes on sleeping until a later Signal.
  virtual int Signal() = 0;

  // n = the maximum count. Returns 0.
  virtual int GetMaxCount(int& n) const = 0;

  // Raises the count by `n` units under the maximum rule.
  // `partial`: 0 asks for all n or nothing; non-zero accepts as many as fit.
  // Returns 0 when all n were added (n 0 included); 1 when `partial` is
  // non-zero and fewer than n fitted (the count stopped at the maximum);
  // E_FAIL when `partial` is 0 and the n did not fit (nothing added);
  // E_INVALIDARG for a negative n; or the error code of a failed wake-up.
  // Plain kind: n Signals in a row. Other threads see the units arrive one by
  // one and may take them at once, so the all-or-nothing form is not atomic
  // there: on a refusal the units this call already added are taken back
  // without waiting, as many as are still there.
  // Variable-count kind: atomic, and it wakes every waiter that can now go on.
  virtual int IncreaseCount(int n, int partial);

  // Lowers the count by `n` units, blocking without limit until they are
  // there. Returns 0 (n 0 included), E_INVALIDARG for a negative n, or the
  // first failure of a wait.
  // Plain kind: n Waits in a row, each taking its unit as soon as it can; a
  // failure leaves taken the units already taken.
  // Variable-count kind: waits until all n are there and takes them at once,
  // so two callers never hold parts of each other's units. An n above the
  // maximum could never be met and gives E_INVALIDARG. Callers asking for
  // fewer units may overtake a caller waiting for many: there is no queue.
  virtual int DecreaseCount(int n);

  // n = the count of units that can be taken now (0 while threads wait).
  // Returns 0. The value may be stale by the time the caller reads it.
  virtual int GetCurrentCount(int& n) const = 0;

 protected:
  NUVSysSemaphore() = default;
  NUVSysSemaphore(const NUVSysSemaphore&) = delete;
  NUVSysSemaphore& operator=(const NUVSysSemaphore&) = delete;
};

#endif  // NUVSYSSEMAPHORE_H
