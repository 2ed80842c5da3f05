// Eight threads writing one trace at once: every line arrives whole, none is
// lost, and each thread's lines keep their order, in the file and in the
// ring; handles are made and destroyed and the configuration changes while
// they write.
#include "NUVSysTrace.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace {

constexpr int kThreads = 8;
constexpr int kLines = 2000;
constexpr char kPad[] = "--------------------------------------------------------------------------------";

// Checks that `text` is kThreads * kLines whole lines "... Threads INFO:
// w<thread> <seq> <padding>", each thread's sequence complete and in order.
testing::AssertionResult allLinesWhole(const std::string& text) {
  std::map<int, int> next;  // thread -> next sequence number
  std::size_t lines = 0, start = 0;
  for (std::size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1, ++lines) {
    const std::string line = text.substr(start, nl - start);
    // The name follows the time (27 bytes and a blank) and the thread id.
    const std::size_t at = line.size() > 28 ? line.find(' ', 28) : std::string::npos;
    int thread = -1, seq = -1, end = 0;
    if (at == std::string::npos || line.compare(at, 16, " Threads INFO: w") != 0 ||
        std::sscanf(line.c_str() + at + 16, "%d %d %*s%n", &thread, &seq, &end) != 2 ||
        line.size() != at + 16 + static_cast<std::size_t>(end) || line.back() != '.')
      return testing::AssertionFailure() << "line " << lines << " is not whole: " << line;
    if (seq != next[thread]++)
      return testing::AssertionFailure() << "thread " << thread << " line " << seq << " out of order";
  }
  if (start != text.size()) return testing::AssertionFailure() << "text ends inside a line";
  if (lines != static_cast<std::size_t>(kThreads * kLines))
    return testing::AssertionFailure() << lines << " lines, not " << kThreads * kLines;
  return testing::AssertionSuccess();
}

TEST(NUVSysTraceConcurrency, EightWritersGiveWholeLinesAndLoseNone) {
  char pattern[] = "/tmp/systemts-trace-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(pattern));
  const std::string dir = pattern;
  setEnv("KELTraceRing", std::to_string(kThreads * kLines).c_str());
  NUVSysTraceConfigure__(nullptr);
  ASSERT_EQ(0, NUVSysTraceConfigure__(("--name Threads --level info --sink file+memory --directory " + dir).c_str()));
  ASSERT_EQ(0, NUVSysTraceConfigure__(("--name Toggle --level info --sink file --directory " + dir).c_str()));

  std::atomic<int> ready{0};
  std::atomic<bool> writing{true};
  std::vector<std::thread> writers;
  for (int w = 0; w < kThreads; ++w) {
    writers.emplace_back([w, &ready] {
      NUVSysTrace* t = NUVSysTraceCreate__("Threads");
      NUVSysTrace* toggle = NUVSysTraceCreate__("Toggle");
      ready.fetch_add(1);
      while (ready.load() < kThreads + 1) std::this_thread::yield();
      for (int i = 0; i < kLines; ++i) {
        NUVSYSTRACE_INFO(t, "w%d %d %.*s.", w, i, 20 + (i * 7 + w) % 60, kPad);
        NUVSYSTRACE_INFO(toggle, "w%d %d", w, i);
      }
      NUVSysTraceDestroy__(toggle);
      NUVSysTraceDestroy__(t);
    });
  }
  // Meanwhile: handles of the same name come and go, and another name's
  // level changes back and forth.
  std::thread churn([&] {
    ready.fetch_add(1);
    for (int i = 0; writing.load(); ++i) {
      NUVSysTraceDestroy__(NUVSysTraceCreate__("Threads"));
      NUVSysTraceConfigure__(i % 2 == 0 ? "--name Toggle --level off" : "--name Toggle --level debug");
    }
  });
  for (std::thread& t : writers) t.join();
  writing.store(false);
  churn.join();
  ASSERT_EQ(0, NUVSysTraceFlush__());

  NUVSysTrace* t = NUVSysTraceCreate__("Threads");
  EXPECT_EQ(0u, NUVSysTraceGetDropped__(t));
  NUVSysTraceDestroy__(t);
  std::ifstream in(dir + "/Threads." + std::to_string(getpid()) + ".trace", std::ios::binary);
  EXPECT_TRUE(allLinesWhole(std::string(std::istreambuf_iterator<char>(in), {})));
  std::string ring(NUVSysTraceReadMemory__(nullptr, 0) + 1, '\0');
  ring.resize(NUVSysTraceReadMemory__(ring.data(), ring.size()));
  EXPECT_TRUE(allLinesWhole(ring));

  std::filesystem::remove_all(dir);
  setEnv("KELTraceRing", nullptr);
  NUVSysTraceConfigure__(nullptr);
}

}  // namespace
