// NUVSysSemaphoreImpl.h - the two kinds of NUVSysSemaphore (private).
#ifndef NUVSYSSEMAPHOREIMPL_H
#define NUVSYSSEMAPHOREIMPL_H

#include <semaphore.h>

#include <atomic>
#include <cstddef>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "NUVSysSemaphore.h"

namespace systemts::detail {

// Tells the processor that the caller spins, so that it yields resources to
// the other hardware thread of its core and saves power.
inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield" ::: "memory");
#endif
}

// The plain kind (0), as a class of its own without virtual calls: the
// semaphore below holds one, and so does the queue (NUVSysTSDataQueue.cpp),
// which places its words where its layout needs them.
//
// The count is kept in `_currentCount` and nowhere else; the POSIX semaphore
// only puts threads to sleep and wakes them. A negative `_currentCount` is
// minus the number of threads that found no unit and are asleep or about to
// sleep on `_sem`:
//   - a waiter takes a unit with a compare-and-swap while the count is
//     positive, spinning a little before it gives up; then it subtracts one
//     anyway, and if no unit was there it sleeps in sem_wait;
//   - Signal adds one (never past the maximum) and posts `_sem` only when the
//     count was negative, that is when a thread sleeps or is about to: the
//     unit is then handed to that thread, which owns it when it wakes;
//   - a timed waiter whose deadline passes adds its one back while the count
//     is still negative; if the count is no longer negative a Signal already
//     handed it a unit, and it takes the matching post and returns 0.
// So posts always equal hand-offs, `_sem` never holds stale posts, and a
// Signal with nobody waiting is one atomic operation and no system call.
//
// A waiter that finds no unit retries `spinTries` times before it sleeps.
class SemaphoreCore {
 public:
  // Not usable until init succeeded.
  SemaphoreCore() = default;
  ~SemaphoreCore();
  SemaphoreCore(const SemaphoreCore&) = delete;
  SemaphoreCore& operator=(const SemaphoreCore&) = delete;

  // Sets the counts and initialises the POSIX semaphore; false when that
  // failed, and the core must then not be used.
  bool init(int32_t maxCount, int32_t initialCount, int32_t spinTries);
  bool initialised() const { return _initialised != 0; }

  // As NUVSysSemaphore's Wait, TimedWait and Signal.
  int wait();
  int timedWait(int milliseconds);
  int signal();
  int32_t maxCount() const { return _maxCount; }
  int32_t currentCount() const {
    const int32_t c = _currentCount.load(std::memory_order_relaxed);
    return c > 0 ? c : 0;
  }

  // Byte offsets of the count and of the POSIX semaphore in the object, for
  // layouts that place them.
  static constexpr size_t countOffset();
  static constexpr size_t semOffset();

 private:
  // Takes a unit if one is there, without waiting.
  bool tryTake();
  // tryTake, retried for a short while before a caller goes to sleep.
  bool spinTake();
  // Sleeps until a unit is handed over, or until `deadline` (real-time
  // clock) when it is not null. Called after the waiter counted itself in.
  int sleepForUnit(const struct timespec* deadline);

  sem_t _sem;
  int32_t _initialised = 0;
  std::atomic<int32_t> _currentCount{0};
  int32_t _maxCount = 0;
  int32_t _spinTries = 0;
};

constexpr size_t SemaphoreCore::countOffset() { return offsetof(SemaphoreCore, _currentCount); }
constexpr size_t SemaphoreCore::semOffset() { return offsetof(SemaphoreCore, _sem); }

}  // namespace systemts::detail

class NUVSysSemaphoreImpl final : public NUVSysSemaphore {
 public:
  // A hand-off between two running threads takes well under a microsecond, a
  // sleep and wake-up several; this spin lasts a few microseconds at most.
  static constexpr int32_t kDefaultSpinTries = 128;

  NUVSysSemaphoreImpl(int maxCount, int initialCount, int32_t spinTries = kDefaultSpinTries) {
    _core.init(maxCount, initialCount, spinTries);
  }

  // True when the POSIX semaphore was initialised; a semaphore that is not
  // must not be used.
  bool initialised() const { return _core.initialised(); }

  int Wait() override { return _core.wait(); }
  int TimedWait(int milliseconds) override { return _core.timedWait(milliseconds); }
  int Signal() override { return _core.signal(); }
  int GetMaxCount(int& n) const override {
    n = _core.maxCount();
    return 0;
  }
  int GetCurrentCount(int& n) const override {
    n = _core.currentCount();
    return 0;
  }

 private:
  systemts::detail::SemaphoreCore _core;
};

// The variable-count kind (1): the count under a mutex, waiters on a
// condition variable, timed waits on the monotonic clock.
class NUVSysSemaphoreVarCntImpl final : public NUVSysSemaphore {
 public:
  NUVSysSemaphoreVarCntImpl(int maxCount, int initialCount);
  ~NUVSysSemaphoreVarCntImpl() override;

  int Wait() override;
  int TimedWait(int milliseconds) override;
  int Signal() override;
  int GetMaxCount(int& n) const override;
  int IncreaseCount(int n, int partial) override;
  int DecreaseCount(int n) override;
  int GetCurrentCount(int& n) const override;

 private:
  // Takes n units; milliseconds < 0 waits without limit. 0 or 1 (timed out).
  int take(int n, int milliseconds);

  std::mutex _mutex;
  std::condition_variable _cond;
  std::atomic<int32_t> _currentCount;  // written under _mutex, read anywhere
  const int32_t _maxCount;
  int32_t _waiters = 0;                // threads in _cond.wait; under _mutex
};

#endif  // NUVSYSSEMAPHOREIMPL_H
