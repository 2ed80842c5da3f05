// NUVSysLifeCycleObject.h - the life-cycle registry: objects that a module
// registers so that the process can initialise them, tell them about state
// changes and system calls, and finalise them before the module goes away.
//
// A module registers its objects from its static constructors:
//
//   class Plugin : public NUVSysLifeCycleObject { ... };
//   static Plugin s_plugin;
//   static const int s_registered = NUVSysLifeCycleGlobalFactory(&s_plugin);
//
// Attribution. Each thread has its own stack of load contexts. While a
// context is open on the calling thread, a registration goes into that
// context, which belongs to the module the thread is loading (libraries that
// the module brings in with it count as the module): two threads
// loading two modules at once therefore each collect their own module's
// objects, and a module loaded from inside another module's constructor
// (nested) collects into its own, inner context. The load functions open and
// process the context around dlopen:
//
//   ctx = NUVSysLifeCycleDynamicPrepareLoadContext();  // open, on this thread
//   dlopen(...)                                         // constructors register
//   NUVSysLifeCycleDynamicProcessLoadContext(ctx, handle);  // close, initialise
//
// A registration with no context open on the calling thread (from the
// program's own static constructors, a library linked at start-up, or a module
// loaded by KELThrLibraryManager or by a plain dlopen) belongs to the process:
// the object is initialised at once, on the registering thread, takes part in
// the dispatches, and is never finalised by the registry; it must live until
// the process ends.
//
// Order: objects are initialised and dispatched to in order of registration
// and finalised in the reverse order.
//
// Threads: any function from any thread. The registry's own lock is never held
// while an object's entry point runs. State-change and system-call dispatches
// and the unload steps of NUVSysLifeCycleDynamicUnload run under the
// process-wide load manager's lock (recursive), so an object is never
// finalised while a dispatch is calling it, and an entry point may itself
// load or unload modules.
//
// Ownership: the registry never owns or deletes an object; it keeps a pointer
// until the object is finalised (module objects) or for the process (process
// objects).
#ifndef NUVSYSLIFECYCLEOBJECT_H
#define NUVSYSLIFECYCLEOBJECT_H

#include "SystemTSCommon.h"

// A life-cycle object. Every entry point returns 0 for success; any other
// value is a failure the registry reports in its result.
class SYSTEMTS_API NUVSysLifeCycleObject {
 public:
  NUVSysLifeCycleObject();
  virtual ~NUVSysLifeCycleObject();

  // Called once, after the module that registered the object has loaded (or
  // at registration for a process object). An object whose Initialize fails
  // is dropped: it gets no dispatch and no Finalize.
  virtual int Initialize() = 0;
  // Called once, before the module is closed, if Initialize succeeded.
  virtual int Finalize() = 0;
  // The process changed state; the meaning of `state` is the host's.
  virtual int StateChange(int state) = 0;
  // A system call addressed to every life-cycle object; `code` and `data`
  // are the host's.
  virtual int SystemCall(int code, void* data) = 0;
};

// An open load or unload context (opaque).
struct NUVSysLifeCycleContext;

// Registers `object` as described above: into the calling thread's innermost
// open load context, or else for the process (initialised at once). Returns 0,
// or -1 for a null object, an allocation failure, or a process object whose
// Initialize failed.
SYSTEMTS_API int NUVSysLifeCycleGlobalFactory(NUVSysLifeCycleObject* object);

// Opens a load context on the calling thread: until it is processed, the
// thread's registrations are collected in it. Returns the context, or null
// when it cannot be allocated (registrations then go to the process).
SYSTEMTS_API NUVSysLifeCycleContext* NUVSysLifeCycleDynamicPrepareLoadContext();

// Closes `context`, which must be the calling thread's innermost open load
// context. With a non-null `handle`, the collected objects are attributed to
// that module and initialised in order of registration; with a null handle
// (the load failed) they are dropped uninitialised. Frees the context.
// Returns 0; -1 when some Initialize failed (the others stand), or when
// `context` is null or not this thread's innermost load context (it is then
// left alone).
SYSTEMTS_API int NUVSysLifeCycleDynamicProcessLoadContext(NUVSysLifeCycleContext* context,
                                                          void* handle);

// Takes the initialised objects of the module of `handle` out of the registry
// into a new unload context: from then on no dispatch reaches them. Returns
// the context (empty when the module registered nothing), or null when it
// cannot be allocated (the objects then stay registered).
SYSTEMTS_API NUVSysLifeCycleContext* NUVSysLifeCycleDispatchDynamicPrepareUnloadContext(
    void* handle);

// Finalises the objects of an unload context in reverse order of
// registration, then frees it. Returns 0; -1 when some Finalize failed, or
// for a null context or a load context (left alone).
SYSTEMTS_API int NUVSysLifeCycleDispatchDynamicProcessUnloadContext(
    NUVSysLifeCycleContext* context);

// Calls StateChange(state), or SystemCall(code, data), on every initialised
// object in order of registration, under the load manager's lock. Returns 0,
// or -1 when some object returned non-zero (every object is called all the
// same), or when the load manager cannot be made.
SYSTEMTS_API int NUVSysLifeCycleDispatchStateChange(int state);
SYSTEMTS_API int NUVSysLifeCycleDispatchSystemCall(int code, void* data);

#endif  // NUVSYSLIFECYCLEOBJECT_H
