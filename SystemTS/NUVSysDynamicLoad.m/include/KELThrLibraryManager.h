// KELThrLibraryManager.h - the thread-safe cache of loaded modules and found
// symbols.
//
// Every module loaded and every symbol found through it is kept for the life
// of the process (modules are never closed), so a repeated look-up costs one
// lock and one binary search instead of a trip through the dynamic loader;
// and when the same call site asks again on the same thread, it is answered
// from a small per-thread memo of those records without taking the lock.
// A module name N stands for the file "lib%s.so" formatted with N, loaded
// with RTLD_LAZY | RTLD_GLOBAL.
//
// Threads: any function from any thread. One mutex guards both record arrays;
// dlopen runs outside it, so two threads may load the same module at once
// (both get a valid handle; the record keeps the later one).
//
// Kept behaviours callers rely on:
// - A module that failed to load once is never tried again: later calls
//   return null at once, even if the file has appeared since.
// - A symbol that was not found is not cached: every call asks dlsym again
//   (and clears the loader's error state), so a symbol that a later-loaded
//   module makes visible is found then.
// Errors: a failed dlopen or dlsym leaves the loader's text in
// NUVSysDynamicLoadLastError; for a module refused because it failed before,
// the text of that first failure.
#ifndef KELTHRLIBRARYMANAGER_H
#define KELTHRLIBRARYMANAGER_H

#include "NUVSysLifeCycleDynamicLoadManager.h"
#include "SystemTSCommon.h"

class SYSTEMTS_API KELThrLibraryManager {
 public:
  KELThrLibraryManager() = delete;

  // The handle of module `module`, loading it on the first request. Null when
  // `module` is null or the module cannot be loaded (now or on an earlier
  // call). When the cache cannot grow (out of memory) the module is loaded
  // but not recorded, and the next call loads it again.
  static void* LoadLibrary(const char* module);

  // The address of `symbol` in module `module`, loading the module first if
  // needed; cached once found. Null when the module cannot be loaded or lacks
  // the symbol. With a null `symbol`, only loads the module and returns null.
  static void* GetFunctionAddress(const char* module, const char* symbol);

  // Frees both record arrays and their names and empties the cache, under
  // its mutex. The modules stay loaded (addresses handed out stay valid); a
  // later request records them again, and tries again a module that had
  // failed. Registered to run when this library is unloaded or the process
  // ends, once, when the first module is recorded.
  static void _Cleanup();
};

#endif  // KELTHRLIBRARYMANAGER_H
