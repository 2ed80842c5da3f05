// The per-thread record, its key, the thread-debug flag and the event hooks.
#include "KELThreads.h"

#include <pthread.h>

#include <atomic>
#include <mutex>
#include <new>
#include <type_traits>

#include "SysCalls.h"
static_assert(std::is_same_v<pthread_key_t, unsigned int>, "KELSysMTGetTheKey returns a pthread_key_t");

int* KELThrDebugOn = nullptr;

namespace {

constexpr pthread_key_t kNoKey = static_cast<pthread_key_t>(-1);

// The key, published once made. Made under g_keyMutex; a failed attempt
// leaves kNoKey, and the next call tries again.
std::atomic<pthread_key_t> g_key{kNoKey};
std::mutex g_keyMutex;

pthread_key_t theKey() {
  pthread_key_t key = g_key.load(std::memory_order_acquire);
  if (key != kNoKey) return key;
  std::lock_guard<std::mutex> lock(g_keyMutex);
  key = g_key.load(std::memory_order_relaxed);
  if (key == kNoKey) {
    pthread_key_t made;
    if (systemts::detail::g_sys.keyCreate(&made, &KELThreads::Destroy) != 0) return kNoKey;
    g_key.store(made, std::memory_order_release);
    key = made;
  }
  return key;
}

}  // namespace

void KELThreads::Destroy(void* record) { delete static_cast<KELThreads*>(record); }

unsigned int KELSysMTGetTheKey() { return theKey(); }

KELThreads* KELThreads::Find() {
  const pthread_key_t key = g_key.load(std::memory_order_acquire);
  // No key yet: no thread has a record.
  if (key == kNoKey) return nullptr;
  return static_cast<KELThreads*>(pthread_getspecific(key));
}

KELThreads* KELThreads::GetCurrent() {
  const pthread_key_t key = theKey();
  if (key == kNoKey) return nullptr;
  if (auto* rec = static_cast<KELThreads*>(pthread_getspecific(key))) return rec;
  auto* rec = new (std::nothrow) KELThreads();
  if (rec == nullptr) return nullptr;
  if (systemts::detail::g_sys.setSpecific(key, rec) != 0) {
    delete rec;
    return nullptr;
  }
  return rec;
}

void thread_trace_init() {
  if (KELThrDebugOn == nullptr) KELThrDebugOn = new int(0);
}

void thread_trace(char*, ...) {}
void thread_error(char*, ...) {}
