// The development stage: the JT0DevPhase probe with the marker module on the
// search path (ctest puts it there), without it and with a module that lacks
// the marker (children started with another search path), and the state
// rules of the application context's initialise and update.
#include "NUVSysDevelopmentStageManager.h"

#include <gtest/gtest.h>

#include "FaultInjection.h"
#include "NUVSysNeutralCoreApplication.h"
#include "TestSupport.h"

namespace {

using systemts::detail::SysCalls;

int stage() {
  int s = -1;
  EXPECT_EQ(0, NUVSysDevelopmentStage(&s));
  return s;
}

constexpr const char* kChildOut = "SYSTEMTS_STAGE_CHILD_OUT";

TEST(DevelopmentStageChild, Report) {
  const char* out = std::getenv(kChildOut);
  if (out == nullptr) GTEST_SKIP() << "runs only in the children of the stage tests";
  std::ofstream(out) << stage();
}

// The stage a child computes with `libraryPath` as LD_LIBRARY_PATH.
std::string childStage(const std::string& libraryPath) {
  return runSelfChild("", "DevelopmentStageChild.Report", kChildOut,
                      [&] { return setenv("LD_LIBRARY_PATH", libraryPath.c_str(), 1) == 0; });
}

TEST(NUVSysDevelopmentStage, MarkerModuleOnTheSearchPath) {
  EXPECT_EQ(-1, NUVSysDevelopmentStage(nullptr));
  NUVSysDevelopmentStageClear();
  // Intended: "KELDevelopmentStage" is read through NUVSysGetEnvA, which
  // never reports a value, so bit 1 is never set.
  setEnv("KELDevelopmentStage", "TRUE");
  EXPECT_EQ(2, stage());
  setEnv("KELDevelopmentStage", nullptr);
  for (auto [path, want] : {std::pair{SYSTEMTS_DEVPHASE_DIR, "2"}, {SYSTEMTS_DEVPHASE_DIR "_nomarker", "0"},
                            {"/nonexistent", "0"}}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(want, childStage(path));
  }
}

// The cache, and the application context's rules: Initialize computes,
// the first Update(1) after it only marks, a later Update(1) computes
// again, Update(2) forgets. A failing loader tells computing from caching.
TEST(NUVSysDevelopmentStageFaults, CacheAndStateRules) {
  NUVSysDevelopmentStageClear();
  EXPECT_EQ(2, NUVSysNeutralCoreDevelopmentStageInitialize());
  {
    Fault<&SysCalls::dlopen> noLoader(ENOENT, nullptr, 1, Fault<&SysCalls::dlopen>::kAlways);
    EXPECT_EQ(2, stage());  // cached
    EXPECT_EQ(2, NUVSysNeutralCoreDevelopmentStageUpdate(1));  // only marks
    EXPECT_EQ(0, noLoader.calls());
    EXPECT_EQ(0, NUVSysNeutralCoreDevelopmentStageUpdate(1));  // computes again
    EXPECT_LT(0, noLoader.calls());
    EXPECT_EQ(0, NUVSysNeutralCoreDevelopmentStageUpdate(3));  // nothing
    EXPECT_EQ(0, stage());
  }
  EXPECT_EQ(0, stage());  // still cached
  EXPECT_EQ(0, NUVSysNeutralCoreDevelopmentStageUpdate(2));
  EXPECT_EQ(2, stage());  // computed after the clear
  EXPECT_EQ(2, NUVSysNeutralCoreDevelopmentStageUpdate(1));
}

}  // namespace
