// NUVSysNeutralCoreApplication.h - the application context: who owns the
// environment managers, which one a thread reads, and the accessors the rest
// of the library uses to read and put the application's variables.
//
// Contexts:
// - The main context is made once, on the first call of
//   NUVSysNeutralCoreApplication::GetMainApplication (thread-safe), and
//   lives until the process ends.
// - Every thread has a current context: the one it set with
//   SetCurrentApplication, else the main context (when it has been made).
// - A further context is made with `new NUVSysNeutralCoreApplication` and is
//   its maker's to destroy; it must not be current on any thread, nor used by
//   an accessor, when it is destroyed (destroying it clears it as the calling
//   thread's current context).
// - Each context owns one NUVSysEnvironmentManager, made with it.
// A process that never makes a context has "no application context": the
// accessors give null (or -1) and NUVGetEnvInt goes on to the install path.
//
// Threads: the accessors below run under one lock of the application
// context, shared by every context, so a look-up through the current and the
// main manager sees no put half done. Filling a manager's arrays and
// expanding them directly through GetEnvironmentManager() is not locked:
// do it on one thread before others read (NUVSysNeutralCoreApplication-
// ExpandAllEnvA takes the lock).
#ifndef NUVSYSNEUTRALCOREAPPLICATION_H
#define NUVSYSNEUTRALCOREAPPLICATION_H

#include "NUVSysEnvironmentManager.h"
#include "SystemTSCommon.h"

class SYSTEMTS_API NUVSysNeutralCoreApplication {
 public:
  // A context with a new, empty environment manager. Throws std::bad_alloc
  // when memory runs out.
  NUVSysNeutralCoreApplication();
  virtual ~NUVSysNeutralCoreApplication();

  NUVSysNeutralCoreApplication(const NUVSysNeutralCoreApplication&) = delete;
  NUVSysNeutralCoreApplication& operator=(const NUVSysNeutralCoreApplication&) = delete;

  // The context's manager; never null.
  NUVSysEnvironmentManager* GetEnvironmentManager() const { return _pEnvManager; }

  // The main context, made on the first call; null only when it cannot be
  // made (memory).
  static NUVSysNeutralCoreApplication* GetMainApplication();
  // The main context if it has been made, else null; never makes it.
  static NUVSysNeutralCoreApplication* PeekMainApplication();
  // The calling thread's current context: the one it set, else the main
  // context if made, else null.
  static NUVSysNeutralCoreApplication* GetCurrentApplication();
  // Makes `context` the calling thread's current one; null goes back to the
  // main context.
  static void SetCurrentApplication(NUVSysNeutralCoreApplication* context);

 private:
  NUVSysEnvironmentManager* _pEnvManager;
};

// The value of `name` from the current context's manager (GetEnv), else the
// main context's; null without a context or value. The pointer is into the
// manager's storage, valid until that name is put again or its line replaced
// (NUVGetEnvInt copies under the lock instead).
SYSTEMTS_API const char* NUVSysNeutralCoreApplicationGetEnvironmentVariableA(const char* name);
// The same with GetOfficialEnv.
SYSTEMTS_API const char* NUVSysNeutralCoreApplicationGetOfficialEnvironmentVariableA(const char* name);
// PutEnvInTable on the current context's manager: 0, or -1 for a null name
// or value, without a context, or when the table refuses it.
SYSTEMTS_API int NUVSysNeutralCoreApplicationPutEnvironmentVariableA(const char* name, const char* value);
// ExpandAllEnvironStrings on the current context's manager: its result, or -1
// without a context.
SYSTEMTS_API int NUVSysNeutralCoreApplicationExpandAllEnvA();

// The development stage as the application context drives it
// (NUVSysDevelopmentStageManager.h):
// - Initialize computes the stage (NUVSysDevelopmentStage) and arms the
//   first update;
// - Update(2) forgets it (NUVSysDevelopmentStageClear);
// - Update(1) computes it again, except the first Update(1) after an
//   Initialize, which only marks it as seen;
// - any other state does nothing.
// Initialize and Update(1) return the stage bits; other updates return 0.
SYSTEMTS_API int NUVSysNeutralCoreDevelopmentStageInitialize();
SYSTEMTS_API int NUVSysNeutralCoreDevelopmentStageUpdate(int state);

#endif  // NUVSYSNEUTRALCOREAPPLICATION_H
