// KELThrLibraryManager: the module and symbol caches, with real modules
// (libdlmod_NN.so, found through LD_LIBRARY_PATH) and the loader calls
// counted or made to fail through the library's table of OS calls.
#include "KELThrLibraryManager.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "DynamicLoadInternal.h"
#include "FaultInjection.h"

namespace {

using systemts::detail::libraryCacheView;
using systemts::detail::SysCalls;

// What the function `symbol` of `module` returns, or -1 when it is not found.
int call(const char* module, const char* symbol) {
  auto fn = reinterpret_cast<int (*)()>(KELThrLibraryManager::GetFunctionAddress(module, symbol));
  return fn != nullptr ? fn() : -1;
}

struct KELThrLibraryManagerTest : ::testing::Test {
  void SetUp() override { KELThrLibraryManager::_Cleanup(); }
  void TearDown() override { KELThrLibraryManager::_Cleanup(); }
};
using KELThrLibraryManagerFaults = KELThrLibraryManagerTest;

// A null symbol only loads the module.
TEST_F(KELThrLibraryManagerTest, AbsentModuleIsTriedOnceAndSaysWhy) {
  EXPECT_EQ(KELThrLibraryManager::LoadLibrary(nullptr), nullptr);
  EXPECT_EQ(KELThrLibraryManager::GetFunctionAddress(nullptr, "dlmod_value"), nullptr);
  EXPECT_EQ(KELThrLibraryManager::GetFunctionAddress("dlmod_00", nullptr), nullptr);
  EXPECT_EQ(libraryCacheView().modules, std::vector<std::string>{"dlmod_00"});
  Fault<&SysCalls::dlopen> dlopens;
  EXPECT_EQ(KELThrLibraryManager::LoadLibrary("systemts_absent"), nullptr);
  const std::string first = NUVSysDynamicLoadLastError();
  EXPECT_NE(first.find("libsystemts_absent.so"), std::string::npos) << first;
  EXPECT_NE(KELThrLibraryManager::LoadLibrary("dlmod_00"), nullptr);
  // Intended: the second request for the failed module is answered from its
  // record, with the first failure's text, and the loader is not asked.
  EXPECT_EQ(KELThrLibraryManager::LoadLibrary("systemts_absent"), nullptr);
  EXPECT_EQ(KELThrLibraryManager::GetFunctionAddress("systemts_absent", "dlmod_value"), nullptr);
  EXPECT_EQ(first, NUVSysDynamicLoadLastError());
  EXPECT_EQ(dlopens.calls(), 1);
  KELThrLibraryManager::_Cleanup();  // forgets the failure: tried again
  EXPECT_EQ(KELThrLibraryManager::LoadLibrary("systemts_absent"), nullptr);
  EXPECT_EQ(dlopens.calls(), 2);
}

TEST_F(KELThrLibraryManagerTest, EleventhModuleGrowsTheArrayAndRecordsStaySorted) {
  // Real and absent modules alike make records; inserted out of order.
  const char* const kNames[] = {"dlmod_07", "zz_absent", "dlmod_01", "aa_absent", "dlmod_05", "dlmod_10",
                                "dlmod_03", "m_absent",  "dlmod_09", "dlmod_02",  "dlmod_00", "dlmod_04"};
  std::vector<std::string> expected;
  for (const char* name : kNames) {
    SCOPED_TRACE(name);
    const bool real = std::string(name).rfind("dlmod_", 0) == 0;
    EXPECT_EQ(KELThrLibraryManager::LoadLibrary(name) != nullptr, real);
    expected.insert(std::lower_bound(expected.begin(), expected.end(), name), name);
    const auto view = libraryCacheView();
    EXPECT_EQ(view.modules, expected);
    EXPECT_EQ(view.moduleCapacity, expected.size() <= 10 ? 10u : 20u);
  }
  // Every record is still found: one handle per module, no new load.
  Fault<&SysCalls::dlopen> dlopens;
  for (const char* name : kNames) {
    SCOPED_TRACE(name);
    void* h = KELThrLibraryManager::LoadLibrary(name);
    EXPECT_EQ(h == nullptr ? nullptr : dlopen((std::string("lib") + name + ".so").c_str(), RTLD_LAZY | RTLD_NOLOAD), h);
  }
  EXPECT_EQ(dlopens.calls(), 0);
}

TEST_F(KELThrLibraryManagerTest, SymbolsAreCachedPerModuleAndMissingOnesAskedEveryTime) {
  Fault<&SysCalls::dlsym> dlsyms;
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(KELThrLibraryManager::GetFunctionAddress("dlmod_03", "dlmod_absent"), nullptr);
    // The failure was taken from the loader, which has nothing pending now.
    EXPECT_EQ(dlerror(), nullptr);
    EXPECT_NE(std::string(NUVSysDynamicLoadLastError()).find("dlmod_absent"), std::string::npos);
  }
  EXPECT_EQ(dlsyms.calls(), 3);
  EXPECT_TRUE(libraryCacheView().symbols.empty());

  // The same name in several modules: each answer from its own module, each
  // asked of dlsym once.
  const struct { const char* module; const char* symbol; int value; } kCases[] = {
      {"dlmod_03", "dlmod_value", 3},     {"dlmod_08", "dlmod_value", 8},
      {"dlmod_03", "dlmod_03_only", 1003}, {"dlmod_08", "dlmod_08_only", 1008},
      {"dlmod_01", "dlmod_value", 1},
  };
  for (int round = 0; round < 2; ++round)
    for (const auto& c : kCases) EXPECT_EQ(call(c.module, c.symbol), c.value) << c.symbol << "@" << c.module;
  EXPECT_EQ(dlsyms.calls(), 3 + 5);
  EXPECT_EQ(libraryCacheView().symbols, (std::vector<std::string>{"dlmod_03_only@dlmod_03", "dlmod_08_only@dlmod_08",
                                                                  "dlmod_value@dlmod_01", "dlmod_value@dlmod_03",
                                                                  "dlmod_value@dlmod_08"}));
  EXPECT_EQ(KELThrLibraryManager::GetFunctionAddress("dlmod_03", "dlmod_08_only"), nullptr);

  // The same buffer holding another name the next time gets that name's
  // address; _Cleanup forgets every found symbol, also on this thread.
  char name[32] = "dlmod_value";
  EXPECT_EQ(call("dlmod_08", name), 8);
  std::strcpy(name, "dlmod_08_only");
  EXPECT_EQ(call("dlmod_08", name), 1008);
  const long before = dlsyms.calls();
  KELThrLibraryManager::_Cleanup();
  EXPECT_NE(KELThrLibraryManager::GetFunctionAddress("dlmod_08", name), nullptr);
  EXPECT_EQ(dlsyms.calls(), before + 1);
}

// A failed load is kept with its text; a failed look-up is not kept.
TEST_F(KELThrLibraryManagerFaults, FailedLoadIsKeptFailedLookUpIsNot) {
  {
    Fault<&SysCalls::dlopen> failing(ENOMEM, nullptr);
    EXPECT_EQ(KELThrLibraryManager::LoadLibrary("dlmod_11"), nullptr);
  }
  // The loader reported nothing for the refused call: our own text.
  EXPECT_STREQ(NUVSysDynamicLoadLastError(), "cannot load: libdlmod_11.so");
  EXPECT_EQ(KELThrLibraryManager::LoadLibrary("nothing_here"), nullptr);
  {
    Fault<&SysCalls::dlopen> dlopens;
    EXPECT_EQ(KELThrLibraryManager::LoadLibrary("dlmod_11"), nullptr);
    EXPECT_STREQ(NUVSysDynamicLoadLastError(), "cannot load: libdlmod_11.so");
    EXPECT_EQ(dlopens.calls(), 0);
  }
  {
    Fault<&SysCalls::dlsym> failing(0, nullptr);
    EXPECT_EQ(KELThrLibraryManager::GetFunctionAddress("dlmod_12", "dlmod_value"), nullptr);
  }
  EXPECT_EQ(call("dlmod_12", "dlmod_value"), 12);
}

TEST_F(KELThrLibraryManagerFaults, OutOfMemoryLoadsWithoutRecording) {
  // Allocation 1 copies the name, 2 makes the first array.
  for (long nth : {1L, 2L}) {
    SCOPED_TRACE(nth);
    KELThrLibraryManager::_Cleanup();
    Fault<&SysCalls::dlopen> dlopens;
    {
      Fault<&SysCalls::malloc> failing(ENOMEM, nullptr, nth);
      EXPECT_NE(KELThrLibraryManager::LoadLibrary("dlmod_13"), nullptr);
    }
    EXPECT_TRUE(libraryCacheView().modules.empty());
    EXPECT_NE(KELThrLibraryManager::LoadLibrary("dlmod_13"), nullptr);
    EXPECT_EQ(dlopens.calls(), 2);
    EXPECT_EQ(libraryCacheView().modules, std::vector<std::string>{"dlmod_13"});
  }
}

}  // namespace
