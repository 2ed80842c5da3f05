// Readers of the named-argument table on 4 threads while 2 threads add,
// reset and rebuild: every value read is whole. Runs under ThreadSanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "NUVSysTSArgs.h"

namespace {

constexpr int kNames = 8;

std::string nameOf(int k) { return "opt" + std::to_string(k); }

// A value that tells whether it was read whole: the name, then 64 copies of
// one letter that changes with every write.
std::string valueOf(const std::string& name, int generation) {
  return name + ":" + std::string(64, static_cast<char>('a' + generation % 26));
}

bool isWhole(const std::string& name, const std::string& v) {
  const std::string prefix = name + ":";
  if (v.size() != prefix.size() + 64 || v.compare(0, prefix.size(), prefix) != 0) return false;
  return v.find_first_not_of(v.back(), prefix.size()) == std::string::npos;
}

TEST(NUVSysTSArgsConcurrency, ReadersSeeWholeEntriesWhileWritersChange) {
  std::vector<std::string> argStore{"prog", "-base=" + valueOf("base", 0), "-batch"};
  std::vector<char*> argv;
  for (std::string& s : argStore) argv.push_back(s.data());
  argv.push_back(nullptr);
  NUVSysTSSetArg(static_cast<int>(argStore.size()), argv.data());

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  std::atomic<int> readersDone{0};
  std::atomic<long> torn{0}, hits{0}, misses{0}, badCodes{0};

  std::vector<std::thread> threads;
  for (int w = 0; w < 2; ++w) {
    threads.emplace_back([&, w] {
      for (int gen = 0; readersDone.load() < 4 && std::chrono::steady_clock::now() < deadline; ++gen) {
        const std::string name = nameOf((gen + w) % kNames);
        if (gen % 3 == 2) {
          NUVSysTSResetArg(name.c_str());
        } else {
          const KELUnicodeString v = KELUnicodeString::FromUTF8(valueOf(name, gen));
          if (NUVSysTSAddArg(name.c_str(), &v) != 0) badCodes.fetch_add(1);
        }
        if (w == 1 && gen % 50 == 0) NUVSysTSSetArg(static_cast<int>(argStore.size()), argv.data());
      }
    });
  }
  for (int r = 0; r < 4; ++r) {
    threads.emplace_back([&, r] {
      long seenHits = 0, seenMisses = 0;
      for (int i = r; std::chrono::steady_clock::now() < deadline; ++i) {
        const std::string name = i % 5 == 0 ? "base" : nameOf(i % kNames);
        int kind = -1, added = -1;
        KELUnicodeString v;
        const int rc = NUVSysTSGetArg(name.c_str(), kind, added, v);
        if (rc == 0) {
          ++seenHits;
          if (kind != 1 || added != (name == "base" ? 0 : 1) || !isWhole(name, v.ConvertToUTF8())) torn.fetch_add(1);
        } else if (rc == SYSTEMTS_E_NOT_FOUND) {
          ++seenMisses;
        } else {
          badCodes.fetch_add(1);
        }
        // Done once this reader has seen names both present and absent, and
        // read a fair number of times.
        if (seenHits > 2000 && seenMisses > 200) break;
      }
      hits.fetch_add(seenHits);
      misses.fetch_add(seenMisses);
      readersDone.fetch_add(1);
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_LT(std::chrono::steady_clock::now(), deadline) << "readers never saw both outcomes";
  EXPECT_EQ(0, torn.load());
  EXPECT_EQ(0, badCodes.load());
  EXPECT_GT(hits.load(), 0);
  EXPECT_GT(misses.load(), 0);
}

}  // namespace
