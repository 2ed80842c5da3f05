// CreateOnce.h - once-only creation of a shared object into a caller's
// pointer, shared by NUVCreateMutex and NUVCreateResourceLock.
#ifndef SYSTEMTS_CREATEONCE_H
#define SYSTEMTS_CREATEONCE_H

#include "KELMutex.h"
#include "LockInternal.h"

namespace systemts::detail {

// Creates `make()` into `ref` by the rules of NUVCreateMutex. The pointer is
// read and written atomically so that the unlocked first test is not a data
// race; the fences keep the object's construction before its publication.
template <class T, class Make>
void createOnce(T*& ref, unsigned int mode, Make make) {
  if (mode == 0) {
    T* obj = make();
    NUVMemoryBarrier();
    __atomic_store_n(&ref, obj, __ATOMIC_RELEASE);
    return;
  }
  if (mode != 1) return;
  NUVMemoryBarrier();
  if (__atomic_load_n(&ref, __ATOMIC_ACQUIRE) != nullptr) return;
  GlobalMutexLock global;
  if (__atomic_load_n(&ref, __ATOMIC_ACQUIRE) == nullptr) {
    T* obj = make();
    NUVMemoryBarrier();
    __atomic_store_n(&ref, obj, __ATOMIC_RELEASE);
  }
}

}  // namespace systemts::detail

#endif  // SYSTEMTS_CREATEONCE_H
