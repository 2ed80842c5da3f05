// KELThreads.h - the thread layer's per-thread record, its thread-specific key,
// and the thread-debug flag with its event hooks.
//
// A thread has a KELThreads record only once it asked for one with
// KELThreads::GetCurrent(); the record is freed when the thread ends. The lock
// code only looks records up (KELThreads::Find) and never creates one, so a
// thread that never asked pays nothing.
//
// Thread-debug flag: KELThrDebugOn points to one int, allocated with value 0
// by thread_trace_init(). This library never sets the int; another module may,
// and then the locks keep the bookkeeping described in KELMutex.h and
// KELResourceLock.h. "The flag is on" always means: the pointer is non-null
// and the int it points to is non-zero.
#ifndef KELTHREADS_H
#define KELTHREADS_H

#include <atomic>
#include <cstdint>

#include "SystemTSCommon.h"

class SYSTEMTS_API KELThreads {
 public:
  // Bits of the status word.
  enum : uint32_t {
    BlockedOnMutex = 8,  // the thread waits inside KELMutex::Lock (debug mode)
  };

  // The calling thread's record, made on the first call from that thread and
  // freed when the thread ends. Null when it cannot be allocated, when the
  // key cannot be made (tried again on the next call) or when the record
  // cannot be stored under the key (the record is then freed).
  static KELThreads* GetCurrent();
  // The calling thread's record if it has one, else null. Never allocates.
  static KELThreads* Find();

  // Status word; may be read from any thread.
  uint32_t GetStatus() const { return _status.load(std::memory_order_relaxed); }
  // Counter of lock operations under way on this thread (debug mode only).
  int32_t GetLockOperations() const { return _lockOperations.load(std::memory_order_relaxed); }

  // Used by the locks; only the owning thread writes.
  void SetStatusBits(uint32_t bits) { _status.fetch_or(bits, std::memory_order_relaxed); }
  void ClearStatusBits(uint32_t bits) { _status.fetch_and(~bits, std::memory_order_relaxed); }
  void AddLockOperations(int32_t n) { _lockOperations.fetch_add(n, std::memory_order_relaxed); }

  KELThreads(const KELThreads&) = delete;
  KELThreads& operator=(const KELThreads&) = delete;

  // Destructor of the thread-specific key: frees a record as its thread ends.
  static void Destroy(void* record);

 private:
  KELThreads() = default;
  ~KELThreads() = default;

  std::atomic<uint32_t> _status{0};
  std::atomic<int32_t> _lockOperations{0};
};

// The thread-specific key under which KELThreads records are kept (a
// pthread_key_t), created once on first need. Never deleted. When the key
// cannot be created (the process ran out of keys) the result is
// (unsigned int)-1, which is no valid key, and the next call tries again.
SYSTEMTS_API unsigned int KELSysMTGetTheKey();

// The thread-debug flag (see above). Null until thread_trace_init() ran, which
// the first platform mutex of the process does during library start-up.
SYSTEMTS_API extern int* KELThrDebugOn;

// Allocates the flag's int with value 0 and stores its address in
// KELThrDebugOn, unless KELThrDebugOn is already set (then nothing changes).
SYSTEMTS_API void thread_trace_init();

// Event hooks of the locks, called with a printf-style format and arguments
// only while the flag is on. In this library they do nothing and return at
// once: nothing is formatted or written.
SYSTEMTS_API void thread_trace(char* format, ...);
SYSTEMTS_API void thread_error(char* format, ...);

#endif  // KELTHREADS_H
