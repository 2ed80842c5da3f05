// Copies of one string read, converted and hashed by four threads at once
// while each thread also changes copies of its own: every read sees the whole
// text, the second view is installed once, and no change shows in the shared
// string. Run under ThreadSanitizer as well.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "KELUnicodeString.h"
#include "NUVSysNLSEnv.h"

namespace {

constexpr int kThreads = 4;

struct Expected {
  std::u16string units;
  std::string utf8;
  unsigned hash;
};

// One round: fresh shared strings (no view built, hash stale), released to
// all threads at once.
int runRound(const KELUnicodeString& mb, const KELUnicodeString& uc, const Expected& want) {
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      ready.fetch_add(1);
      while (!go.load(std::memory_order_acquire)) std::this_thread::yield();
      for (int i = 0; i < 20; ++i) {
        const KELUnicodeString& shared = (i + t) % 2 ? mb : uc;
        KELUnicodeString copy(shared);
        bool ok = copy.GetLengthInChar() == static_cast<int>(want.units.size()) &&
                  copy.ToU16StringView() == want.units && copy.ConvertToChar() == want.utf8 &&
                  copy.GetLengthInByte() == static_cast<int>(want.utf8.size()) &&
                  copy.ComputeHashKey() == want.hash && copy.ConvertToUTF8() == want.utf8;
        KELUnicodeString mine(copy);
        mine += static_cast<char16_t>(u'a' + t);
        mine.ToUpper();
        KELUnicodeString other = shared;
        other.Insert(0, mine).Remove(0, 1);
        ok = ok && mine.GetLengthInChar() == static_cast<int>(want.units.size()) + 1 &&
             mine[static_cast<int>(want.units.size())] == u'A' + t && shared.ToU16StringView() == want.units &&
             copy == shared;
        if (!ok) failures.fetch_add(1);
      }
    });
  }
  while (ready.load() < kThreads) std::this_thread::yield();
  go.store(true, std::memory_order_release);
  for (std::thread& th : threads) th.join();
  return failures.load();
}

TEST(KELUnicodeStringConcurrency, SharedCopiesReadAndChangedByFourThreads) {
  NLSCoreChangeLanguage("C");  // UTF-8 process code page
  const std::string utf8 = "Gr\xC3\xBC\xC3\x9F" "e \xE4\xB8\x96\xE7\x95\x8C \xF0\x9F\x98\x80!";
  const KELUnicodeString reference = KELUnicodeString::FromUTF8(utf8);
  const Expected want{reference.ToU16String(), utf8, reference.ComputeHashKey()};
  int failures = 0;
  for (int round = 0; round < 50; ++round) {
    const KELUnicodeString mb(utf8.c_str());                       // multi-byte primary form
    const KELUnicodeString uc = KELUnicodeString::FromUTF8(utf8);  // UTF-16 primary form
    failures += runRound(mb, uc, want);
    // Every thread let its copies go.
    EXPECT_EQ(mb._GetRepresentation()->GetRefCount(), 1);
    EXPECT_EQ(uc._GetRepresentation()->GetRefCount(), 1);
  }
  EXPECT_EQ(failures, 0);
}

}  // namespace
