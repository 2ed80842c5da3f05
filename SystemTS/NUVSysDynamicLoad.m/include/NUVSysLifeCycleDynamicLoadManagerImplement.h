// NUVSysLifeCycleDynamicLoadManagerImplement.h - the dynamic loader behind the
// life-cycle load manager.
//
// The process-wide instance is made on first use (see
// NUVSysLifeCycleDynamicLoadManager.h); callers may also make instances of
// their own, each with its own lock and file-name buffer.
//
// Threads: each operation takes the instance's lock (recursive), so the
// file-name buffer is never written by two threads at once. The name handed
// out by IsResident points into that buffer and is valid until the next
// IsResident on the same instance: a caller that shares an instance between
// threads holds the instance's lock across the IsResident and the DoLoad that
// uses the name, as NUVSysLifeCycleDynamicLoad does.
// Errors: a failed dlopen, dlsym or dlclose leaves the loader's text in
// NUVSysDynamicLoadLastError.
#ifndef NUVSYSLIFECYCLEDYNAMICLOADMANAGERIMPLEMENT_H
#define NUVSYSLIFECYCLEDYNAMICLOADMANAGERIMPLEMENT_H

#include <cstddef>

#include "KELMutex.h"
#include "NUVSysLifeCycleDynamicLoadManager.h"

class SYSTEMTS_API NUVSysLifeCycleDynamicLoadManagerImplement
    : public NUVSysLifeCycleDynamicLoadManager {
 public:
  NUVSysLifeCycleDynamicLoadManagerImplement();
  ~NUVSysLifeCycleDynamicLoadManagerImplement() override;

  // Formats "lib<module>.so" into the instance's buffer (grown to the name's
  // length + 9 bytes when too small) and hands it out in `*fileName` when
  // fileName is not null. Asks dlopen with RTLD_LAZY | RTLD_NOLOAD: when the
  // module is already in the process, stores its handle, releases the extra
  // reference that query took with dlclose and returns 0. Otherwise -1, with
  // nothing loaded. -1 also when `module` or `handle` is null or the buffer
  // cannot be grown (then nothing is handed out).
  int IsResident(const char* module, char** fileName, void** handle) override;
  // dlopen(fileName, RTLD_LAZY | RTLD_GLOBAL): 0 with the handle, or -1 with
  // `*handle` null. -1 for a null `fileName` or `handle`.
  int DoLoad(const char* fileName, void** handle) override;
  // dlsym: the address, or null (also for a null handle or symbol).
  void* DoGetFunction(void* handle, const char* symbol) override;
  // dlclose: 0 with `*handle` cleared; -1 for a null `handle` or `*handle`
  // or a failed close (the handle is then left as it was).
  int DoUnload(void** handle) override;

  // The instance's lock (recursive, made at once). Hold it across a sequence
  // of calls that must not interleave with another thread's.
  KELMutex& ManagerLock() { return _lock; }

 private:
  KELMutex _lock;
  char* _fileName;         // reusable "lib%s.so" buffer, owned (malloc)
  size_t _fileNameCapacity;
};

#endif  // NUVSYSLIFECYCLEDYNAMICLOADMANAGERIMPLEMENT_H
