// NUVSysLifeCycleDynamicLoadManager.h - loading modules by short name for the
// life cycle: the manager interface, the process-wide load functions, and the
// text of the calling thread's last loader error.
//
// A module name N always stands for the file "lib%s.so" formatted with N,
// found by the dynamic loader's usual search (LD_LIBRARY_PATH, the run path,
// the loader cache, the system directories).
//
// NUVSysLifeCycleDynamicLoad loads a module with RTLD_LAZY | RTLD_GLOBAL and
// runs the life-cycle steps around the load: the life-cycle objects that the
// module registers from its static constructors while it loads are collected
// for that module and initialised once the load has returned
// (NUVSysLifeCycleObject.h). NUVSysLifeCycleDynamicUnload finalises them
// before the module is closed.
//
// The process-wide manager (a NUVSysLifeCycleDynamicLoadManagerImplement) is
// made on the first call of any function below, once, under the global mutex,
// and lives until the process ends.
#ifndef NUVSYSLIFECYCLEDYNAMICLOADMANAGER_H
#define NUVSYSLIFECYCLEDYNAMICLOADMANAGER_H

#include "SystemTSCommon.h"

// The operations a life-cycle load manager provides. Results are C-style: 0
// for success, -1 for failure.
class SYSTEMTS_API NUVSysLifeCycleDynamicLoadManager {
 public:
  NUVSysLifeCycleDynamicLoadManager();
  virtual ~NUVSysLifeCycleDynamicLoadManager();

  NUVSysLifeCycleDynamicLoadManager(const NUVSysLifeCycleDynamicLoadManager&) = delete;
  NUVSysLifeCycleDynamicLoadManager& operator=(const NUVSysLifeCycleDynamicLoadManager&) = delete;

  // Whether "lib<module>.so" is already in the process. Hands out the file
  // name in `*fileName` (when fileName is not null) and, when the module is
  // resident, its handle in `*handle` with 0; otherwise -1. Never loads.
  virtual int IsResident(const char* module, char** fileName, void** handle) = 0;
  // Loads `fileName`; 0 with the handle in `*handle`, or -1.
  virtual int DoLoad(const char* fileName, void** handle) = 0;
  // The address of `symbol` in the module of `handle`, or null.
  virtual void* DoGetFunction(void* handle, const char* symbol) = 0;
  // Closes `*handle`; 0 with `*handle` cleared, or -1.
  virtual int DoUnload(void** handle) = 0;
};

// Loads module `module` through the process-wide manager and stores its handle
// in `*handle`.
// - Under the manager's lock, for the whole call: when the module is already
//   in the process (however it got there) returns 0 with its handle, and
//   nothing is initialised again. Otherwise prepares a load context on the
//   calling thread, loads the file (DoLoad), and when a handle results
//   processes the load context, which initialises the life-cycle objects the
//   module registered while it loaded.
// - Returns 0, or -1 when the module cannot be loaded (the reason: see
//   NUVSysDynamicLoadLastError), when `module` or `handle` is null, or when
//   the manager cannot be made. An object whose initialisation fails does not
//   fail the load (see NUVSysLifeCycleDynamicProcessLoadContext).
// Threads: any thread; loads and unloads through the manager run one at a
// time. A static constructor of a module being loaded must not call this
// function from another thread it waits for (that thread would wait for the
// lock held by the load).
SYSTEMTS_API int NUVSysLifeCycleDynamicLoad(const char* module, void** handle);

// The address of `symbol` in the module of `handle` (DoGetFunction of the
// process-wide manager), or null: null handle or symbol, symbol not found.
// Not cached; see KELThrLibraryManager for the cached look-up.
SYSTEMTS_API void* NUVSysLifeCycleDynamicGetFunction(void* handle, const char* symbol);

// Finalises the life-cycle objects that the module of `*handle` registered
// when it was loaded through NUVSysLifeCycleDynamicLoad (the unload context
// steps, in reverse order of registration), then closes the handle with
// DoUnload: 0 with `*handle` cleared, or -1 (null `handle` or `*handle`, or
// the close failed; the objects are finalised all the same, since the module
// asked to be unloaded).
// Threads: as NUVSysLifeCycleDynamicLoad.
SYSTEMTS_API int NUVSysLifeCycleDynamicUnload(void** handle);

// What the dynamic loader said about the last load or look-up of this library
// that failed on the calling thread: the dlerror text of a failed dlopen,
// dlsym or dlclose made by the life-cycle manager or by KELThrLibraryManager.
// For a module that KELThrLibraryManager refuses to try again it is the text
// of the first, failed attempt. "" when nothing has failed on this thread yet.
// Like errno, a success leaves it as it was: read it right after a failure.
// Ownership: a per-thread buffer of the library, valid until the next failure
// on the same thread; texts longer than 1023 bytes are cut. Never null.
SYSTEMTS_API const char* NUVSysDynamicLoadLastError();

#endif  // NUVSYSLIFECYCLEDYNAMICLOADMANAGER_H
