// KELResourceLock and its implementation.
#include "KELResourceLock.h"

#include "CreateOnce.h"
#include "KELResourceLockImpl.h"
#include "KELThreads.h"
#include "LockInternal.h"

namespace {

// Debug bookkeeping: the event hook and the calling thread's counter of lock
// operations under way. Only reached while the thread-debug flag is on.
bool debugOn() { return KELThrDebugOn != nullptr && *KELThrDebugOn != 0; }

void event(const char* line, const void* lock) { thread_trace(const_cast<char*>(line), lock); }

void countOps(int32_t n) {
  if (KELThreads* self = KELThreads::Find()) self->AddLockOperations(n);
}

}  // namespace

void KELResourceLockImpl::ReadLock() {
  const bool debug = debugOn();
  if (debug) {
    countOps(1);
    event("evt=readW | m=0x%x \n", this);
  }
  _mutex.Lock();
  ++_readers;
  _mutex.Unlock();
  if (debug) {
    event("evt=readS | m=0x%x \n", this);
    countOps(-1);
  }
}

void KELResourceLockImpl::ReadUnlock() {
  const bool debug = debugOn();
  if (debug) countOps(1);
  _mutex.Lock();
  if (--_readers == 0) _waitingPoint.Broadcast();
  if (debug) {
    event("evt=readU | m=0x%x \n", this);
    countOps(1);
  }
  _mutex.Unlock();
}

void KELResourceLockImpl::WriteLock() {
  const bool debug = debugOn();
  if (debug) {
    countOps(1);
    event("evt=writW | m=0x%x \n", this);
  }
  for (;;) {
    _mutex.Lock();
    if (_readers == 0) break;
    // Reset before releasing the mutex: a last reader's Broadcast that comes
    // between the unlock and the Wait leaves the point signalled, so the Wait
    // returns at once instead of missing it.
    _waitingPoint.Reset();
    _mutex.Unlock();
    _waitingPoint.Wait(-1);
  }
  if (debug) {
    event("evt=writS | m=0x%x \n", this);
    countOps(-1);
  }
}

void KELResourceLockImpl::WriteUnlock() {
  const bool debug = debugOn();
  if (debug) {
    countOps(1);
    event("evt=writU | m=0x%x \n", this);
  }
  _mutex.Unlock();
  _waitingPoint.Broadcast();
  if (debug) countOps(-1);
}

KELResourceLock::KELResourceLock(unsigned char) : _impl(new KELResourceLockImpl) {}

KELResourceLock::~KELResourceLock() {
  delete _impl;
  _impl = nullptr;
}

void KELResourceLock::ReadLock() {
  if (_impl != nullptr) _impl->ReadLock();
}
void KELResourceLock::ReadUnlock() {
  if (_impl != nullptr) _impl->ReadUnlock();
}
void KELResourceLock::WriteLock() {
  if (_impl != nullptr) _impl->WriteLock();
}
void KELResourceLock::WriteUnlock() {
  if (_impl != nullptr) _impl->WriteUnlock();
}

void NUVCreateResourceLock(KELResourceLock*& ref, unsigned int mode) {
  systemts::detail::createOnce(ref, mode, [] { return systemts::detail::newResourceLock(); });
}

KELResourceLock* systemts::detail::newResourceLock() { return new KELResourceLock(1); }

void systemts::detail::createSharedResourceLock(KELResourceLock*& ref) {
  NUVCreateResourceLock(ref, 1);
}
