// The national-language core: detection from the locale environment (in
// fresh child processes, since it runs once per process), code page names and
// sizes, changes of language and their callbacks, the log writer.
#include "NUVSysNLSEnv.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

TEST(NUVSysNLSEnvDeathTest, DetectionFollowsThePosixPrecedence) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process: detection runs once
  // The variables LC_ALL, LC_CTYPE and LANG, then "<code page>|<locale entry>".
  const struct { const char *lcAll, *lcCtype, *lang, *expected; } cases[] = {
      {nullptr, nullptr, nullptr, "UTF-8|C"}, {"", "", "POSIX", "UTF-8|C"},
      {nullptr, nullptr, "fr_FR.ISO-8859-1", "ISO-8859-1|fr_FR"}, {"", "de_DE.utf8", "ja_JP.SJIS", "UTF-8|de_DE"},
      {"ja_JP.eucJP", "ko_KR.EUC-KR", "fr_FR.UTF-8", "EUC-JP|ja_JP"}, {nullptr, "C", "zh_CN.GB18030@stroke", "UTF-8|C"},
      {nullptr, nullptr, "zh_CN.gb18030@stroke", "GB18030|zh_CN"},
      {nullptr, nullptr, "xx_YY", "UTF-8|xx_YY"},  // no codeset, not installed
  };
  for (const auto& c : cases) {
    EXPECT_EXIT(runThenExit([&] {
                  setEnv("LC_ALL", c.lcAll);
                  setEnv("LC_CTYPE", c.lcCtype);
                  setEnv("LANG", c.lang);
                  NUVSysNLSEnv env;
                  GetEnvNLSData(env);
                  std::fprintf(stderr, "<%s|%s>", env.codePage, env.localeEntry);
                }),
                testing::ExitedWithCode(0), std::string("<") + c.expected + ">")
        << (c.lang ? c.lang : "(no LANG)");
  }
}

// How names are matched and sized, one of each kind; the table of known
// names itself is not repeated here.
TEST(NUVSysNLSEnv, CodePageNamesAndCharacterSizes) {
  const struct { const char* locale; const char* codePage; int maxSize; } cases[] = {
      {"en_US.utf8", "UTF-8", 4},     {"ja_JP.eucjp", "EUC-JP", 3},          {"ja_JP.Shift_JIS", "SHIFT_JIS", 2},
      {"de_DE.iso88591", "ISO-8859-1", 1}, {"pl_PL.ISO_8859-2", "ISO-8859-2", 1}, {"de_DE.windows-1252", "CP1252", 1},
      {"xx_XX.MYSTERY", "MYSTERY", 4}, {"C", "UTF-8", 4},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(NLSCoreChangeLanguage(c.locale), 0);
    NUVSysNLSEnv env;
    GetEnvNLSData(env);
    EXPECT_STREQ(env.codePage, c.codePage) << c.locale;
    EXPECT_EQ(NUVGetMultiByteCharMaxSize(), c.maxSize) << c.locale;
  }
  EXPECT_EQ(NLSCoreChangeLanguage(nullptr), -1);
}

std::vector<std::string> g_seen;
void onChange(const NUVSysNLSEnv& env) { g_seen.push_back(std::string(env.codePage) + "|" + env.localeEntry); }
void onChangeToo(const NUVSysNLSEnv&) { g_seen.push_back("too"); }

TEST(NUVSysNLSEnv, ChangeOfLanguageCallsEveryCallbackOnce) {
  EXPECT_EQ(NLSCoreRegisterCBOnChange(nullptr), -1);
  ASSERT_EQ(NLSCoreRegisterCBOnChange(onChange), 0);
  ASSERT_EQ(NLSCoreRegisterCBOnChange(onChange), 0);  // once only
  ASSERT_EQ(NLSCoreRegisterCBOnChange(onChangeToo), 0);
  g_seen.clear();
  ASSERT_EQ(NLSCoreChangeLanguage("ja_JP.eucJP"), 0);
  EXPECT_EQ(g_seen, (std::vector<std::string>{"EUC-JP|ja_JP", "too"}));
}

TEST(NUVSysNLSEnvDeathTest, LogWriterIsSwitchedByTheTraceVariable) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(runThenExit([] {
                setenv("NUVSysNLSCoreTrace", "1", 1);
                LogNLSCore(stderr, "line %d\n", 7);
              }),
              testing::ExitedWithCode(0), "^\\[PID:[0-9]+\\]line 7\n\n$");
  EXPECT_EXIT(runThenExit([] {
                setenv("NUVSysNLSCoreTrace", "256", 1);  // low 8 bits are 0
                LogNLSCore(stderr, "hidden");
                std::fprintf(stderr, "end");
              }),
              testing::ExitedWithCode(0), "^end$");
}

}  // namespace
