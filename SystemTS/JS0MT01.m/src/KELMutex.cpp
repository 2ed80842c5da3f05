// KELMutex, its POSIX implementation, the global mutex and once-only creation.
#include "KELMutex.h"

#include "CreateOnce.h"
#include "KELMutexUnix.h"
#include "KELSmartMutex.h"
#include "KELThreads.h"
#include "LockInternal.h"

// ---- KELMutexUnix ----

unsigned char KELMutexUnix::_debugMode = 0;

namespace {

bool g_firstUnixMutex = true;             // cleared by the first KELMutexUnix
pthread_mutexattr_t* g_recursiveAttr;     // shared by every recursive mutex, never freed
bool g_firstMutex = true;                 // cleared by the first KELMutex

bool debugFlagOn() { return KELThrDebugOn != nullptr && *KELThrDebugOn != 0; }

}  // namespace

// Runs first under _mutexGlobal's construction (library start-up, one thread)
// and afterwards always under _mutexGlobal, so the one-time work and the
// shared attribute object need no lock of their own.
KELMutexUnix::KELMutexUnix(int recursive) {
  if (g_firstUnixMutex) {
    g_firstUnixMutex = false;
    thread_trace_init();
    if (debugFlagOn()) _debugMode = 1;
  }
  if (recursive != 0) {
    if (g_recursiveAttr == nullptr) {
      g_recursiveAttr = new pthread_mutexattr_t;
      pthread_mutexattr_init(g_recursiveAttr);
      pthread_mutexattr_settype(g_recursiveAttr, PTHREAD_MUTEX_RECURSIVE);
    }
    pthread_mutex_init(&_mutex, g_recursiveAttr);
  } else {
    pthread_mutex_init(&_mutex, nullptr);
  }
}

KELMutexUnix::~KELMutexUnix() { pthread_mutex_destroy(&_mutex); }

int KELMutexUnix::LockWatched(pthread_mutex_t& m) {
  if (_debugMode == 0) return pthread_mutex_lock(&m);
  KELThreads* self = KELThreads::Find();
  if (self == nullptr) return pthread_mutex_lock(&m);
  self->SetStatusBits(KELThreads::BlockedOnMutex);
  const int rc = pthread_mutex_lock(&m);
  self->ClearStatusBits(KELThreads::BlockedOnMutex);
  return rc;
}

// ---- KELMutex ----

// The member-function pointers are constant-initialised, so they are usable
// even by code that runs before this library's static constructors; the first
// KELMutex constructor sets them again, as the interface promises.
int (KELMutex::*KELMutex::LockF)() = &KELMutex::Lock;
int (KELMutex::*KELMutex::UnlockF)() = &KELMutex::Unlock;
int (KELMutex::*KELMutex::TryLockF)() = &KELMutex::TryLock;

// Made before any other static object of the library.
KELMutex KELMutex::_mutexGlobal __attribute__((init_priority(101))){/*lockAtCreation=*/0, /*recursive=*/1, /*deferred=*/0};

KELMutex::KELMutex(int lockAtCreation, int recursive, int deferred) : _impl(nullptr) {
  if (g_firstMutex) {
    g_firstMutex = false;
    LockF = &KELMutex::Lock;
    UnlockF = &KELMutex::Unlock;
    TryLockF = &KELMutex::TryLock;
  }
  if (deferred != 0) return;
  _Initialize(/*useGlobal=*/0, recursive);
  if (lockAtCreation != 0) Lock();
}

KELMutex::~KELMutex() {
  if (KELMutexRealData* d = _impl.exchange(nullptr, std::memory_order_acq_rel)) delete d;
}

void KELMutex::_Initialize(int useGlobal, int recursive) {
  const bool global = useGlobal != 0 && this != &_mutexGlobal;
  if (global) (_mutexGlobal.*LockF)();
  if (_impl.load(std::memory_order_relaxed) == nullptr) {
    // Published with release: a thread that sees the pointer sees a fully
    // initialised mutex.
    _impl.store(new KELMutexUnix(recursive), std::memory_order_release);
  }
  if (global) (_mutexGlobal.*UnlockF)();
}

KELMutexRealData* KELMutex::made() {
  KELMutexRealData* d = impl();
  if (d == nullptr) {
    _Initialize(/*useGlobal=*/1, /*recursive=*/1);
    d = impl();
  }
  return d;
}

int KELMutex::Lock() {
  KELMutexRealData* d = made();
  return d != nullptr ? d->Lock() : 0;
}

int KELMutex::Unlock() {
  KELMutexRealData* d = impl();
  return d != nullptr ? d->Unlock() : 0;
}

int KELMutex::TryLock() {
  KELMutexRealData* d = made();
  return d != nullptr ? d->TryLock() : 1;
}

KELSmartMutex::KELSmartMutex(int deferred) : KELMutex(/*lockAtCreation=*/0, /*recursive=*/1, deferred) {}
KELSmartMutex::~KELSmartMutex() = default;

// ---- the global mutex ----

KELMutex* systemts::detail::newRecursiveMutex() {
  return new KELMutex(/*lockAtCreation=*/0, /*recursive=*/1, /*deferred=*/0);
}

KELMutex* GetMyGlobalMutex() {
  static KELMutex* const mutex = systemts::detail::newRecursiveMutex();
  return mutex;
}

namespace {

// The global mutex as KELSysMTGlobalMutex serves it: filled by the first
// call, emptied when the mutex is destroyed.
std::atomic<KELMutex*> g_cachedGlobal{nullptr};

// Fills the cache on first use. Returns true when it was already filled.
bool primeGlobal() {
  if (g_cachedGlobal.load(std::memory_order_acquire) != nullptr) return true;
  g_cachedGlobal.store(GetMyGlobalMutex(), std::memory_order_release);
  return false;
}

// The global mutex through the cache, filled first; null once destroyed.
KELMutex* cachedGlobal() {
  primeGlobal();
  return g_cachedGlobal.load(std::memory_order_acquire);
}

}  // namespace

bool systemts::detail::lockGlobalMutex() {
  KELMutex* const m = cachedGlobal();
  if (m == nullptr) return false;
  (m->*KELMutex::LockF)();
  return g_cachedGlobal.load(std::memory_order_acquire) == m;
}

void systemts::detail::unlockGlobalMutex() {
  // Nothing was locked through the cache before it was filled.
  if (!primeGlobal()) return;
  if (KELMutex* const m = g_cachedGlobal.load(std::memory_order_acquire)) (m->*KELMutex::UnlockF)();
}

// The legacy edge: op 1 locks (1 when locked, -1 when the mutex is being
// destroyed), op 2 unlocks, op 8 destroys; any name or flag is refused.
int KELSysMTGlobalMutex(int op, const char* name, int flags) {
  if (name != nullptr || flags != 0) return -1;
  switch (op) {
    case 1:
      return systemts::detail::lockGlobalMutex() ? 1 : -1;
    case 2:
      systemts::detail::unlockGlobalMutex();
      return 0;
    case 8: {
      KELMutex* const m = cachedGlobal();
      if (m == nullptr) return -1;
      (m->*KELMutex::LockF)();
      g_cachedGlobal.store(nullptr, std::memory_order_release);
      (m->*KELMutex::UnlockF)();
      delete m;
      return 0;
    }
    default:
      primeGlobal();
      return -1;
  }
}

// ---- once-only creation ----

void NUVCreateMutex(KELMutex*& ref, unsigned int mode) {
  systemts::detail::createOnce(ref, mode, [] { return systemts::detail::newRecursiveMutex(); });
}

void systemts::detail::createSharedMutex(KELMutex*& ref) { NUVCreateMutex(ref, 1); }

void NUVMemoryBarrier() {
#if defined(__SANITIZE_THREAD__)
  // ThreadSanitizer does not model stand-alone fences; a sequentially
  // consistent read-modify-write is a full fence it understands.
  static std::atomic<int> fence{0};
  fence.fetch_add(0, std::memory_order_seq_cst);
#else
  std::atomic_thread_fence(std::memory_order_seq_cst);
#endif
}
