// NUVSysTSDataQueue: a chain of nodes under one KELMutex, with an items
// semaphore that takers wait on and, for a bounded queue, a space semaphore
// that givers wait on. The semaphores are waited on and signalled outside the
// mutex, so the mutex is held only for a few pointer moves.
#include "NUVSysTSDataQueue.h"

#include <cstdint>
#include <cstdlib>
#include <new>

#include "KELMutexUnix.h"
#include "NUVSysSemaphoreImpl.h"

struct NUVSysTSDataQueue::Node {
  void* value;
  Node* next;
};

// A slab is kBytes long and aligned on kBytes, so the slab of a node is found
// by masking the node's address. Its first node-sized slot holds this header,
// the others are nodes.
struct NUVSysTSDataQueue::Slab {
  static constexpr size_t kBytes = 1024;
  static constexpr uint32_t kNodes = kBytes / sizeof(Node) - 1;

  uint32_t returned = 0;  // nodes back since the slab was last started
  Slab* next = nullptr;   // in the list of spare slabs

  static Slab* make() {
    static_assert(sizeof(Slab) <= sizeof(Node), "the header fits in one slot");
    void* memory = std::aligned_alloc(kBytes, kBytes);
    return memory != nullptr ? new (memory) Slab : nullptr;
  }
  static void destroy(Slab* slab) { std::free(slab); }
  static Slab* of(Node* node) {
    return reinterpret_cast<Slab*>(reinterpret_cast<uintptr_t>(node) & ~static_cast<uintptr_t>(kBytes - 1));
  }
  void* slot(uint32_t i) { return reinterpret_cast<char*>(this) + (i + 1) * sizeof(Node); }
};

namespace {

// Largest number of emptied slabs a queue keeps for reuse: 1 MiB, the nodes
// of about 64000 values. A producer that runs ahead of its consumer fills the
// queue in bursts; keeping the slabs of one burst for the next saves their
// allocation, the first touch of fresh pages, and frees into another thread's
// heap.
constexpr uint32_t kMaxSpareSlabs = 1024;

constexpr int kLargestCount = 0x7fffffff;

// The queue makes its semaphores itself, always of the plain kind: calls
// through this type are direct, not virtual.
NUVSysSemaphoreImpl* plain(NUVSysSemaphore* s) { return static_cast<NUVSysSemaphoreImpl*>(s); }

}  // namespace

NUVSysTSDataQueue::NUVSysTSDataQueue() : _refCount(1), _mutex(0, 0, 0) {}

NUVSysTSDataQueue::~NUVSysTSDataQueue() {
  delete _items;
  delete _space;
  // The values belong to the caller: only the nodes are ours. Once the
  // chain's nodes are back, the slab new nodes came from is the only one
  // that is neither spare nor freed.
  for (Node* node = _head; node != nullptr;) {
    Node* const next = node->next;
    recycle(node);
    node = next;
  }
  if (_slab != nullptr) Slab::destroy(_slab);
  while (_spareSlabs != nullptr) {
    Slab* const next = _spareSlabs->next;
    Slab::destroy(_spareSlabs);
    _spareSlabs = next;
  }
}

NUVSysTSDataQueue* NUVSysTSDataQueue::CreateEmptyQ(bool blocking, int capacity) {
  NUVSysTSDataQueue* q = nullptr;
  try {
    q = new (std::nothrow) NUVSysTSDataQueue();
  } catch (const std::bad_alloc&) {  // the mutex could not be made
    return nullptr;
  }
  if (q != nullptr && !q->Initialize(blocking, capacity)) {
    delete q;
    q = nullptr;
  }
  return q;
}

bool NUVSysTSDataQueue::Initialize(bool blocking, int capacity) {
  if (capacity < 0) return false;
  if (capacity == 0) {
    // Unbounded: without blocking nothing ever waits; with it, takers wait
    // for values.
    if (!blocking) return true;
    _items = NUVSysSemaphore::NUVSysCreateSemaphore(kLargestCount, 0, 0);
    return _items != nullptr;
  }
  if (blocking) {
    _items = NUVSysSemaphore::NUVSysCreateSemaphore(capacity, 0, 0);
    if (_items == nullptr) return false;
  }
  _capacity = capacity;
  _space = NUVSysSemaphore::NUVSysCreateSemaphore(capacity, capacity, 0);
  return _space != nullptr;
}

// The queue's mutex is made at construction (never deferred), and KELMutex
// always makes a KELMutexUnix: the queue calls it directly, without the two
// indirections of KELMutex's own calls.
KELMutexUnix* NUVSysTSDataQueue::platformMutex() const { return static_cast<KELMutexUnix*>(_mutex.impl()); }

void NUVSysTSDataQueue::lock() {
  // A free mutex is taken with one compare-and-swap. Otherwise the thread
  // blocks at once, without spinning: the mutex is held for a few pointer
  // moves, but while a giver and a taker both spin for it, its cache line
  // and the chain's move between their cores on every value, and such a
  // transfer costs hundreds of nanoseconds on some machines. A thread that
  // blocks lets the other run alone for a stretch of values with its lines
  // at hand, which with one giver and one taker measured faster than every
  // spin we tried.
  if (platformMutex()->TryLock() == 0) return;
  _mutex.Lock();
}

void NUVSysTSDataQueue::unlock() { platformMutex()->Unlock(); }

NUVSysTSDataQueue::Node* NUVSysTSDataQueue::newNode() {
  if (_slab == nullptr || _slabNext == Slab::kNodes) {
    Slab* slab = _spareSlabs;
    if (slab != nullptr) {
      _spareSlabs = slab->next;
      --_spareSlabCount;
    } else if ((slab = Slab::make()) == nullptr) {
      return nullptr;
    }
    slab->returned = 0;
    _slab = slab;
    _slabNext = 0;
  }
  return new (_slab->slot(_slabNext++)) Node;
}

void NUVSysTSDataQueue::recycle(Node* node) {
  Slab* const slab = Slab::of(node);
  if (++slab->returned < Slab::kNodes) return;
  // All its nodes were handed out and are back: the slab is empty.
  if (slab == _slab) _slab = nullptr;
  if (_spareSlabCount < kMaxSpareSlabs) {
    slab->next = _spareSlabs;
    _spareSlabs = slab;
    ++_spareSlabCount;
  } else {
    Slab::destroy(slab);
  }
}

int NUVSysTSDataQueue::PushFirst(void* value, int timeoutMs) {
  if (value == nullptr) return -1;
  if (_space != nullptr) {
    // A non-blocking bounded queue never waits for room.
    const int rc = plain(_space)->TimedWait(_items != nullptr ? timeoutMs : 0);
    if (rc < 0) return -1;
    if (rc == 1) return 0;
  }
  lock();
  if (_capacity > 0 && _count >= static_cast<uint32_t>(_capacity)) {
    // Room was granted but the queue is full: keeps the bound (see PopLast).
    unlock();
    return -1;
  }
  Node* node = newNode();
  if (node == nullptr) {
    unlock();
    if (_space != nullptr) plain(_space)->Signal();  // give back the room taken
    return -1;
  }
  node->value = value;
  node->next = nullptr;
  if (_tail != nullptr) {
    _tail->next = node;
  } else {
    _head = node;
  }
  _tail = node;
  ++_count;
  unlock();
  if (_items != nullptr) plain(_items)->Signal();
  return 1;
}

int NUVSysTSDataQueue::PopLast(void** out, int timeoutMs) {
  if (out == nullptr) return -1;
  *out = nullptr;
  if (_items != nullptr) {
    const int rc = plain(_items)->TimedWait(timeoutMs);
    if (rc < 0) return -1;
    if (rc == 1) return 0;
  }
  lock();
  Node* node = _head;
  if (node == nullptr) {
    unlock();
    // Nothing there. A bounded queue gives a place back all the same; its
    // semaphore refuses to pass the capacity, and PushFirst's count check
    // keeps the bound if a racing giver already took that place.
    if (_space != nullptr) plain(_space)->Signal();
    return -1;
  }
  _head = node->next;
  if (_head == nullptr) _tail = nullptr;
  --_count;
  void* const value = node->value;
  recycle(node);
  unlock();
  // Kept as callers know it: when the place cannot be given back, the value
  // has left the queue and is not handed out.
  if (_space != nullptr && plain(_space)->Signal() < 0) return -1;
  *out = value;
  return 1;
}

int NUVSysTSDataQueue::AddRef() { return _refCount.fetch_add(1, std::memory_order_relaxed) + 1; }

int NUVSysTSDataQueue::Release() {
  // acq_rel: every use of the queue by other holders happens before its
  // destruction by the last one.
  const int32_t left = _refCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left == 0) delete this;
  return left;
}
