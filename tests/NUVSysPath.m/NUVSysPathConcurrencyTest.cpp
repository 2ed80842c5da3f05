// The process-wide directory caches and the path trace, filled by many
// threads at once: every thread gets the one stored string, and the threads
// that lose the race free their copies (the leak checker of the sanitizer
// builds would report them when the child exits). Each round runs in a fresh
// child process, since a cache is filled only once per process.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "NUVSysPath.h"
#include "TestSupport.h"

namespace {
constexpr int kThreads = 8;
constexpr int kRounds = 10;

using Getter = const char* (*)();
constexpr Getter kGetters[] = {NUVSysPathImplGetHomeDirectoryPathA, NUVSysPathImplGetDocumentDirectoryPathA,
                               NUVSysPathImplGetTemporaryDirectoryPathA,
                               NUVSysPathImplGetResourceDirectoryPathA};
constexpr const char* kExpected[] = {"/home/racer/", "/home/racer/", "/tmp", "/opt/first"};
constexpr int kGetterCount = 4;

void raceOnce() {
  setEnv("HOME", "/home/racer/");
  setEnv("KELInstallPath", "/opt/first:/opt/second");
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  const char* seen[kThreads][kGetterCount] = {};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      ready.fetch_add(1);
      while (!go.load(std::memory_order_acquire)) std::this_thread::yield();
      // Each thread starts at a different cache, so that every cache is
      // raced for by some threads while others fill the next one.
      for (int k = 0; k < kGetterCount; ++k) {
        const int g = (k + t) % kGetterCount;
        seen[t][g] = kGetters[g]();
      }
      NUVSysPath("/race").PrintInTrace("race", 4);
    });
  }
  while (ready.load() < kThreads) std::this_thread::yield();
  go.store(true, std::memory_order_release);
  for (std::thread& th : threads) th.join();
  int bad = 0;
  for (int g = 0; g < kGetterCount; ++g) {
    for (int t = 0; t < kThreads; ++t) {
      if (seen[t][g] != seen[0][g] || seen[t][g] == nullptr || std::strcmp(seen[t][g], kExpected[g]) != 0) {
        std::fprintf(stderr, "cache %d, thread %d: %s\n", g, t, seen[t][g] ? seen[t][g] : "(null)");
        ++bad;
      }
    }
  }
  std::exit(bad == 0 ? 0 : 1);
}
}  // namespace

TEST(NUVSysPathConcurrency, DirectoryCachesFilledOnceUnderARace) {
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE(round);
    EXPECT_EXIT(raceOnce(), ::testing::ExitedWithCode(0), "");
  }
}
