// The per-thread record, its key, the thread-debug flag and the event hooks.
#include "KELThreads.h"

#include <pthread.h>

#include <exception>
#include <new>
#include <type_traits>

static_assert(std::is_same_v<pthread_key_t, unsigned int>, "KELSysMTGetTheKey returns a pthread_key_t");

int* KELThrDebugOn = nullptr;

namespace {

pthread_key_t g_key;
pthread_once_t g_keyOnce = PTHREAD_ONCE_INIT;

void makeKey() {
  // Without a key the thread layer cannot work at all; there is no sensible
  // way to go on.
  if (pthread_key_create(&g_key, &KELThreads::Destroy) != 0) std::terminate();
}

}  // namespace

void KELThreads::Destroy(void* record) { delete static_cast<KELThreads*>(record); }

unsigned int KELSysMTGetTheKey() {
  pthread_once(&g_keyOnce, makeKey);
  return g_key;
}

KELThreads* KELThreads::Find() {
  return static_cast<KELThreads*>(pthread_getspecific(KELSysMTGetTheKey()));
}

KELThreads* KELThreads::GetCurrent() {
  const pthread_key_t key = KELSysMTGetTheKey();
  if (auto* rec = static_cast<KELThreads*>(pthread_getspecific(key))) return rec;
  auto* rec = new (std::nothrow) KELThreads();
  if (rec == nullptr) return nullptr;
  if (pthread_setspecific(key, rec) != 0) {
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
