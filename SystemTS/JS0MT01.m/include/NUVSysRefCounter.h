// NUVSysRefCounter.h - the base of this library's reference-counted objects.
//
// The base holds no state of its own: each derived class keeps its count where
// its layout puts it (NUVSysTSDataQueue: its first field) and implements
// AddRef and Release on it. An object starts with one reference, its
// creator's. The last Release destroys it; that is the only way to free one,
// which is why the destructors are protected.
//
// Threads: AddRef and Release may be called from any thread; the count is
// atomic. Using an object after one's own last reference is released is the
// caller's error, as is releasing more references than one holds.
#ifndef NUVSYSREFCOUNTER_H
#define NUVSYSREFCOUNTER_H

#include "SystemTSCommon.h"

class SYSTEMTS_API NUVSysRefCounter {
 protected:
  NUVSysRefCounter() = default;
  virtual ~NUVSysRefCounter();

 public:
  // Adds a reference. Returns the new count.
  virtual int AddRef() = 0;
  // Drops a reference and destroys the object when it was the last. Returns
  // the new count: 0 means the object is gone.
  virtual int Release() = 0;

  NUVSysRefCounter(const NUVSysRefCounter&) = delete;
  NUVSysRefCounter& operator=(const NUVSysRefCounter&) = delete;
};

#endif  // NUVSYSREFCOUNTER_H
