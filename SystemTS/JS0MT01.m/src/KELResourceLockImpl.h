// KELResourceLockImpl.h - the implementation behind KELResourceLock.
#ifndef KELRESOURCELOCKIMPL_H
#define KELRESOURCELOCKIMPL_H

#include "KELMutex.h"
#include "KELWaitingPoint.h"

class KELResourceLockImplItf {
 public:
  virtual ~KELResourceLockImplItf() = default;
  virtual void ReadLock() = 0;
  virtual void ReadUnlock() = 0;
  virtual void WriteLock() = 0;
  virtual void WriteUnlock() = 0;
};

class KELResourceLockImpl final : public KELResourceLockImplItf {
 public:
  KELResourceLockImpl() : _mutex(0, 1, 0), _waitingPoint(0, -1) {}
  ~KELResourceLockImpl() override { _waitingPoint.Broadcast(); }

  void ReadLock() override;
  void ReadUnlock() override;
  void WriteLock() override;
  void WriteUnlock() override;

 private:
  KELMutex _mutex;                // recursive, guards _readers; held by the writer
  KELWaitingPoint _waitingPoint;  // manual reset; broadcast when readers drop to 0
  int _readers = 0;
};

#endif  // KELRESOURCELOCKIMPL_H
