// The application context's accessors from four threads while another puts
// variables: every value read is one that was put whole, the arrays' values
// stay stable, and a thread's own context is asked before the main one.
#include "NUVSysNeutralCoreApplication.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kNames = 32;
constexpr int kPuts = 3000;
constexpr int kMinReads = 300;

TEST(NUVSysNeutralCoreApplicationConcurrency, ReadersWhileOnePuts) {
  NUVSysNeutralCoreApplication* main = NUVSysNeutralCoreApplication::GetMainApplication();
  ASSERT_NE(nullptr, main);
  NUVSysEnvironmentManager* m = main->GetEnvironmentManager();
  ASSERT_EQ(0, m->BuildOfficialEnviron(2));
  ASSERT_EQ(0, m->BuildEnvironString(&m->GetOfficialEnviron()[0], "CONC_ROOT=/root"));
  ASSERT_EQ(0, m->BuildEnvironString(&m->GetOfficialEnviron()[1], "CONC_LIB=${CONC_ROOT}/lib"));
  ASSERT_EQ(0, NUVSysNeutralCoreApplicationExpandAllEnvA());

  std::atomic<bool> done{false};
  std::atomic<int> failures{0};
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  const auto fail = [&](const std::string& what) {
    if (failures.fetch_add(1) < 5) ADD_FAILURE() << what;
  };

  std::thread writer([&] {
    for (int n = 0; n < kPuts; ++n) {
      const std::string name = "CONC_VAR_" + std::to_string(n % kNames);
      const std::string value = "val_" + std::to_string(n % kNames) + "_" + std::to_string(n);
      if (NUVSysNeutralCoreApplicationPutEnvironmentVariableA(name.c_str(), value.c_str()) != 0) fail("put " + name);
    }
    done.store(true);
  });

  std::vector<std::thread> readers;
  for (int r = 0; r < 4; ++r) {
    readers.emplace_back([&, r] {
      // The last reader reads through a context of its own.
      NUVSysNeutralCoreApplication own;
      if (r == 3) {
        NUVSysNeutralCoreApplication::SetCurrentApplication(&own);
        if (NUVSysNeutralCoreApplicationPutEnvironmentVariableA("CONC_VAR_0", "own") != 0) fail("own put");
      }
      int reads = 0;
      while ((!done.load() || reads < kMinReads) && std::chrono::steady_clock::now() < deadline) {
        const int k = (reads * 7 + r) % kNames;
        const std::string name = "CONC_VAR_" + std::to_string(k);
        KELUnicodeString v;
        if (NUVGetEnvInt(name.c_str(), &v) == 1) {
          const std::string got = v.ConvertToUTF8();
          const bool ok = (r == 3 && k == 0) ? got == "own" : got.rfind("val_" + std::to_string(k) + "_", 0) == 0;
          if (!ok) fail(name + " = " + got);
        }
        const char* lib = NUVSysNeutralCoreApplicationGetEnvironmentVariableA("CONC_LIB");
        if (lib == nullptr || std::strcmp(lib, "/root/lib") != 0) fail("CONC_LIB");
        const char* root = NUVSysNeutralCoreApplicationGetOfficialEnvironmentVariableA("CONC_ROOT");
        if (root == nullptr || std::strcmp(root, "/root") != 0) fail("CONC_ROOT");
        ++reads;
      }
      if (reads < kMinReads) fail("deadline passed after " + std::to_string(reads) + " reads");
      if (r == 3) NUVSysNeutralCoreApplication::SetCurrentApplication(nullptr);
    });
  }
  writer.join();
  for (std::thread& t : readers) t.join();
  EXPECT_EQ(0, failures.load());
  // The last put of each name is what stays.
  for (int k = 0; k < kNames; ++k) {
    SCOPED_TRACE(k);
    const int last = (kPuts - 1 - k) / kNames * kNames + k;
    EXPECT_STREQ(("val_" + std::to_string(k) + "_" + std::to_string(last)).c_str(),
                 NUVSysNeutralCoreApplicationGetEnvironmentVariableA(("CONC_VAR_" + std::to_string(k)).c_str()));
  }
}

}  // namespace
