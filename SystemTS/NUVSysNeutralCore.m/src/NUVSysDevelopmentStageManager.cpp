// The development stage: computed once, cached, forgotten on request.
#include "NUVSysDevelopmentStageManager.h"

#include <strings.h>

#include <atomic>
#include <mutex>
#include <string>

#include "NUVSysEnvironmentManager.h"
#include "NUVSysLifeCycleDynamicLoadManager.h"

namespace systemts::detail {
namespace {

int computeStage() {
  size_t needed = 0;
  if (NUVSysGetEnvA(&needed, nullptr, 0, "KELDevelopmentStage") == 0 && needed > 0) {
    std::string value(needed, '\0');
    if (NUVSysGetEnvA(&needed, value.data(), value.size(), "KELDevelopmentStage") == 0 &&
        (strcasecmp(value.c_str(), "TRUE") == 0 || strcasecmp(value.c_str(), "YES") == 0))
      return 1;
  }
  int stage = 0;
  void* handle = nullptr;
  if (NUVSysLifeCycleDynamicLoad("JT0DevPhase", &handle) == 0 && handle != nullptr) {
    if (NUVSysLifeCycleDynamicGetFunction(handle, "InDevPhase") != nullptr) stage = 2;
    NUVSysLifeCycleDynamicUnload(&handle);
  }
  return stage;
}

class NUVSysDevelopmentStageManagerImplementation final : public NUVSysDevelopmentStageManager {
 public:
  NUVSysDevelopmentStageManagerImplementation() : stage_(computeStage()) {}
  int GetStage() const override { return stage_; }

 private:
  const int stage_;
};

// The singleton, guarded by g_lock; g_cached mirrors its stage (-1 when
// there is none), so that a query reads one atomic word.
std::mutex g_lock;
NUVSysDevelopmentStageManager* g_manager = nullptr;
std::atomic<int> g_cached{-1};

}  // namespace
}  // namespace systemts::detail

using namespace systemts::detail;

NUVSysDevelopmentStageManager::~NUVSysDevelopmentStageManager() = default;

int NUVSysDevelopmentStage(int* stage) {
  if (stage == nullptr) return -1;
  int v = g_cached.load(std::memory_order_acquire);
  if (v < 0) {
    std::lock_guard<std::mutex> lock(g_lock);
    if (g_manager == nullptr) g_manager = new NUVSysDevelopmentStageManagerImplementation;
    v = g_manager->GetStage();
    g_cached.store(v, std::memory_order_release);
  }
  *stage = v;
  return 0;
}

void NUVSysDevelopmentStageClear() {
  std::lock_guard<std::mutex> lock(g_lock);
  delete g_manager;
  g_manager = nullptr;
  g_cached.store(-1, std::memory_order_release);
}
