// Uncontended lock costs against the platform's and the standard library's
// locks, in one run: a KELMutex Lock+Unlock pair, and KELResourceLock read
// and write pairs. Reported as time per pair; compare medians.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <mutex>
#include <shared_mutex>

#include "KELMutex.h"
#include "KELResourceLock.h"
#include "KELSmartMutex.h"
#include "bench_common.h"

namespace {

void kelMutexPair(benchmark::State& st) {
  KELMutex m(0, 1, 0);
  for (auto _ : st) {
    m.Lock();
    m.Unlock();
  }
}

void kelSmartDeferredPair(benchmark::State& st) {
  KELSmartMutex m(1);
  for (auto _ : st) {
    m.Lock();
    m.Unlock();
  }
}

void pthreadRecursivePair(benchmark::State& st) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_t m;
  pthread_mutex_init(&m, &attr);
  for (auto _ : st) {
    pthread_mutex_lock(&m);
    pthread_mutex_unlock(&m);
  }
  pthread_mutex_destroy(&m);
  pthread_mutexattr_destroy(&attr);
}

void stdMutexPair(benchmark::State& st) {
  std::mutex m;
  for (auto _ : st) {
    m.lock();
    m.unlock();
  }
}

void kelReadPair(benchmark::State& st) {
  KELResourceLock l(1);
  for (auto _ : st) {
    l.ReadLock();
    l.ReadUnlock();
  }
}

void kelWritePair(benchmark::State& st) {
  KELResourceLock l(1);
  for (auto _ : st) {
    l.WriteLock();
    l.WriteUnlock();
  }
}

void pthreadReadPair(benchmark::State& st) {
  pthread_rwlock_t l = PTHREAD_RWLOCK_INITIALIZER;
  for (auto _ : st) {
    pthread_rwlock_rdlock(&l);
    pthread_rwlock_unlock(&l);
  }
}

void pthreadWritePair(benchmark::State& st) {
  pthread_rwlock_t l = PTHREAD_RWLOCK_INITIALIZER;
  for (auto _ : st) {
    pthread_rwlock_wrlock(&l);
    pthread_rwlock_unlock(&l);
  }
}

void stdReadPair(benchmark::State& st) {
  std::shared_mutex l;
  for (auto _ : st) {
    l.lock_shared();
    l.unlock_shared();
  }
}

void stdWritePair(benchmark::State& st) {
  std::shared_mutex l;
  for (auto _ : st) {
    l.lock();
    l.unlock();
  }
}

}  // namespace

BENCHMARK(kelMutexPair)->Name("mutex_pair/ours");
BENCHMARK(kelSmartDeferredPair)->Name("mutex_pair/ours_deferred");
BENCHMARK(pthreadRecursivePair)->Name("mutex_pair/pthread_recursive");
BENCHMARK(stdMutexPair)->Name("mutex_pair/std_mutex");
BENCHMARK(kelReadPair)->Name("read_pair/ours");
BENCHMARK(pthreadReadPair)->Name("read_pair/pthread_rwlock");
BENCHMARK(stdReadPair)->Name("read_pair/std_shared_mutex");
BENCHMARK(kelWritePair)->Name("write_pair/ours");
BENCHMARK(pthreadWritePair)->Name("write_pair/pthread_rwlock");
BENCHMARK(stdWritePair)->Name("write_pair/std_shared_mutex");

int main(int argc, char** argv) { return bench::run(argc, argv); }
