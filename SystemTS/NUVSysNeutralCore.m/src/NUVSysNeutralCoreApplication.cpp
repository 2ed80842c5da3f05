// The application context: the main context, the current context of each
// thread, and the locked accessors of the application's variables.
#include "NUVSysNeutralCoreApplication.h"

#include <atomic>
#include <memory>
#include <mutex>

#include "EnvironInternal.h"
#include "NUVSysDevelopmentStageManager.h"

namespace systemts::detail {
namespace {

// The one lock of the application context. Never destroyed, so that threads
// still running at exit find it.
std::mutex& contextLock() {
  static std::mutex* const lock = new std::mutex;
  return *lock;
}

std::atomic<NUVSysNeutralCoreApplication*> g_main{nullptr};
std::mutex g_mainCreation;
thread_local NUVSysNeutralCoreApplication* t_current = nullptr;

NUVSysNeutralCoreApplication* currentContext() {
  return t_current != nullptr ? t_current : g_main.load(std::memory_order_acquire);
}

// Look-up through the current manager, then the main one. Called with the
// lock held.
const char* lookUpLocked(const char* name, bool official) {
  NUVSysNeutralCoreApplication* current = currentContext();
  if (current == nullptr) return nullptr;
  const auto get = [&](NUVSysNeutralCoreApplication* c) {
    NUVSysEnvironmentManager* m = c->GetEnvironmentManager();
    return official ? m->GetOfficialEnv(name) : m->GetEnv(name);
  };
  const char* value = get(current);
  NUVSysNeutralCoreApplication* main = g_main.load(std::memory_order_acquire);
  if (value == nullptr && main != nullptr && main != current) value = get(main);
  return value;
}

// Whether the next Update(1) only marks the stage (armed by Initialize).
std::atomic<bool> g_firstUpdatePending{false};

}  // namespace

bool copyApplicationVariable(const char* name, KELUnicodeString* out) {
  if (name == nullptr) return false;
  std::lock_guard<std::mutex> lock(contextLock());
  const char* value = lookUpLocked(name, false);
  if (value == nullptr) return false;
  if (out != nullptr) *out = value;
  return true;
}

}  // namespace systemts::detail

using namespace systemts::detail;

NUVSysNeutralCoreApplication::NUVSysNeutralCoreApplication() : _pEnvManager(new NUVSysEnvironmentManager) {}

NUVSysNeutralCoreApplication::~NUVSysNeutralCoreApplication() {
  if (t_current == this) t_current = nullptr;
  std::lock_guard<std::mutex> lock(contextLock());
  delete _pEnvManager;
  _pEnvManager = nullptr;
}

NUVSysNeutralCoreApplication* NUVSysNeutralCoreApplication::GetMainApplication() {
  if (NUVSysNeutralCoreApplication* main = g_main.load(std::memory_order_acquire)) return main;
  std::lock_guard<std::mutex> lock(g_mainCreation);
  if (NUVSysNeutralCoreApplication* main = g_main.load(std::memory_order_relaxed)) return main;
  NUVSysNeutralCoreApplication* main = new (std::nothrow) NUVSysNeutralCoreApplication;
  g_main.store(main, std::memory_order_release);
  return main;
}

NUVSysNeutralCoreApplication* NUVSysNeutralCoreApplication::PeekMainApplication() {
  return g_main.load(std::memory_order_acquire);
}

NUVSysNeutralCoreApplication* NUVSysNeutralCoreApplication::GetCurrentApplication() { return currentContext(); }

void NUVSysNeutralCoreApplication::SetCurrentApplication(NUVSysNeutralCoreApplication* context) {
  t_current = context;
}

const char* NUVSysNeutralCoreApplicationGetEnvironmentVariableA(const char* name) {
  if (name == nullptr) return nullptr;
  std::lock_guard<std::mutex> lock(contextLock());
  return lookUpLocked(name, false);
}

const char* NUVSysNeutralCoreApplicationGetOfficialEnvironmentVariableA(const char* name) {
  if (name == nullptr) return nullptr;
  std::lock_guard<std::mutex> lock(contextLock());
  return lookUpLocked(name, true);
}

int NUVSysNeutralCoreApplicationPutEnvironmentVariableA(const char* name, const char* value) {
  if (name == nullptr || value == nullptr) return -1;
  std::lock_guard<std::mutex> lock(contextLock());
  NUVSysNeutralCoreApplication* current = currentContext();
  if (current == nullptr) return -1;
  return current->GetEnvironmentManager()->PutEnvInTable(name, value);
}

int NUVSysNeutralCoreApplicationExpandAllEnvA() {
  std::lock_guard<std::mutex> lock(contextLock());
  NUVSysNeutralCoreApplication* current = currentContext();
  if (current == nullptr) return -1;
  return current->GetEnvironmentManager()->ExpandAllEnvironStrings();
}

int NUVSysNeutralCoreDevelopmentStageInitialize() {
  int stage = 0;
  NUVSysDevelopmentStage(&stage);
  g_firstUpdatePending.store(true);
  return stage;
}

int NUVSysNeutralCoreDevelopmentStageUpdate(int state) {
  int stage = 0;
  if (state == 2) {
    NUVSysDevelopmentStageClear();
  } else if (state == 1) {
    if (!g_firstUpdatePending.exchange(false)) NUVSysDevelopmentStageClear();
    NUVSysDevelopmentStage(&stage);
  }
  return stage;
}
