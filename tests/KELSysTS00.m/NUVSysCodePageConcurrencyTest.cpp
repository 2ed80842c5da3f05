// The environment converter while the language changes: one thread switches
// between a UTF-8 and an EUC-JP language the way the library does
// (NLSCoreChangeLanguage), four threads convert through the environment
// converter meanwhile. Every result must be the whole answer of one of the
// two code pages, never a mixture; under ThreadSanitizer the test also
// proves that a change publishes the converter without a data race.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "KELSysTSCodePage.h"
#include "NUVSysCodePage.h"
#include "NUVSysNLSEnv.h"
#include "NUVSysUCAlgorithm.h"

namespace {

using U16 = std::vector<unsigned short>;

// "a", HIRAGANA LETTER A in EUC-JP, "z": EUC-JP reads one character from the
// two middle bytes, the lenient UTF-8 method two (each byte passes through).
const char kText[] = "a\xa4\xa2z";
const U16 kAsEucJp = {0x61, 0x3042, 0x7A};
const U16 kAsUtf8 = {0x61, 0xA4, 0xA2, 0x7A};
const unsigned short kHiragana = 0x3042;

U16 decode(const NUVSysCodePage& cp) {
  unsigned short out[sizeof kText + 2] = {};
  const int n = cp.ConvertMBCSToUTF16(kText, 4, out, nullptr);
  return U16(out, out + (n > 0 ? n : 0));
}

// The resumable form (the one hashing uses): one call takes the whole text
// and must let go of it.
U16 decodeResumable(const NUVSysCodePage& cp) {
  const char* p = kText;
  size_t left = 4;
  unsigned short out[9] = {};
  const size_t n = cp.ConvertMBCSToUTF16(p, left, out, 8);
  if (p != nullptr || left != 0 || n > 8) return U16();
  return U16(out, out + n);
}

TEST(NUVSysCodePageConcurrency, LanguageChangesWhileFourThreadsConvert) {
  ASSERT_EQ(NLSCoreChangeLanguage("C"), 0);
  const NUVSysCodePage& env = NUVSysCodePage::GetEnvConverter();
  ASSERT_STREQ(env.GetCodePageName(), "UTF-8");
  ASSERT_EQ(decode(env), kAsUtf8);
  ASSERT_EQ(NLSCoreChangeLanguage("ja_JP.eucJP"), 0);
  ASSERT_STREQ(env.GetCodePageName(), "EUC-JP");
  ASSERT_EQ(decode(env), kAsEucJp);  // both answers differ, so a mixture shows

  // The text 300 times over, and its hash as UTF-8 and as EUC-JP.
  std::string longText;
  U16 asUtf8, asEucJp;
  for (int i = 0; i < 300; ++i) {
    longText += kText;
    asUtf8.insert(asUtf8.end(), kAsUtf8.begin(), kAsUtf8.end());
    asEucJp.insert(asEucJp.end(), kAsEucJp.begin(), kAsEucJp.end());
  }
  const unsigned hashAs[2] = {NUVSysUCAlgorithm::HashV3FromUCS2(asUtf8.data(), asUtf8.size(), 0),
                              NUVSysUCAlgorithm::HashV3FromUCS2(asEucJp.data(), asEucJp.size(), 0)};
  ASSERT_EQ(NUVSysUCAlgorithm::HashV3FromMBCS(longText.data(), longText.size(), 0, nullptr), hashAs[1]);

  constexpr int kConverters = 4;
  constexpr int kRounds = 300;  // each converter's, at the least
  std::atomic<bool> stop{false};
  std::atomic<int> started{0};
  std::atomic<int> bad{0};
  std::atomic<long> seen[2] = {{0}, {0}};  // results as UTF-8, as EUC-JP
  std::vector<std::thread> threads;
  for (int t = 0; t < kConverters; ++t) {
    threads.emplace_back([&] {
      started.fetch_add(1);
      for (int i = 0; !stop.load() || i < kRounds; ++i) {
        const NUVSysCodePage& cp = NUVSysCodePage::GetEnvConverter();
        const U16 u = decode(cp);
        if (u == kAsUtf8) {
          seen[0].fetch_add(1);
        } else if (u == kAsEucJp) {
          seen[1].fetch_add(1);
        } else {
          bad.fetch_add(1);
        }
        char b[8] = {};
        int n = 0;
        KELSysTSCodePage::ConvertUcsToStr(const_cast<unsigned short*>(&kHiragana), 1, b, &n);
        if (!((n == 3 && std::strcmp(b, "\xe3\x81\x82") == 0) || (n == 2 && std::strcmp(b, "\xa4\xa2") == 0))) {
          bad.fetch_add(1);
        }
        const char* name = cp.GetCodePageName();
        if (name == nullptr || (std::strcmp(name, "UTF-8") != 0 && std::strcmp(name, "EUC-JP") != 0)) {
          bad.fetch_add(1);
        }
        const U16 r = decodeResumable(cp);
        if (r != kAsUtf8 && r != kAsEucJp) bad.fetch_add(1);
        // Many 256-unit rounds: all of them under one code page.
        const unsigned h = NUVSysUCAlgorithm::HashV3FromMBCS(longText.data(), longText.size(), 0, nullptr);
        if (h != hashAs[0] && h != hashAs[1]) bad.fetch_add(1);
      }
    });
  }
  // Switch until every converter has run and both answers were seen, with a
  // deadline so that a stuck converter fails rather than hangs.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  int changes = 0;
  while (started.load() < kConverters || seen[0].load() == 0 || seen[1].load() == 0 || changes < 200) {
    if (std::chrono::steady_clock::now() > deadline) break;
    ASSERT_EQ(NLSCoreChangeLanguage(changes % 2 == 0 ? "C" : "ja_JP.eucJP"), 0);
    ++changes;
  }
  stop.store(true);
  for (std::thread& t : threads) t.join();
  ASSERT_EQ(NLSCoreChangeLanguage("C"), 0);

  EXPECT_EQ(bad.load(), 0);
  EXPECT_GT(seen[0].load(), 0);
  EXPECT_GT(seen[1].load(), 0);
  EXPECT_STREQ(env.GetCodePageName(), "UTF-8");
  EXPECT_EQ(decode(env), kAsUtf8);
}

// Two threads changing the language at once: whichever change the
// national-language core takes last, the environment converter must end on
// its code page (the callbacks of two changes must not overtake each other).
TEST(NUVSysCodePageConcurrency, ConverterFollowsTheLastOfTwoRacingChanges) {
  ASSERT_EQ(NLSCoreChangeLanguage("C"), 0);
  const NUVSysCodePage& env = NUVSysCodePage::GetEnvConverter();
  int wrong = 0;
  for (int round = 0; round < 300; ++round) {
    std::atomic<int> ready{0};
    auto change = [&](const char* name) {
      ready.fetch_add(1);
      while (ready.load() < 2) std::this_thread::yield();
      NLSCoreChangeLanguage(name);
    };
    std::thread a(change, "C"), b(change, "ja_JP.eucJP");
    a.join();
    b.join();
    NUVSysNLSEnv now;
    GetEnvNLSData(now);
    if (std::strcmp(now.codePage, env.GetCodePageName()) != 0) ++wrong;
  }
  ASSERT_EQ(NLSCoreChangeLanguage("C"), 0);
  EXPECT_EQ(wrong, 0);
}

// A conversion that started before a change may still be reading the old
// setup, so a converter keeps every setup it has had, and gives back the same
// one when set to a code page and locale again: the names handed out stay
// readable, and switching back and forth does not grow without bound.
TEST(NUVSysCodePageConcurrency, OldSetupsStayReadableAndAreReused) {
  NUVSysCodePage cp("UTF-8");
  const char* utf8 = cp.GetCodePageName();
  ASSERT_STREQ(utf8, "UTF-8");
  cp._Reinitialize("EUC-JP", "ja_JP.eucJP");
  const char* eucjp = cp.GetCodePageName();
  ASSERT_STREQ(eucjp, "EUC-JP");
  ASSERT_STREQ(cp._GetAssociatedCLocale(), "ja_JP.eucJP");
  EXPECT_STREQ(utf8, "UTF-8");  // still there (ASan would see a freed one)
  for (int i = 0; i < 3; ++i) {
    cp._Reinitialize("UTF-8", nullptr);
    EXPECT_EQ(cp.GetCodePageName(), utf8);
    cp._Reinitialize("EUC-JP", "ja_JP.eucJP");
    EXPECT_EQ(cp.GetCodePageName(), eucjp);
  }
  // Another locale with the same code page is another setup.
  cp._Reinitialize("UTF-8", nullptr);
  cp._Reinitialize("EUC-JP", nullptr);
  EXPECT_STREQ(cp.GetCodePageName(), "EUC-JP");
  EXPECT_STREQ(cp._GetAssociatedCLocale(), "C");
  EXPECT_NE(cp.GetCodePageName(), eucjp);
  EXPECT_EQ(kAsEucJp, decode(cp));
}

}  // namespace
