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

// The name, then 64 copies of one letter that changes with every write.
std::string valueOf(const std::string& name, int generation) {
  return name + ":" + std::string(64, static_cast<char>('a' + generation % 26));
}

TEST(NUVSysTSArgsConcurrency, ReadersSeeWholeEntriesWhileWritersChange) {
  std::string args[] = {"prog", "-base=" + valueOf("base", 0), "-batch"};
  char* argv[] = {args[0].data(), args[1].data(), args[2].data(), nullptr};
  NUVSysTSSetArg(3, argv);

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  const auto running = [&] { return std::chrono::steady_clock::now() < deadline; };
  std::atomic<int> readersDone{0};
  std::atomic<long> torn{0}, badCodes{0};
  std::vector<std::thread> threads;
  for (int w = 0; w < 2; ++w) {
    threads.emplace_back([&, w] {
      for (int gen = 0; readersDone.load() < 4 && running(); ++gen) {
        const std::string name = "opt" + std::to_string((gen + w) % 8);
        const KELUnicodeString v = KELUnicodeString::FromUTF8(valueOf(name, gen));
        if (gen % 3 == 2) {
          NUVSysTSResetArg(name.c_str());
        } else if (NUVSysTSAddArg(name.c_str(), &v) != 0) {
          badCodes.fetch_add(1);
        }
        if (w == 1 && gen % 50 == 0) NUVSysTSSetArg(3, argv);  // drops the added names
      }
    });
  }
  for (int r = 0; r < 4; ++r) {
    threads.emplace_back([&, r] {
      // Done once this reader has seen names both present and absent.
      long hits = 0, misses = 0;
      for (long i = r; (hits < 2000 || misses < 200) && running(); ++i) {
        const std::string name = i % 5 == 0 ? "base" : "opt" + std::to_string(i % 8);
        int kind = -1, added = -1;
        KELUnicodeString v;
        const int rc = NUVSysTSGetArg(name.c_str(), kind, added, v);
        hits += rc == 0;
        misses += rc == SYSTEMTS_E_NOT_FOUND;
        badCodes.fetch_add(rc != 0 && rc != SYSTEMTS_E_NOT_FOUND);
        // Whole: the name, then 64 copies of one letter.
        const std::string s = v.ConvertToUTF8();
        const bool whole = s.size() == name.size() + 65 && s.compare(0, name.size() + 1, name + ":") == 0 &&
                           s.find_first_not_of(s.back(), name.size() + 1) == std::string::npos;
        torn.fetch_add(rc == 0 && (kind != 1 || added != (name == "base" ? 0 : 1) || !whole));
      }
      readersDone.fetch_add(1);
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_TRUE(running()) << "readers never saw names both present and absent";
  EXPECT_EQ(0, torn.load());
  EXPECT_EQ(0, badCodes.load());
}

}  // namespace
