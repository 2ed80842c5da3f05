// KELWaitingPoint.h - an event that threads wait on until another thread
// broadcasts it.
//
// State: signalled or not. Manual reset: once broadcast it stays signalled,
// and every Wait returns at once, until Reset. Auto reset: a Broadcast that
// finds waiters wakes all of them and leaves the point not signalled; one that
// finds none leaves it signalled, and the first Wait to see that takes the
// signal and returns (the point is then not signalled again).
//
// Timed waits run on the monotonic clock, so a change of the wall clock
// neither stretches nor cuts them.
//
// Threads: every operation may be called from any thread. On a manual-reset
// point Broadcast costs one atomic store when nobody waits (a load when the
// point is already signalled), and Wait on a signalled point takes no lock.
// Destroying a point that threads still wait on is the caller's
// error.
#ifndef KELWAITINGPOINT_H
#define KELWAITINGPOINT_H

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "SystemTSCommon.h"

class SYSTEMTS_API KELWaitingPoint {
 public:
  // autoReset non-zero: auto reset, else manual. initiallyNotSignalled 0:
  // starts signalled; any other value: starts not signalled.
  KELWaitingPoint(int autoReset, int initiallyNotSignalled);
  ~KELWaitingPoint();
  KELWaitingPoint(const KELWaitingPoint&) = delete;
  KELWaitingPoint& operator=(const KELWaitingPoint&) = delete;

  // Marks the point signalled and wakes every waiter. Returns 0.
  int Broadcast();
  // Marks the point not signalled. Returns 0.
  int Reset();
  // Returns 0 at once when signalled; otherwise blocks until a Broadcast
  // (0) or until `milliseconds` have passed (-1). -1, or any negative value,
  // waits without limit; 0 only tests.
  int Wait(int milliseconds);

 private:
  const bool _autoReset;
  std::atomic<int> _signalled;
  std::atomic<int> _waiters{0};    // threads inside the slow path of Wait
  unsigned _generation = 0;        // bumped by each Broadcast that wakes; guarded by _mutex
  std::mutex _mutex;
  std::condition_variable _cond;
};

#endif  // KELWAITINGPOINT_H
