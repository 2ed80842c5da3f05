// KELWaitingPoint: an event on a mutex and a condition variable. For manual
// reset the signalled flag and the waiter count are atomics, so that
// Broadcast, Reset and a Wait on a signalled point never take the mutex; auto
// reset runs wholly under the mutex.
//
// The manual fast paths are safe by a store-then-load handshake, both sides
// sequentially consistent: Broadcast stores the flag and then reads the
// waiter count; a waiter raises the count (under the mutex) and then reads
// the flag. Whichever comes second sees the other: either the waiter sees
// the flag and returns, or Broadcast sees the waiter and wakes it under the
// mutex, which the waiter only releases inside the condition wait.
#include "KELWaitingPoint.h"

#include <chrono>

KELWaitingPoint::KELWaitingPoint(int autoReset, int initiallyNotSignalled)
    : _autoReset(autoReset != 0), _signalled(initiallyNotSignalled == 0 ? 1 : 0) {}

KELWaitingPoint::~KELWaitingPoint() = default;

int KELWaitingPoint::Broadcast() {
  if (_autoReset) {
    // One signal must wake exactly the waiters present, or else be left for
    // exactly one later Wait; the mutex keeps those two cases apart.
    {
      std::lock_guard<std::mutex> lock(_mutex);
      if (_waiters.load(std::memory_order_relaxed) == 0) {
        _signalled.store(1, std::memory_order_relaxed);
        return 0;
      }
      ++_generation;
      _signalled.store(0, std::memory_order_relaxed);
    }
    _cond.notify_all();
    return 0;
  }
  // Manual reset. Already signalled: whoever set the flag has woken (or is
  // waking) the waiters, and this Broadcast is ordered before any Reset still
  // to come.
  if (_signalled.load(std::memory_order_relaxed) != 0) return 0;
  _signalled.store(1, std::memory_order_seq_cst);
  if (_waiters.load(std::memory_order_seq_cst) == 0) return 0;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    ++_generation;
  }
  _cond.notify_all();
  return 0;
}

int KELWaitingPoint::Reset() {
  _signalled.store(0, std::memory_order_seq_cst);
  return 0;
}

int KELWaitingPoint::Wait(int milliseconds) {
  // Manual reset: a signalled point is seen without the mutex.
  if (!_autoReset && _signalled.load(std::memory_order_seq_cst) != 0) return 0;

  const bool limited = milliseconds > 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limited ? milliseconds : 0);
  std::unique_lock<std::mutex> lock(_mutex);
  // Auto reset: a signal left by a Broadcast that found no waiter is taken
  // by this one Wait.
  const auto signalled = [this] {
    if (!_autoReset) return _signalled.load(std::memory_order_seq_cst) != 0;
    if (_signalled.load(std::memory_order_relaxed) == 0) return false;
    _signalled.store(0, std::memory_order_relaxed);
    return true;
  };
  _waiters.fetch_add(1, std::memory_order_seq_cst);
  const unsigned generation = _generation;
  int rc = 0;
  while (_generation == generation && !signalled()) {
    if (milliseconds == 0) {
      rc = -1;
      break;
    }
    if (!limited) {
      _cond.wait(lock);
    } else if (_cond.wait_until(lock, deadline) == std::cv_status::timeout) {
      if (_generation == generation && !signalled()) rc = -1;
      break;
    }
  }
  _waiters.fetch_sub(1, std::memory_order_relaxed);
  return rc;
}
