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

const struct { const char* (*get)(); const char* expected; } kCaches[] = {
    {NUVSysPathImplGetHomeDirectoryPathA, "/home/racer/"},
    {NUVSysPathImplGetDocumentDirectoryPathA, "/home/racer/"},
    {NUVSysPathImplGetTemporaryDirectoryPathA, "/tmp"},
    {NUVSysPathImplGetResourceDirectoryPathA, "/opt/first"}};
constexpr int kCacheCount = 4;

void raceOnce() {
  setEnv("HOME", "/home/racer/");
  setEnv("KELInstallPath", "/opt/first:/opt/second");
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  const char* seen[kThreads][kCacheCount] = {};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      ready.fetch_add(1);
      while (!go.load(std::memory_order_acquire)) std::this_thread::yield();
      // Each thread starts at a different cache, so that every cache is
      // raced for by some threads while others fill the next one.
      for (int k = 0; k < kCacheCount; ++k) seen[t][(k + t) % kCacheCount] = kCaches[(k + t) % kCacheCount].get();
      NUVSysPath("/race").PrintInTrace("race", 4);
    });
  }
  while (ready.load() < kThreads) std::this_thread::yield();
  go.store(true, std::memory_order_release);
  for (std::thread& th : threads) th.join();
  int bad = 0;
  for (int c = 0; c < kCacheCount; ++c) {
    for (int t = 0; t < kThreads; ++t) {
      if (seen[t][c] != seen[0][c] || seen[t][c] == nullptr || std::strcmp(seen[t][c], kCaches[c].expected) != 0) {
        std::fprintf(stderr, "cache %d, thread %d: %s\n", c, t, seen[t][c] ? seen[t][c] : "(null)");
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
