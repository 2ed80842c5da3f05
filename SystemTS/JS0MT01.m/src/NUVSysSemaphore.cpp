// NUVSysSemaphore: creation, the base class's n-unit operations, and the two
// kinds (see NUVSysSemaphoreImpl.h for how the plain kind counts).
#include "NUVSysSemaphore.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <new>

#include "LockInternal.h"
#include "NUVSysSemaphoreImpl.h"
#include "SysCalls.h"

namespace {

constexpr int32_t kLargestMax = 0x7fffffff;

int errnoResult() { return SystemTSResultFromErrno(errno); }

// The real-time clock now plus `ms`, as an absolute deadline for
// sem_timedwait. 0 or the error code of errno.
int deadlineAfter(int ms, timespec& deadline) {
  timespec now;
  if (systemts::detail::g_sys.clockGetTime(CLOCK_REALTIME, &now) != 0) return errnoResult();
  const int64_t total = (static_cast<int64_t>(now.tv_sec) * 1000 + ms) * 1000000 + now.tv_nsec;
  deadline.tv_sec = static_cast<time_t>(total / 1000000000);
  deadline.tv_nsec = static_cast<long>(total % 1000000000);
  return 0;
}

}  // namespace

// ---- NUVSysSemaphore ----

NUVSysSemaphore::~NUVSysSemaphore() = default;

NUVSysSemaphore* NUVSysSemaphore::NUVSysCreateSemaphore(int maxCount, int initialCount, char kind) {
  if (initialCount < 0 || maxCount < -1 || (maxCount >= 0 && initialCount > maxCount)) return nullptr;
  const int max = maxCount == -1 ? kLargestMax : maxCount;
  switch (kind) {
    case systemts::detail::kPlainSemaphore: {
      auto* s = new (std::nothrow) NUVSysSemaphoreImpl(max, initialCount);
      if (s != nullptr && !s->initialised()) {
        delete s;
        return nullptr;
      }
      return s;
    }
    case systemts::detail::kCountingSemaphore:
      return new (std::nothrow) NUVSysSemaphoreVarCntImpl(max, initialCount);
    default:
      return nullptr;
  }
}

int NUVSysSemaphore::IncreaseCount(int n, int partial) {
  if (n < 0) return E_INVALIDARG;
  for (int added = 0; added < n; ++added) {
    const int rc = Signal();
    if (rc == 0) continue;
    if (rc != E_FAIL) return rc;  // the wake-up failed
    // At the maximum.
    if (partial != 0) return 1;
    while (added > 0 && TimedWait(0) == 0) --added;
    return E_FAIL;
  }
  return 0;
}

int NUVSysSemaphore::DecreaseCount(int n) {
  if (n < 0) return E_INVALIDARG;
  for (int i = 0; i < n; ++i) {
    if (const int rc = Wait(); rc != 0) return rc;
  }
  return 0;
}

// ---- SemaphoreCore, the plain kind ----

namespace systemts::detail {

bool SemaphoreCore::init(int32_t maxCount, int32_t initialCount, int32_t spinTries) {
  _currentCount.store(initialCount, std::memory_order_relaxed);
  _maxCount = maxCount;
  _spinTries = spinTries;
  // The POSIX count stays 0 but for hand-offs to sleeping threads.
  if (g_sys.semInit(&_sem, 0, 0) == 0) _initialised = 1;
  return _initialised != 0;
}

SemaphoreCore::~SemaphoreCore() {
  if (_initialised != 0) sem_destroy(&_sem);
}

bool SemaphoreCore::tryTake() {
  int32_t c = _currentCount.load(std::memory_order_relaxed);
  while (c > 0) {
    if (_currentCount.compare_exchange_weak(c, c - 1, std::memory_order_acquire, std::memory_order_relaxed)) {
      return true;
    }
  }
  return false;
}

bool SemaphoreCore::spinTake() {
  for (int32_t i = 0; i < _spinTries; ++i) {
    if (tryTake()) return true;
    cpuRelax();
  }
  return false;
}

int SemaphoreCore::sleepForUnit(const timespec* deadline) {
  for (;;) {
    const int rc = deadline != nullptr ? g_sys.semTimedWait(&_sem, deadline) : g_sys.semWait(&_sem);
    if (rc == 0) return 0;  // a Signal handed us its unit
    const int e = errno;
    if (e == EINTR) continue;  // a signal handler ran: same deadline, wait on
    // Timed out (or failed): count ourselves out again while no unit has been
    // handed to us.
    int32_t c = _currentCount.load(std::memory_order_relaxed);
    while (c < 0) {
      if (_currentCount.compare_exchange_weak(c, c + 1, std::memory_order_relaxed)) {
        return e == ETIMEDOUT ? 1 : SystemTSResultFromErrno(e);
      }
    }
    // Too late: a Signal counted us in and handed us a unit; its post is on
    // the way or already there. Take it, so that no stale post is left.
    while (g_sys.semWait(&_sem) != 0) {
      if (errno != EINTR) return errnoResult();
    }
    return 0;
  }
}

int SemaphoreCore::wait() {
  if (spinTake()) return 0;
  // Count ourselves in as a sleeper; a unit that arrived meanwhile is ours.
  if (_currentCount.fetch_sub(1, std::memory_order_acquire) > 0) return 0;
  return sleepForUnit(nullptr);
}

int SemaphoreCore::timedWait(int milliseconds) {
  if (milliseconds == -1) return wait();
  if (milliseconds < -1) return E_INVALIDARG;
  if (tryTake()) return 0;
  if (milliseconds == 0) return 1;
  timespec deadline;
  if (const int rc = deadlineAfter(milliseconds, deadline); rc != 0) return rc;
  if (spinTake()) return 0;
  if (_currentCount.fetch_sub(1, std::memory_order_acquire) > 0) return 0;
  return sleepForUnit(&deadline);
}

int SemaphoreCore::signal() {
  int32_t c = _currentCount.load(std::memory_order_relaxed);
  do {
    // A negative count means sleepers and no unit: the unit goes to one of
    // them. The maximum bounds the units, so a semaphore of maximum 0 stays
    // at 0 even with sleepers.
    if ((c > 0 ? c : 0) >= _maxCount) return E_FAIL;
  } while (!_currentCount.compare_exchange_weak(c, c + 1, std::memory_order_release, std::memory_order_relaxed));
  if (c < 0 && g_sys.semPost(&_sem) != 0) {
    // The sleeper cannot be woken: take the unit back, so that the count
    // still says one thread sleeps without a unit (a later Signal wakes it).
    const int rc = errnoResult();
    _currentCount.fetch_sub(1, std::memory_order_relaxed);
    return rc;
  }
  return 0;
}

}  // namespace systemts::detail

// ---- NUVSysSemaphoreVarCntImpl ----

NUVSysSemaphoreVarCntImpl::NUVSysSemaphoreVarCntImpl(int maxCount, int initialCount)
    : _currentCount(initialCount), _maxCount(maxCount) {}

NUVSysSemaphoreVarCntImpl::~NUVSysSemaphoreVarCntImpl() = default;

int NUVSysSemaphoreVarCntImpl::take(int n, int milliseconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds > 0 ? milliseconds : 0);
  const auto enough = [this, n] { return _currentCount.load(std::memory_order_relaxed) >= n; };
  std::unique_lock<std::mutex> lock(_mutex);
  if (!enough()) {
    if (milliseconds == 0) return 1;
    ++_waiters;
    bool taken = true;
    if (milliseconds < 0) {
      _cond.wait(lock, enough);
    } else {
      taken = _cond.wait_until(lock, deadline, enough);
    }
    --_waiters;
    if (!taken) return 1;
  }
  _currentCount.store(_currentCount.load(std::memory_order_relaxed) - n, std::memory_order_relaxed);
  return 0;
}

int NUVSysSemaphoreVarCntImpl::Wait() { return take(1, -1); }

int NUVSysSemaphoreVarCntImpl::TimedWait(int milliseconds) {
  if (milliseconds < -1) return E_INVALIDARG;
  return take(1, milliseconds);
}

int NUVSysSemaphoreVarCntImpl::Signal() { return IncreaseCount(1, 0); }

int NUVSysSemaphoreVarCntImpl::GetMaxCount(int& n) const {
  n = _maxCount;
  return 0;
}

int NUVSysSemaphoreVarCntImpl::IncreaseCount(int n, int partial) {
  if (n < 0) return E_INVALIDARG;
  int rc = 0;
  bool wake = false;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    const int32_t count = _currentCount.load(std::memory_order_relaxed);
    int32_t add = n;
    if (add > _maxCount - count) {
      if (partial == 0) return E_FAIL;
      add = _maxCount - count;
      rc = 1;
    }
    _currentCount.store(count + add, std::memory_order_relaxed);
    wake = add > 0 && _waiters > 0;
  }
  // Waiters may want different numbers of units: let each of them look.
  if (wake) _cond.notify_all();
  return rc;
}

int NUVSysSemaphoreVarCntImpl::DecreaseCount(int n) {
  if (n < 0 || n > _maxCount) return E_INVALIDARG;
  if (n == 0) return 0;
  return take(n, -1);
}

int NUVSysSemaphoreVarCntImpl::GetCurrentCount(int& n) const {
  n = _currentCount.load(std::memory_order_relaxed);
  return 0;
}
