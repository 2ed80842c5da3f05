// NUVSysTSDataQueue.h - a reference-counted, thread-safe first-in-first-out
// queue of pointer-sized values.
//
// Shapes, fixed at creation (CreateEmptyQ):
//   not blocking, capacity 0: unbounded, and nothing ever waits;
//   blocking, capacity 0: unbounded; takers wait for values;
//   blocking, capacity n > 0: at most n values; takers wait for values and
//     givers wait for room;
//   not blocking, capacity n > 0: at most n values; a giver finding the queue
//     full gets 0 at once, whatever time-out it passed, and a taker finding it
//     empty gets -1 at once.
//
// Order: PushFirst appends at the tail and PopLast takes from the head, so
// values come out in the order in which they went in, whatever the names of
// the two operations suggest. With several givers, each giver's values come
// out in that giver's order.
//
// Threads: any number of threads may push and pop at once. The chain of values
// and its count are changed only under the queue's mutex; waiting for values
// or room happens outside it, on counting semaphores (NUVSysSemaphore.h).
// Ownership: the queue stores the pointers and never dereferences or frees
// them; values still inside when the queue is destroyed belong to the caller,
// who must keep another way to reach them if they need freeing.
// Lifetime: reference-counted (NUVSysRefCounter.h); the creator holds the
// first reference and the last Release destroys the queue.
// Failure: results, never exceptions.
#ifndef NUVSYSTSDATAQUEUE_H
#define NUVSYSTSDATAQUEUE_H

#include <atomic>
#include <cstdint>

#include "NUVSysRefCounter.h"
#include "NUVSysSemaphore.h"
#include "SystemTSCommon.h"

namespace systemts::detail {
struct QueueLock;
}  // namespace systemts::detail

class SYSTEMTS_API NUVSysTSDataQueue : public NUVSysRefCounter {
 public:
  // Creates an empty queue with one reference (see the shapes above).
  // Returns null when `capacity` is negative or a semaphore, the mutex or the
  // queue cannot be made.
  // Ownership: the caller holds the reference and frees the queue with
  // Release.
  static NUVSysTSDataQueue* CreateEmptyQ(bool blocking, int capacity);

  // Appends `value` at the tail. `timeoutMs` bounds the wait for room of a
  // blocking bounded queue (-1 waits without limit, 0 only tries); other
  // shapes never wait.
  // Returns 1 when the value was stored; 0 when the queue stayed full (the
  // wait for room timed out, or a non-blocking bounded queue was full); -1
  // for a null value, an invalid time-out (below -1) on a blocking bounded
  // queue, a failed wait, or when no node could be allocated (the room taken is then
  // given back). Also -1, keeping the room it took, in the rare case where
  // room was granted but the queue was found full under its mutex: an
  // empty-queue PopLast of a non-blocking bounded queue may hand out room
  // early, and the count check keeps the bound.
  int PushFirst(void* value, int timeoutMs);

  // Takes the oldest value into *out. `timeoutMs` bounds the wait for a value
  // of a blocking queue (-1 waits without limit, 0 only tries); a
  // non-blocking queue never waits.
  // Returns 1 with *out set; 0 with *out null when a blocking queue stayed
  // empty until the time-out; -1 with *out null for a null `out` (nothing is
  // written then), an invalid time-out on a blocking queue, a failed wait, or
  // an empty non-blocking queue.
  // Compatibility: on a bounded queue, when giving the room back fails
  // (the room semaphore is already at its maximum, which only a racing
  // empty-queue PopLast can cause) the call returns -1 at once: the value has
  // then left the queue, is not handed out and is lost to the queue, and the
  // count is already lowered. Callers rely on these results; keep them.
  int PopLast(void** out, int timeoutMs);

  int AddRef() override;
  int Release() override;

 protected:
  // Frees the remaining nodes (never the values), both semaphores and the
  // mutex. Reached through the last Release.
  ~NUVSysTSDataQueue() override;

 private:
  struct Node;
  struct Slab;
  struct Chain;

  // The queue's mutex, items semaphore and chain, laid out in _inPlace.
  friend struct systemts::detail::QueueLock;

  SYSTEMTS_HIDDEN NUVSysTSDataQueue();
  SYSTEMTS_HIDDEN bool Initialize(bool blocking, int capacity);
  // Locks and unlocks the queue's mutex.
  SYSTEMTS_HIDDEN void lock();
  SYSTEMTS_HIDDEN void unlock();
  // Under the mutex: a node for a new value, null when out of memory.
  SYSTEMTS_HIDDEN Node* newNode();
  // Under the mutex: takes back the node of a value that left the queue.
  SYSTEMTS_HIDDEN void recycle(Node* node);
  // The lock, the items semaphore and the chain, kept in _inPlace.
  SYSTEMTS_HIDDEN systemts::detail::QueueLock& sync();

  std::atomic<int32_t> _refCount;
  bool _blocking = false;             // takers wait for values
  NUVSysSemaphore* _space = nullptr;  // free places of a bounded queue
  int32_t _capacity = -1;             // -1: unbounded
  // Nodes come from slabs of consecutive nodes, handed out in order and
  // reused whole once all their nodes are back, so that values crossing
  // between threads cost no allocation each. Guarded by the mutex.
  Slab* _slab = nullptr;              // slab that new nodes come from
  uint32_t _slabNext = 0;             // its next node not handed out yet
  Slab* _spareSlabs = nullptr;        // emptied slabs kept for reuse
  uint32_t _spareSlabCount = 0;
  // A systemts::detail::QueueLock (NUVSysTSDataQueue.cpp): the mutex, the
  // items semaphore and the chain of values, laid out so that the words a
  // giver and a taker both change on every value share one cache line.
  alignas(64) unsigned char _inPlace[192];
};

#endif  // NUVSYSTSDATAQUEUE_H
