// NUVSysCLocale: per-thread switching and restoring, isolation between
// threads, and the conventions served as wide strings.
#include "NUVSysCLocale.h"

#include <gtest/gtest.h>
#include <locale.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

namespace {

// A locale that writes a decimal comma; CI generates it.
constexpr const char* kCommaLocale = "de_DE.UTF-8";

bool haveLocale(const char* name) {
  locale_t l = newlocale(LC_ALL_MASK, name, static_cast<locale_t>(nullptr));
  if (l == static_cast<locale_t>(nullptr)) return false;
  freelocale(l);
  return true;
}

std::string formatted(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", v);
  return text;
}

TEST(NUVSysCLocale, ThreadLCInstallsAndResetRestoresTheGlobalLocale) {
  ASSERT_FALSE(NUVSysCLocaleIsPerThread());
  EXPECT_EQ(NUVSysCLocaleSetPerThread(true), -1);
  EXPECT_EQ(NUVSysCLocaleSetPerThread(false), 0);
  int r = -7;
  {
    NUVSysCLocale::ThreadLC lc(LC_NUMERIC, "C", &r);
    EXPECT_EQ(r, 0);
    EXPECT_TRUE(NUVSysCLocaleIsPerThread());
    EXPECT_EQ(NUVSysCLocaleSetPerThread(true), 0);
    EXPECT_EQ(NUVSysCLocale::SetLocale(LC_ALL, nullptr), nullptr);  // refused on a private locale
    lc.Reset();
    EXPECT_EQ(uselocale(static_cast<locale_t>(nullptr)), LC_GLOBAL_LOCALE);
    lc.Reset();  // nothing left to do
  }
  EXPECT_FALSE(NUVSysCLocaleIsPerThread());
  ASSERT_NE(NUVSysCLocale::SetLocale(LC_NUMERIC, nullptr), nullptr);
  EXPECT_STREQ(NUVSysCLocale::SetLocale(LC_NUMERIC, nullptr), "C");
  EXPECT_STREQ(NUVSysCLocale::GetLocaleBeforeLoad(), "C");
  // No locale name: refused, nothing installed; no result pointer: no crash.
  NUVSysCLocale::ThreadLC bad(LC_NUMERIC, nullptr, &r), noResult(LC_ALL, nullptr, nullptr);
  EXPECT_EQ(r, E_FAIL);
  EXPECT_FALSE(NUVSysCLocaleIsPerThread());
}

// Conventions come from the thread's locale, converted to wide strings; a
// nested switch is undone in order.
TEST(NUVSysCLocale, NestedSwitchesAndTheirConventions) {
  NUVSysCLocale::LConv conv;
  NUVSysCLocale::GetLCConv(conv);  // thread on the global "C" locale
  ASSERT_NE(conv.decimal_point(), nullptr);
  EXPECT_STREQ(conv.decimal_point(), L".");
  EXPECT_STREQ(conv.thousands_sep(), L"");
  EXPECT_NE(conv.frac_digits(), L'\0');  // "not available" in C, but filled

  if (!haveLocale(kCommaLocale)) GTEST_SKIP() << "locale " << kCommaLocale << " is not installed";
  int r = -1;
  NUVSysCLocale::ThreadLC outer(LC_ALL, kCommaLocale, &r);
  ASSERT_EQ(r, 0);
  NUVSysCLocale::GetLCConv(conv);
  EXPECT_STREQ(conv.decimal_point(), L",");
  EXPECT_STREQ(conv.thousands_sep(), L".");
  EXPECT_STREQ(conv.currency_symbol(), L"\u20ac");  // converted from UTF-8
  EXPECT_STREQ(conv.int_curr_symbol(), L"EUR ");
  EXPECT_EQ(conv.frac_digits(), L'\2');
  EXPECT_EQ(formatted(1.5), "1,5");
  {
    NUVSysCLocale::ThreadLC inner(LC_NUMERIC, "C", &r);
    ASSERT_EQ(r, 0);
    EXPECT_EQ(formatted(1.5), "1.5");
  }
  EXPECT_EQ(formatted(1.5), "1,5");
  outer.Reset();
  EXPECT_EQ(formatted(1.5), "1.5");
  EXPECT_EQ(uselocale(static_cast<locale_t>(nullptr)), LC_GLOBAL_LOCALE);
  // Refilling forgets the old values and takes the current locale's.
  NUVSysCLocale::GetLCConv(conv);
  EXPECT_STREQ(conv.decimal_point(), L".");
}

// Two threads format numbers at once under different locales.
TEST(NUVSysCLocale, ThreadsKeepTheirOwnLocales) {
  if (!haveLocale(kCommaLocale)) GTEST_SKIP() << "locale " << kCommaLocale << " is not installed";
  auto run = [](const char* name, const char* expected, const wchar_t* point, bool* ok) {
    int r = -1;
    NUVSysCLocale::ThreadLC lc(LC_NUMERIC, name, &r);
    NUVSysCLocale::LConv conv;
    NUVSysCLocale::GetLCConv(conv);
    *ok = r == 0 && conv.decimal_point() != nullptr && std::wcscmp(conv.decimal_point(), point) == 0;
    for (int i = 0; i < 20000 && *ok; ++i) *ok = formatted(2.5) == expected;
  };
  bool commaOk = false, pointOk = false;
  std::thread comma(run, kCommaLocale, "2,5", L",", &commaOk);
  std::thread point(run, "C", "2.5", L".", &pointOk);
  comma.join();
  point.join();
  EXPECT_TRUE(commaOk);
  EXPECT_TRUE(pointOk);
}

TEST(NUVSysCLocale, LocaleStringFromLanguageEntry) {
  char buffer[85];
  for (const char* name : {"C", "de_DE.UTF-8"}) {
    EXPECT_EQ(NUVSysCLocale::GetLocaleStringFromLangString(name, buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, name);
  }
  EXPECT_EQ(NUVSysCLocale::GetLocaleStringFromLangString("fr_FR", buffer, sizeof buffer), 0);
  EXPECT_EQ(std::strncmp(buffer, "fr_FR.", 6), 0) << buffer;  // the process code page follows
  EXPECT_EQ(NUVSysCLocale::GetLocaleStringFromLangString("fr_FR", buffer, 6), -1);  // no room
  EXPECT_STREQ(buffer, "");
  EXPECT_EQ(NUVSysCLocale::GetLocaleStringFromLangString(nullptr, buffer, sizeof buffer), -1);
  EXPECT_EQ(NUVSysCLocale::GetLocaleStringFromLangString("C", nullptr, 85), -1);
  EXPECT_TRUE(haveLocale(NUVSysCLocaleEnvironGet())) << NUVSysCLocaleEnvironGet();
}

}  // namespace
