// NUVSysTSDataQueue: a chain of nodes under one mutex, with an items
// semaphore that takers wait on and, for a bounded queue, a space semaphore
// that givers wait on. The semaphores are waited on and signalled outside the
// mutex, so the mutex is held only for a few pointer moves.
#include "NUVSysTSDataQueue.h"

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "KELMutexUnix.h"
#include "LockInternal.h"
#include "NUVSysSemaphoreImpl.h"
#include "SysCalls.h"

struct NUVSysTSDataQueue::Node {
  void* value;
  Node* next;
};

// The values in the queue, oldest at the head. Guarded by the mutex.
struct NUVSysTSDataQueue::Chain {
  Node* head = nullptr;
  Node* tail = nullptr;
  uint32_t count = 0;
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
    void* memory = systemts::detail::g_sys.alignedAlloc(kBytes, kBytes);
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

// The space semaphore is always of the plain kind (the items semaphore is a
// SemaphoreCore in the lock): calls through this type are direct, not
// virtual.
NUVSysSemaphoreImpl* plain(NUVSysSemaphore* s) { return static_cast<NUVSysSemaphoreImpl*>(s); }

// The items semaphore does not spin before sleeping. A taker that spins on an
// empty queue takes each value the moment it arrives, so the two threads
// trade the mutex's, the semaphore's and the chain's lines for every value.
// One that sleeps at once lets the giver run ahead alone, and then takes a
// run of values with the lines at hand; the giver's wake-up call is paid
// once per run. With one giver and one taker on two processors this
// measured faster and far steadier.
constexpr int32_t kItemsSpinTries = 0;

}  // namespace

namespace systemts::detail {

// Every value a giver hands to a taker changes, on both sides, the items
// semaphore's count, the chain and the mutex's lock word and owner, and
// moving a cache line between two processors costs hundreds of nanoseconds
// on some machines. The queue therefore keeps the three in this one object
// (64-byte aligned, in its _inPlace), laid out so that all those words fall
// in the second line, bytes 64 to 127:
//   32  the items semaphore: its POSIX semaphore, touched only to sleep and
//       wake, in the first line; its count at 68, its maximum and spin
//       setting after it;
//   80  the chain: head, tail, count;
//   112 the pthread mutex: its lock word, count, owner and user count at 112
//       to 127; its kind, only read, and the unused list fields in the third
//       line.
// Left to the heap, these objects and the queue fell on three to five lines,
// differently from one run to the next, and throughput varied with them by
// up to three times.
struct alignas(64) QueueLock {
  using Chain = NUVSysTSDataQueue::Chain;

  QueueLock() { pthread_mutex_init(&mutex, nullptr); }
  ~QueueLock() { pthread_mutex_destroy(&mutex); }
  QueueLock(const QueueLock&) = delete;
  QueueLock& operator=(const QueueLock&) = delete;

  void lock() {
    // A free mutex is taken with one compare-and-swap. Otherwise the thread
    // blocks at once, without spinning: the mutex is held for a few pointer
    // moves, but while a giver and a taker both spin for it, its cache line
    // and the chain's move between their cores on every value, and such a
    // transfer costs hundreds of nanoseconds on some machines. A thread that
    // blocks lets the other run alone for a stretch of values with its lines
    // at hand, which with one giver and one taker measured faster than every
    // spin we tried.
    if (pthread_mutex_trylock(&mutex) == 0) return;
    KELMutexUnix::LockWatched(mutex);
  }
  void unlock() { pthread_mutex_unlock(&mutex); }

  unsigned char unused0[32];
  SemaphoreCore items;  // initialised only for a blocking queue
  Chain chain;
  unsigned char unused1[8];
  pthread_mutex_t mutex;
};

namespace {

constexpr size_t kLine = 64;
constexpr size_t lineOf(size_t offset) { return offset / kLine; }
constexpr size_t kItemsAt = offsetof(QueueLock, items);
constexpr size_t kChainAt = offsetof(QueueLock, chain);
constexpr size_t kMutexAt = offsetof(QueueLock, mutex);
// glibc's mutex starts with its lock word, count, owner and user count.
constexpr size_t kMutexHotBytes = 16;

static_assert(alignof(QueueLock) == kLine, "the object starts a cache line");
static_assert(lineOf(kItemsAt + SemaphoreCore::semOffset()) == 0 &&
                  lineOf(kItemsAt + SemaphoreCore::semOffset() + sizeof(sem_t) - 1) == 0,
              "the POSIX semaphore, touched only to sleep and wake, stays in the first line");
static_assert(lineOf(kItemsAt + SemaphoreCore::countOffset()) == 1 &&
                  lineOf(kItemsAt + sizeof(SemaphoreCore) - 1) == 1,
              "the items count, maximum and spin setting are in the second line");
static_assert(lineOf(kChainAt) == 1 && lineOf(kChainAt + sizeof(QueueLock::Chain) - 1) == 1,
              "the chain is in the second line");
static_assert(lineOf(kMutexAt) == 1 && lineOf(kMutexAt + kMutexHotBytes - 1) == 1 &&
                  lineOf(kMutexAt + kMutexHotBytes) == 2,
              "the mutex's changing words are in the second line, the rest after it");

}  // namespace

}  // namespace systemts::detail

using systemts::detail::QueueLock;

NUVSysTSDataQueue::NUVSysTSDataQueue() : _refCount(1), _inPlace() {
  static_assert(sizeof(QueueLock) <= sizeof(_inPlace), "the lock fits in _inPlace");
  new (_inPlace) QueueLock;
}

QueueLock& NUVSysTSDataQueue::sync() { return *std::launder(reinterpret_cast<QueueLock*>(_inPlace)); }

NUVSysTSDataQueue::~NUVSysTSDataQueue() {
  delete _space;
  // The values belong to the caller: only the nodes are ours. Once the
  // chain's nodes are back, the slab new nodes came from is the only one
  // that is neither spare nor freed.
  for (Node* node = sync().chain.head; node != nullptr;) {
    Node* const next = node->next;
    recycle(node);
    node = next;
  }
  sync().~QueueLock();
  if (_slab != nullptr) Slab::destroy(_slab);
  while (_spareSlabs != nullptr) {
    Slab* const next = _spareSlabs->next;
    Slab::destroy(_spareSlabs);
    _spareSlabs = next;
  }
}

NUVSysTSDataQueue* NUVSysTSDataQueue::CreateEmptyQ(bool blocking, int capacity) {
  NUVSysTSDataQueue* q = new (std::nothrow) NUVSysTSDataQueue();
  if (q != nullptr && !q->Initialize(blocking, capacity)) {
    delete q;
    q = nullptr;
  }
  return q;
}

bool NUVSysTSDataQueue::Initialize(bool blocking, int capacity) {
  if (capacity < 0) return false;
  // Unbounded: without blocking nothing ever waits; with it, takers wait for
  // values. Bounded: givers also wait for room.
  if (blocking) {
    if (!sync().items.init(capacity == 0 ? kLargestCount : capacity, 0, kItemsSpinTries)) return false;
    _blocking = true;
  }
  if (capacity == 0) return true;
  _capacity = capacity;
  _space = NUVSysSemaphore::NUVSysCreateSemaphore(capacity, capacity, systemts::detail::kPlainSemaphore);
  return _space != nullptr;
}

void NUVSysTSDataQueue::lock() { sync().lock(); }

void NUVSysTSDataQueue::unlock() { sync().unlock(); }

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
    const int rc = plain(_space)->TimedWait(_blocking ? timeoutMs : 0);
    if (rc < 0) return -1;
    if (rc == 1) return 0;
  }
  Chain& c = sync().chain;
  lock();
  if (_capacity > 0 && c.count >= static_cast<uint32_t>(_capacity)) {
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
  if (c.tail != nullptr) {
    c.tail->next = node;
  } else {
    c.head = node;
  }
  c.tail = node;
  ++c.count;
  unlock();
  if (_blocking) sync().items.signal();
  return 1;
}

int NUVSysTSDataQueue::PopLast(void** out, int timeoutMs) {
  if (out == nullptr) return -1;
  *out = nullptr;
  if (_blocking) {
    const int rc = sync().items.timedWait(timeoutMs);
    if (rc < 0) return -1;
    if (rc == 1) return 0;
  }
  Chain& c = sync().chain;
  lock();
  Node* node = c.head;
  if (node == nullptr) {
    unlock();
    // Nothing there. A bounded queue gives a place back all the same; its
    // semaphore refuses to pass the capacity, and PushFirst's count check
    // keeps the bound if a racing giver already took that place.
    if (_space != nullptr) plain(_space)->Signal();
    return -1;
  }
  c.head = node->next;
  if (c.head == nullptr) c.tail = nullptr;
  --c.count;
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
