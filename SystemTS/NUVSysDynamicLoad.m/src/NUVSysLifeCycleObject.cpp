// The life-cycle registry: per-thread load contexts, the registered objects
// of the process and of each loaded module, and the dispatches.
#include "NUVSysLifeCycleObject.h"

#include <new>
#include <utility>
#include <vector>

#include "DynamicLoadInternal.h"
#include "KELMutex.h"
#include "LockInternal.h"
#include "NUVSysLifeCycleDynamicLoadManagerImplement.h"

namespace systemts::detail {
// A registered object and the module it belongs to (null: the process, or not
// yet known while it waits in a load context). A type of the library's own,
// so that the vectors of it stay private to the library.
struct LifeCycleEntry {
  NUVSysLifeCycleObject* object;
  void* module;
};
using LifeCycleEntries = std::vector<LifeCycleEntry>;
}  // namespace systemts::detail

using systemts::detail::LifeCycleEntries;
using systemts::detail::LifeCycleEntry;

struct NUVSysLifeCycleContext {
  enum class Kind { Load, Unload };
  explicit NUVSysLifeCycleContext(Kind k) : kind(k) {}
  Kind kind;
  LifeCycleEntries objects;                 // in order of registration
  NUVSysLifeCycleContext* outer = nullptr;      // load: the thread's enclosing open context
};

namespace {

using systemts::detail::processLoadManager;

// The innermost load context open on this thread. Registrations made while a
// module loads on this thread land here, whatever other threads are loading.
thread_local NUVSysLifeCycleContext* t_openContext = nullptr;

// The registry's own lock guards only the entry list: it is a leaf, never held
// while an entry point or the loader runs, so a registration made from inside
// dlopen on another thread can always take it.
KELMutex* g_registryLock = nullptr;
LifeCycleEntries* g_entries = nullptr;  // made once, lives for the process

KELMutex& registryLock() {
  systemts::detail::createSharedMutex(g_registryLock);
  return *g_registryLock;
}

// Appends under the registry lock; false when out of memory.
bool addEntries(const LifeCycleEntry* objects, size_t n, void* module) {
  KELMutexGuard guard(registryLock());
  try {
    if (g_entries == nullptr) g_entries = new LifeCycleEntries;
    g_entries->reserve(g_entries->size() + n);
    for (size_t i = 0; i < n; ++i) g_entries->push_back(LifeCycleEntry{objects[i].object, module});
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

// Calls `call` on every registered object, under the load manager's lock so
// that no unload finalises an object while it is being called.
template <class Call>
int dispatch(Call call) {
  NUVSysLifeCycleDynamicLoadManagerImplement* const manager = processLoadManager();
  if (manager == nullptr) return -1;
  KELMutexGuard managerGuard(manager->ManagerLock());
  LifeCycleEntries snapshot;
  {
    KELMutexGuard guard(registryLock());
    if (g_entries != nullptr) {
      try {
        snapshot = *g_entries;
      } catch (const std::bad_alloc&) {
        return -1;
      }
    }
  }
  int rc = 0;
  for (const LifeCycleEntry& e : snapshot) {
    if (call(e.object) != 0) rc = -1;
  }
  return rc;
}

}  // namespace

NUVSysLifeCycleObject::NUVSysLifeCycleObject() = default;
NUVSysLifeCycleObject::~NUVSysLifeCycleObject() = default;

int NUVSysLifeCycleGlobalFactory(NUVSysLifeCycleObject* object) {
  if (object == nullptr) return -1;
  if (NUVSysLifeCycleContext* context = t_openContext) {
    try {
      context->objects.push_back(LifeCycleEntry{object, nullptr});
    } catch (const std::bad_alloc&) {
      return -1;
    }
    return 0;
  }
  // A process object: initialised now, on the registering thread.
  if (object->Initialize() != 0) return -1;
  const LifeCycleEntry entry{object, nullptr};
  return addEntries(&entry, 1, nullptr) ? 0 : -1;
}

NUVSysLifeCycleContext* NUVSysLifeCycleDynamicPrepareLoadContext() {
  auto* context = new (std::nothrow) NUVSysLifeCycleContext(NUVSysLifeCycleContext::Kind::Load);
  if (context == nullptr) return nullptr;
  context->outer = t_openContext;
  t_openContext = context;
  return context;
}

int NUVSysLifeCycleDynamicProcessLoadContext(NUVSysLifeCycleContext* context, void* handle) {
  if (context == nullptr || context != t_openContext) return -1;
  t_openContext = context->outer;  // registrations from here on go to the outer context
  LifeCycleEntries objects = std::move(context->objects);
  delete context;
  if (handle == nullptr) return 0;
  int rc = 0;
  LifeCycleEntries initialised;
  try {
    initialised.reserve(objects.size());
  } catch (const std::bad_alloc&) {
    return -1;
  }
  for (const LifeCycleEntry& e : objects) {
    if (e.object->Initialize() == 0) {
      initialised.push_back(e);
    } else {
      rc = -1;
    }
  }
  if (!addEntries(initialised.data(), initialised.size(), handle)) {
    // Not recorded, so never finalised: finalise them now rather than leave
    // them initialised for ever.
    for (auto it = initialised.rbegin(); it != initialised.rend(); ++it) it->object->Finalize();
    return -1;
  }
  return rc;
}

NUVSysLifeCycleContext* NUVSysLifeCycleDispatchDynamicPrepareUnloadContext(void* handle) {
  NUVSysLifeCycleDynamicLoadManagerImplement* const manager = processLoadManager();
  if (manager == nullptr) return nullptr;
  auto* context = new (std::nothrow) NUVSysLifeCycleContext(NUVSysLifeCycleContext::Kind::Unload);
  if (context == nullptr) return nullptr;
  // Under the manager's lock: a dispatch in progress finishes before the
  // module's objects leave the registry.
  KELMutexGuard managerGuard(manager->ManagerLock());
  KELMutexGuard guard(registryLock());
  if (g_entries == nullptr || handle == nullptr) return context;
  try {
    for (const LifeCycleEntry& e : *g_entries) {
      if (e.module == handle) context->objects.push_back(e);
    }
  } catch (const std::bad_alloc&) {
    delete context;
    return nullptr;
  }
  LifeCycleEntries& entries = *g_entries;
  size_t kept = 0;
  for (const LifeCycleEntry& e : entries) {
    if (e.module != handle) entries[kept++] = e;
  }
  entries.resize(kept);
  return context;
}

int NUVSysLifeCycleDispatchDynamicProcessUnloadContext(NUVSysLifeCycleContext* context) {
  if (context == nullptr || context->kind != NUVSysLifeCycleContext::Kind::Unload) return -1;
  NUVSysLifeCycleDynamicLoadManagerImplement* const manager = processLoadManager();
  int rc = 0;
  {
    // Finalize may load or unload modules itself; the lock is recursive.
    if (manager != nullptr) manager->ManagerLock().Lock();
    for (auto it = context->objects.rbegin(); it != context->objects.rend(); ++it) {
      if (it->object->Finalize() != 0) rc = -1;
    }
    if (manager != nullptr) manager->ManagerLock().Unlock();
  }
  delete context;
  return rc;
}

int NUVSysLifeCycleDispatchStateChange(int state) {
  return dispatch([state](NUVSysLifeCycleObject* o) { return o->StateChange(state); });
}

int NUVSysLifeCycleDispatchSystemCall(int code, void* data) {
  return dispatch([code, data](NUVSysLifeCycleObject* o) { return o->SystemCall(code, data); });
}
