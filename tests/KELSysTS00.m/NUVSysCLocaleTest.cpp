// NUVSysCLocale: per-thread switching and restoring, isolation between
// threads, and the conventions served as wide strings.
#include "NUVSysCLocale.h"

#include <gtest/gtest.h>
#include <locale.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <thread>

#include "FaultInjection.h"

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

TEST(NUVSysCLocale, ThreadLCInstallsResetRestoresAndLocaleStrings) {
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
  EXPECT_STREQ(NUVSysCLocale::SetLocale(LC_NUMERIC, nullptr), "C");
  EXPECT_STREQ(NUVSysCLocale::GetLocaleBeforeLoad(), "C");
  // No locale name: refused, nothing installed; no result pointer: no crash.
  NUVSysCLocale::ThreadLC bad(LC_NUMERIC, nullptr, &r), noResult(LC_ALL, nullptr, nullptr);
  EXPECT_EQ(r, E_FAIL);
  EXPECT_FALSE(NUVSysCLocaleIsPerThread());

  // The locale string of a language entry.
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

// Conventions come from the thread's locale, converted to wide strings; a
// nested switch is undone in order.
TEST(NUVSysCLocale, NestedSwitchesAndTheirConventions) {
  NUVSysCLocale::LConv conv;
  NUVSysCLocale::GetLCConv(conv);  // thread on the global "C" locale
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

// ---- failures of the operating system ----

using systemts::detail::SysCalls;
using NewLocale = Fault<&SysCalls::newLocale>;
constexpr const char* kOther = "C.UTF-8";  // always there on the systems we build on

std::string ctypeName() { return setlocale(LC_CTYPE, nullptr); }

// Whether a ThreadLC on another thread gets through (the global lock of the
// fallback is free), giving its result.
int switchOnAnotherThread(int category) {
  auto done = std::async(std::launch::async, [category] {
    int r = -7;
    NUVSysCLocale::ThreadLC lc(category, kOther, &r);
    return r;
  });
  if (done.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
    ADD_FAILURE() << "the global lock was left held";
    std::_Exit(1);
  }
  return done.get();
}

// Done once before faults are installed: the capture of the host's locale
// and the detection of the environment, which use the same calls.
void primeLocaleState() {
  NUVSysCLocale::GetLocaleBeforeLoad();
  NUVSysCLocaleEnvironGet();
}

TEST(NUVSysCLocaleFaults, PerThreadFailuresFallBackToTheProcessLocale) {
  primeLocaleState();
  const std::string before = ctypeName();
  ASSERT_NE(before, kOther);
  // From the global locale: query, base from the environment, the changed
  // locale, install. LC_ALL (6) makes one locale, with no base.
  const struct { const char* what; int category; long useNth, newNth; } kCases[] = {
      {"uselocale query", LC_CTYPE, 1, 0}, {"uselocale install", LC_CTYPE, 2, 0}, {"newlocale base", LC_CTYPE, 0, 1},
      {"newlocale changed", LC_CTYPE, 0, 2}, {"newlocale all", 6, 0, 1}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    Fault<&SysCalls::useLocale> use(EINVAL, nullptr, c.useNth ? c.useNth : 1, c.useNth ? 1 : 0);
    NewLocale made(ENOMEM, nullptr, c.newNth ? c.newNth : 1, c.newNth ? 1 : 0);
    int r = -7;
    NUVSysCLocale::ThreadLC lc(c.category, kOther, &r);
    EXPECT_EQ(0, r);
    EXPECT_EQ(1, use.failed() + made.failed());
    EXPECT_FALSE(NUVSysCLocaleIsPerThread());
    EXPECT_EQ(kOther, ctypeName());  // switched for the whole process
    lc.Reset();
    EXPECT_EQ(before, ctypeName());
    EXPECT_EQ(0, switchOnAnotherThread(c.category));  // per thread again, and the lock is free
  }
  // On a thread with a locale of its own, the base is a copy of that locale.
  int outer = -7;
  NUVSysCLocale::ThreadLC own(LC_NUMERIC, "C", &outer);
  ASSERT_EQ(0, outer);
  {
    Fault<&SysCalls::dupLocale> copy(ENOMEM, nullptr);
    int r = -7;
    NUVSysCLocale::ThreadLC lc(LC_CTYPE, kOther, &r);
    EXPECT_EQ(0, r);
    EXPECT_EQ(1, copy.failed());
    EXPECT_EQ(kOther, ctypeName());
  }
  EXPECT_EQ(before, ctypeName());
  EXPECT_TRUE(NUVSysCLocaleIsPerThread());
}

TEST(NUVSysCLocaleFaults, FailuresOfTheFallbackSwitchNothingAndReleaseTheLock) {
  primeLocaleState();
  const std::string before = ctypeName();
  NewLocale never(ENOMEM, nullptr, 1, NewLocale::kAlways);  // every ThreadLC takes the fallback
  // The fallback reads the current name, copies it, then switches.
  const struct { const char* what; int (*fail)(); int result; } kCases[] = {
      {"read", [] { Fault<&SysCalls::setLocale> f(ENOMEM, nullptr, 1); int r; NUVSysCLocale::ThreadLC lc(LC_CTYPE, kOther, &r); return r; }, E_FAIL},
      {"copy", [] { Fault<&SysCalls::malloc> f(ENOMEM, nullptr, 1); int r; NUVSysCLocale::ThreadLC lc(LC_CTYPE, kOther, &r); return r; }, E_FAIL},
      {"switch", [] { Fault<&SysCalls::setLocale> f(ENOENT, nullptr, 2); int r; NUVSysCLocale::ThreadLC lc(LC_CTYPE, kOther, &r); return r; }, E_INVALIDARG},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(c.result, c.fail());
    EXPECT_EQ(before, ctypeName());
    EXPECT_EQ(0, switchOnAnotherThread(LC_CTYPE));  // through the fallback: the lock is free
    EXPECT_EQ(before, ctypeName());
  }
}

TEST(NUVSysCLocaleFaults, AThreadWhoseLocaleCannotBeReadIsTakenAsGlobal) {
  primeLocaleState();
  int r = -7;
  NUVSysCLocale::ThreadLC lc(LC_NUMERIC, "C", &r);
  ASSERT_EQ(0, r);
  ASSERT_TRUE(NUVSysCLocaleIsPerThread());
  Fault<&SysCalls::useLocale> f(EINVAL, nullptr, 1, Fault<&SysCalls::useLocale>::kAlways);
  EXPECT_FALSE(NUVSysCLocaleIsPerThread());
  // The conventions then come from the process locale, under the global lock.
  NUVSysCLocale::LConv conv;
  EXPECT_EQ(0, NUVSysCLocale::GetLCConv(conv));
  EXPECT_STREQ(L".", conv.decimal_point());
  EXPECT_EQ(2, f.failed());
  f.heal();
  EXPECT_TRUE(NUVSysCLocaleIsPerThread());
  EXPECT_EQ(0, switchOnAnotherThread(LC_CTYPE));
}

}  // namespace
