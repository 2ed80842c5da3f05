// The life-cycle load manager, its process-wide instance, the load functions
// and the per-thread last loader error.
#include "NUVSysLifeCycleDynamicLoadManager.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "CreateOnce.h"
#include "DynamicLoadInternal.h"
#include "NUVSysLifeCycleDynamicLoadManagerImplement.h"
#include "NUVSysLifeCycleObject.h"
#include "SysCalls.h"

namespace systemts::detail {

namespace {

// A fixed buffer: nothing to construct or destroy per thread, so reading the
// text never allocates and a thread's exit has nothing to free.
constexpr size_t kLastErrorSize = 1024;
thread_local char t_lastError[kLastErrorSize];

NUVSysLifeCycleDynamicLoadManagerImplement* g_manager = nullptr;

}  // namespace

void setLastLoadError(const char* text) {
  std::snprintf(t_lastError, kLastErrorSize, "%s", text != nullptr ? text : "");
}

void noteLoaderError(const char* what, const char* name) {
  if (const char* text = g_sys.dlerror()) {
    setLastLoadError(text);
  } else {
    std::snprintf(t_lastError, kLastErrorSize, "%s: %s", what, name != nullptr ? name : "");
  }
}

NUVSysLifeCycleDynamicLoadManagerImplement* processLoadManager() {
  NUVSysLifeCycleDynamicLoadManagerImplement* m = __atomic_load_n(&g_manager, __ATOMIC_ACQUIRE);
  if (m != nullptr) return m;
  createOnce(g_manager, 1, []() -> NUVSysLifeCycleDynamicLoadManagerImplement* {
    try {
      return new NUVSysLifeCycleDynamicLoadManagerImplement;
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
  });
  return __atomic_load_n(&g_manager, __ATOMIC_ACQUIRE);
}

}  // namespace systemts::detail

using systemts::detail::g_sys;
using systemts::detail::noteLoaderError;
using systemts::detail::processLoadManager;

// ---- the interface ----

NUVSysLifeCycleDynamicLoadManager::NUVSysLifeCycleDynamicLoadManager() = default;
NUVSysLifeCycleDynamicLoadManager::~NUVSysLifeCycleDynamicLoadManager() = default;

// ---- the implementation ----

NUVSysLifeCycleDynamicLoadManagerImplement::NUVSysLifeCycleDynamicLoadManagerImplement()
    : _lock(0, 1, 0), _fileName(nullptr), _fileNameCapacity(0) {}

NUVSysLifeCycleDynamicLoadManagerImplement::~NUVSysLifeCycleDynamicLoadManagerImplement() {
  std::free(_fileName);
}

int NUVSysLifeCycleDynamicLoadManagerImplement::IsResident(const char* module, char** fileName,
                                                           void** handle) {
  if (module == nullptr || handle == nullptr) return -1;
  KELMutexGuard guard(_lock);
  const size_t length = std::strlen(module);
  // "lib" + name + ".so" + NUL needs length + 7; grown with two bytes spare.
  if (_fileNameCapacity < length + 7) {
    char* bigger = static_cast<char*>(g_sys.realloc(_fileName, length + 9));
    if (bigger == nullptr) return -1;
    _fileName = bigger;
    _fileNameCapacity = length + 9;
  }
  std::snprintf(_fileName, _fileNameCapacity, "lib%s.so", module);
  if (fileName != nullptr) *fileName = _fileName;
  void* const resident = g_sys.dlopen(_fileName, RTLD_LAZY | RTLD_NOLOAD);
  if (resident == nullptr) {
    // Not being loaded is the answer, not an error: leave no text pending in
    // the loader for a later dlerror to report.
    g_sys.dlerror();
    return -1;
  }
  *handle = resident;
  g_sys.dlclose(resident);  // the query took a reference of its own
  return 0;
}

int NUVSysLifeCycleDynamicLoadManagerImplement::DoLoad(const char* fileName, void** handle) {
  if (fileName == nullptr || handle == nullptr) return -1;
  *handle = g_sys.dlopen(fileName, RTLD_LAZY | RTLD_GLOBAL);
  if (*handle != nullptr) return 0;
  noteLoaderError("cannot load", fileName);
  return -1;
}

void* NUVSysLifeCycleDynamicLoadManagerImplement::DoGetFunction(void* handle, const char* symbol) {
  if (handle == nullptr || symbol == nullptr) return nullptr;
  void* const address = g_sys.dlsym(handle, symbol);
  if (address == nullptr) noteLoaderError("symbol not found", symbol);
  return address;
}

int NUVSysLifeCycleDynamicLoadManagerImplement::DoUnload(void** handle) {
  if (handle == nullptr || *handle == nullptr) return -1;
  if (g_sys.dlclose(*handle) != 0) {
    noteLoaderError("cannot close", "module");
    return -1;
  }
  *handle = nullptr;
  return 0;
}

// ---- the process-wide functions ----

int NUVSysLifeCycleDynamicLoad(const char* module, void** handle) {
  if (module == nullptr || handle == nullptr) return -1;
  NUVSysLifeCycleDynamicLoadManagerImplement* const manager = processLoadManager();
  if (manager == nullptr) return -1;
  KELMutexGuard guard(manager->ManagerLock());
  char* fileName = nullptr;
  void* loaded = nullptr;
  if (manager->IsResident(module, &fileName, &loaded) == 0) {
    *handle = loaded;
    return 0;
  }
  *handle = nullptr;
  if (fileName == nullptr) return -1;  // the name buffer could not grow
  NUVSysLifeCycleContext* const context = NUVSysLifeCycleDynamicPrepareLoadContext();
  const int rc = manager->DoLoad(fileName, &loaded);
  // With no handle the context only drops what was collected.
  if (context != nullptr) NUVSysLifeCycleDynamicProcessLoadContext(context, loaded);
  *handle = loaded;
  return rc;
}

void* NUVSysLifeCycleDynamicGetFunction(void* handle, const char* symbol) {
  NUVSysLifeCycleDynamicLoadManagerImplement* const manager = processLoadManager();
  return manager != nullptr ? manager->DoGetFunction(handle, symbol) : nullptr;
}

int NUVSysLifeCycleDynamicUnload(void** handle) {
  if (handle == nullptr || *handle == nullptr) return -1;
  NUVSysLifeCycleDynamicLoadManagerImplement* const manager = processLoadManager();
  if (manager == nullptr) return -1;
  KELMutexGuard guard(manager->ManagerLock());
  if (NUVSysLifeCycleContext* context = NUVSysLifeCycleDispatchDynamicPrepareUnloadContext(*handle)) {
    NUVSysLifeCycleDispatchDynamicProcessUnloadContext(context);
  }
  return manager->DoUnload(handle);
}

const char* NUVSysDynamicLoadLastError() { return systemts::detail::t_lastError; }
