// NUVSysDevelopmentStageManager.h - whether the process runs at a
// development stage, computed once and cached.
//
// Stage bits:
//   1  "KELDevelopmentStage" is "TRUE" or "YES" (any case), asked through
//      NUVSysGetEnvA. Compatibility: NUVSysGetEnvA never reports a value, so
//      this bit is never set.
//   2  otherwise: the module "JT0DevPhase" (libJT0DevPhase.so, on the
//      loader's search path) loads through NUVSysLifeCycleDynamicLoad and
//      exports "InDevPhase". The symbol is not called; the module is
//      unloaded again.
//   0  otherwise.
//
// Threads: any thread. The first query (and the first after a clear)
// computes the stage under a lock of its own; later queries read the cache.
#ifndef NUVSYSDEVELOPMENTSTAGEMANAGER_H
#define NUVSYSDEVELOPMENTSTAGEMANAGER_H

#include "SystemTSCommon.h"

// The process-wide holder of the stage, made by the first query and deleted
// by NUVSysDevelopmentStageClear.
class SYSTEMTS_API NUVSysDevelopmentStageManager {
 public:
  virtual ~NUVSysDevelopmentStageManager();
  // The stage bits, computed when the manager was made.
  virtual int GetStage() const = 0;

 protected:
  NUVSysDevelopmentStageManager() = default;
};

// 0 with the stage bits in *stage; -1 (nothing written) for a null stage.
SYSTEMTS_API int NUVSysDevelopmentStage(int* stage);
// Deletes the manager and forgets the stage; the next query computes it
// again.
SYSTEMTS_API void NUVSysDevelopmentStageClear();

#endif  // NUVSYSDEVELOPMENTSTAGEMANAGER_H
