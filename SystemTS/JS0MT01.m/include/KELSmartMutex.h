// KELSmartMutex.h - the always-recursive mutex, made at once or on first use.
//
// KELSmartMutex(deferred) is KELMutex(0, 1, deferred): never locked at
// creation, always recursive. With deferred non-zero it is the usual choice for
// a static that may be locked before static construction has run. Everything
// else is KELMutex's (see KELMutex.h).
#ifndef KELSMARTMUTEX_H
#define KELSMARTMUTEX_H

#include "KELMutex.h"

class SYSTEMTS_API KELSmartMutex : public KELMutex {
 public:
  explicit KELSmartMutex(int deferred);
  ~KELSmartMutex();
};

#endif  // KELSMARTMUTEX_H
