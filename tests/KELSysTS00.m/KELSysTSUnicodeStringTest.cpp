// The thread-safe string: conversions both ways and whole values under
// concurrent writers (this program also runs under ThreadSanitizer).
#include "KELSysTSUnicodeString.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(KELSysTSUnicodeString, ConversionsAndOperations) {
  const KELUnicodeString euro = KELUnicodeString::FromUTF8("\xE2\x82\xAC 5");
  KELSysTSUnicodeString s(euro), copy(s);  // a copy is independent of its source
  s += KELUnicodeString(" x");
  EXPECT_EQ("\xE2\x82\xAC 5 x", s.ConvertToUTF8());
  const KELUnicodeString back = copy;  // conversion out
  EXPECT_TRUE(back == euro && copy == euro && copy != s);
  EXPECT_LT(copy.Compare(s), 0);  // a prefix orders first
  // Appending a string to itself doubles it; assigning to itself keeps it.
  copy += copy;
  const KELSysTSUnicodeString& alias = copy;
  copy = alias;
  EXPECT_EQ(u"\u20AC 5\u20AC 5", copy.ToU16String());
  copy = "ascii";
  EXPECT_EQ("ascii", copy.ConvertToUTF8());
  copy = static_cast<const char*>(nullptr);
  EXPECT_TRUE(copy.IsNull());
  EXPECT_EQ(0, copy.BuildFromUTF8("\xC3\xA9t\xC3\xA9"));
  EXPECT_EQ(3, copy.GetLengthInChar());
  EXPECT_EQ(E_INVALIDARG, copy.BuildFromUTF8(nullptr, 3));
  EXPECT_TRUE(copy.IsNull());
  char buf[4];
  EXPECT_EQ(7, s.ConvertToUTF8(buf, sizeof buf));  // cut as KELUnicodeString cuts: whole characters
  EXPECT_STREQ("\xE2\x82\xAC", buf);
}

// Two writers replace the text while readers read, convert and compare it:
// every reading is one whole text (16 copies of one letter).
TEST(KELSysTSUnicodeString, OperationsAreAtomicAcrossThreads) {
  KELSysTSUnicodeString shared(KELUnicodeString(std::string(16, 'a').c_str()));
  const auto whole = [](const std::string& t) {
    return t.size() == 16 && t.find_first_not_of(t[0]) == std::string::npos;
  };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  std::atomic<int> readersDone{0};
  std::atomic<long> torn{0};
  std::vector<std::thread> threads;
  for (int w = 0; w < 2; ++w) {
    threads.emplace_back([&, w] {
      for (int i = 0; readersDone.load() < 2 && std::chrono::steady_clock::now() < deadline; ++i) {
        const std::string text(16, static_cast<char>('a' + (i + w) % 26));
        if (i % 2) {
          shared.BuildFromUTF8(text.c_str());
        } else {
          shared = KELUnicodeString(text.c_str());
        }
      }
    });
  }
  for (int r = 0; r < 2; ++r) {
    threads.emplace_back([&] {
      std::string last;
      for (int changes = 0, i = 0; changes < 500 && std::chrono::steady_clock::now() < deadline; ++i) {
        const std::string t =
            i % 2 ? shared.ConvertToUTF8() : KELSysTSUnicodeString(shared).Get().ConvertToUTF8();
        torn.fetch_add(!whole(t) + (shared.GetLengthInChar() != 16));
        changes += t != last;
        last = t;
      }
      readersDone.fetch_add(1);
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_LT(std::chrono::steady_clock::now(), deadline) << "readers never saw the text change";
  EXPECT_EQ(0, torn.load());
}

}  // namespace
