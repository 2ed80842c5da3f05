// KELMutexUnix.h - the platform side of KELMutex: an abstract implementation
// interface and its POSIX mutex.
#ifndef KELMUTEXUNIX_H
#define KELMUTEXUNIX_H

#include <pthread.h>

class KELMutexRealData {
 public:
  virtual ~KELMutexRealData() = default;
  virtual int Lock() = 0;
  virtual int Unlock() = 0;
  virtual int TryLock() = 0;
};

class KELMutexUnix final : public KELMutexRealData {
 public:
  // recursive non-zero: initialised with the process's shared recursive
  // attribute object; otherwise a normal (default) mutex.
  explicit KELMutexUnix(int recursive);
  ~KELMutexUnix() override;
  KELMutexUnix(const KELMutexUnix&) = delete;
  KELMutexUnix& operator=(const KELMutexUnix&) = delete;

  int Lock() override { return LockWatched(_mutex); }
  int Unlock() override { return pthread_mutex_unlock(&_mutex); }
  int TryLock() override { return pthread_mutex_trylock(&_mutex) == 0 ? 0 : 1; }

  // Locks `m`; in debug mode with the calling thread's KELThreads::
  // BlockedOnMutex bit set while it waits. For this class and for raw
  // mutexes the library places itself (the queue's).
  static int LockWatched(pthread_mutex_t& m);

  // Set once, by the first construction, when the thread-debug flag is on.
  static unsigned char _debugMode;

 private:
  pthread_mutex_t _mutex;
};

#endif  // KELMUTEXUNIX_H
