// KELUnicodeString: copy-on-write isolation for every change (appends in
// every combination of forms among them), the shared empty string as every
// empty result, builders and conversions, comparison and case, round trips on
// the corpora in legacy code pages (UTF-8 ones are the fuzz targets') and
// shared copies used by four threads. Random edit sequences against a std::u16string model are the
// fuzz target ustring_model's; UTF-8 in and out, ustring_utf8_conversions'.
#include "KELUnicodeString.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <clocale>
#include <functional>
#include <limits>
#include <new>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "FaultInjection.h"
#include "NUVSysNLSEnv.h"
#include "TestSupport.h"

namespace {

using Rep = KELInterUnicodeString;

std::u16string text(const KELUnicodeString& s) { return s.ToU16String(); }
Rep* rep(const KELUnicodeString& s) { return s._GetRepresentation(); }
Rep* emptyRep() { return Rep::_GetEmptyString(); }

KELUnicodeString mbcs(const char* t) { return KELUnicodeString(t); }
KELUnicodeString ucs(const char16_t* t) { return KELUnicodeString(std::u16string_view(t)); }

struct Change {
  const char* label;
  std::function<void(KELUnicodeString&)> apply;
  std::u16string expected;  // applied to u"  Ab\u00E9 \U0001F600 "
};

// The process code page is UTF-8 for these tests ("C" selects it) unless a
// test changes it.
struct Utf8CodePage : testing::Environment {
  void SetUp() override { NLSCoreChangeLanguage("C"); }
};
const testing::Environment* const kUtf8CodePage = testing::AddGlobalTestEnvironment(new Utf8CodePage);

const std::u16string kStart = u"  Ab\u00E9 \U0001F600 ";

std::vector<Change> changes() {
  return {
      {"+= string", [](KELUnicodeString& s) { s += ucs(u"x\u00FF"); }, kStart + u"x\u00FF"},
      {"+= code page text", [](KELUnicodeString& s) { s += "z\xC3\xA9"; }, kStart + u"z\u00E9"},
      {"+= itself", [](KELUnicodeString& s) { s += s; }, kStart + kStart},
      {"Insert itself", [](KELUnicodeString& s) { s.Insert(1, s); }, u" " + kStart + u" Ab\u00E9 \U0001F600 "},
      {"ReplaceSubString range", [](KELUnicodeString& s) { s.ReplaceSubString(2, 2, ucs(u"xyz")); },
       u"  xyz\u00E9 \U0001F600 "},
      {"ReplaceSubString text", [](KELUnicodeString& s) { EXPECT_EQ(s.ReplaceSubString(ucs(u" "), ucs(u"_")), 4); },
       u"__Ab\u00E9_\U0001F600_"},
      {"Resize down", [](KELUnicodeString& s) { s.Resize(4); }, u"  Ab"},
      {"Strip", [](KELUnicodeString& s) { s.Strip(); }, u"Ab\u00E9 \U0001F600"},
      {"ToUpper", [](KELUnicodeString& s) { s.ToUpper(); }, u"  AB\u00C9 \U0001F600 "},
      {"BuildFromUTF8", [](KELUnicodeString& s) { s.BuildFromUTF8("new"); }, u"new"},
  };
}

TEST(KELUnicodeString, AChangeToOneCopyNeverShowsInAnother) {
  for (const bool multiByte : {false, true}) {
    for (const Change& c : changes()) {
      SCOPED_TRACE(testing::Message() << c.label << (multiByte ? " (MBCS)" : " (UCS)"));
      KELUnicodeString original =
          multiByte ? mbcs("  Ab\xC3\xA9 \xF0\x9F\x98\x80 ") : KELUnicodeString(std::u16string_view(kStart));
      original.ConvertToChar();  // both views built, hash cached
      original.ComputeHashKey();
      Rep* block = rep(original);
      {
        KELUnicodeString copy(original);
        c.apply(copy);
        EXPECT_EQ(text(copy), c.expected);
        EXPECT_EQ(rep(original), block);
        EXPECT_EQ(text(original), kStart);
      }
      EXPECT_EQ(block->GetRefCount(), 1);
      EXPECT_TRUE(block->HasSecondView());

      // Sole owner: the change may happen in place, and must still drop the
      // view and the cached hash.
      c.apply(original);
      EXPECT_FALSE(rep(original)->HasSecondView());
      EXPECT_TRUE(rep(original)->IsHashDirty());
      EXPECT_EQ(text(original), c.expected);
      KELUnicodeString fresh(std::u16string_view(c.expected));
      EXPECT_EQ(original.ComputeHashKey(), fresh.ComputeHashKey());
    }
  }
}

TEST(KELUnicodeString, EveryEmptyResultIsTheSharedEmptyString) {
  KELUnicodeString s(u"abc  "), replaced(u"aaa"), repeated, moved(u"x");
  replaced.ReplaceSubString(ucs(u"a"), KELUnicodeString());
  repeated.BuildFromCodePoint('a', 0);
  const KELUnicodeString taker(std::move(moved));
  const std::pair<const char*, KELUnicodeString> results[] = {
      {"default", KELUnicodeString()},
      {"empty literal", mbcs("")},
      {"null text", KELUnicodeString(static_cast<const char*>(nullptr))},
      {"SubString past the end", s.SubString(9)},
      {"Remove all", KELUnicodeString(s).Remove(0)},
      {"Strip of blanks", KELUnicodeString(u"\t \u3000\u00A0").Strip()},
      {"Replace all by nothing", replaced},
      {"BuildFromCodePoint count 0", repeated},
      {"moved-from", moved},  // NOLINT(bugprone-use-after-move): a moved-from string is empty
  };
  for (const auto& [label, r] : results) EXPECT_EQ(rep(r), emptyRep()) << label;
  EXPECT_EQ(emptyRep()->GetRefCount(), 1);
}

TEST(KELUnicodeString, BuildersAndTheirErrors) {
  KELUnicodeString s;
  const unsigned short raw[] = {'h', 0xD800, 'i', 0};
  EXPECT_EQ(s.BuildFromUCChar(raw), 0);
  EXPECT_EQ(text(s), (std::u16string{'h', 0xD800, 'i'}));
  EXPECT_EQ(s.BuildFromWChar(L"\U0001F600x"), 0);
  EXPECT_EQ(text(s), u"\U0001F600x");
  EXPECT_EQ(s.BuildFromCodePoint(0x1F600, 2), 0);
  EXPECT_EQ(text(s), (std::u16string{0xD83D, 0xDE00, 0xD83D, 0xDE00}));

  EXPECT_EQ(s.BuildFromCodePoint(0x10FFFF), 0);  // the last code point still builds
  EXPECT_EQ(text(s), (std::u16string{0xDBFF, 0xDFFF}));

  // Failures never answer 0: a builder leaves the string empty, Resize leaves
  // it as it was. Lengths past the limit are refused before any text is read.
  const int kNoMemory = SystemTSResultFromErrno(ENOMEM);
  const wchar_t negative[] = {L'a', static_cast<wchar_t>(-1), 0};
  const wchar_t beyond[] = {0x110000, 0};
  const struct { const char* label; std::function<int(KELUnicodeString&)> call; int result; bool kept; } kFailures[] = {
      {"UTF-8 null with length", [](KELUnicodeString& x) { return x.BuildFromUTF8(nullptr, 3); }, E_INVALIDARG, false},
      {"UTF-16 null with length", [](KELUnicodeString& x) { return x.BuildFromUCChar(nullptr, 3); }, E_INVALIDARG, false},
      {"wchar_t null with length", [](KELUnicodeString& x) { return x.BuildFromWChar(nullptr, 3); }, E_INVALIDARG, false},
      {"UTF-8 length -2", [](KELUnicodeString& x) { return x.BuildFromUTF8("abc", -2); }, E_INVALIDARG, false},
      {"code point above U+10FFFF", [](KELUnicodeString& x) { return x.BuildFromCodePoint(0x110000); }, E_INVALIDARG, false},
      {"code point 0xFFFFFFFF", [](KELUnicodeString& x) { return x.BuildFromCodePoint(0xFFFFFFFFu, 3); }, E_INVALIDARG, false},
      {"negative wchar_t", [&](KELUnicodeString& x) { return x.BuildFromWChar(negative); }, E_INVALIDARG, false},
      {"wchar_t above U+10FFFF", [&](KELUnicodeString& x) { return x.BuildFromWChar(beyond, 1); }, E_INVALIDARG, false},
      {"2^40 code points", [](KELUnicodeString& x) { return x.BuildFromCodePoint('a', 1UL << 40); }, kNoMemory, false},
      {"over 2^30 units in pairs", [](KELUnicodeString& x) { return x.BuildFromCodePoint(0x1F600, (1UL << 29) + 1); }, kNoMemory, false},
      {"UTF-8 past the limit", [](KELUnicodeString& x) { return x.BuildFromUTF8("a", 1 << 30); }, kNoMemory, false},
      {"wchar_t past the limit", [](KELUnicodeString& x) { return x.BuildFromWChar(L"a", (1 << 29) + 1); }, kNoMemory, false},
      {"Resize(INT_MAX)", [](KELUnicodeString& x) { return x.Resize(std::numeric_limits<int>::max()); }, kNoMemory, true},
      {"Resize past the limit", [](KELUnicodeString& x) { return x.Resize((1 << 30) + 1, u'x'); }, kNoMemory, true},
  };
  for (const auto& c : kFailures) {
    SCOPED_TRACE(c.label);
    KELUnicodeString x(u"old"), copy = x;
    Rep* before = rep(x);
    EXPECT_EQ(c.call(x), c.result);
    EXPECT_EQ(rep(x), c.kept ? before : emptyRep());
    EXPECT_EQ(text(copy), u"old");
  }
  EXPECT_EQ(s.BuildFromUTF8(nullptr), 0);
  EXPECT_TRUE(s.IsNull());
  s = ucs(u"abc");
  EXPECT_EQ(s.Resize(5, u'.'), 0);
  EXPECT_EQ(text(s), u"abc..");
}

template <class Number>
std::u16string formatted(Number v) {
  KELUnicodeString s;
  s.BuildFromNum(v);
  return text(s);
}

TEST(KELUnicodeString, NumbersAlwaysUseADotWhateverTheLocale) {
  // A locale with a decimal comma, when the machine has one.
  const char* old = std::setlocale(LC_ALL, nullptr);
  const std::string saved = old ? old : "C";
  SCOPED_TRACE(std::setlocale(LC_ALL, "de_DE.UTF-8") != nullptr ? "de_DE" : "C");
  EXPECT_EQ(formatted(-2147483647 - 1), u"-2147483648");
  EXPECT_EQ(formatted(18446744073709551615ULL), u"18446744073709551615");
  EXPECT_EQ(formatted(0.1), u"0.1");
  EXPECT_EQ(formatted(1e20), u"1e+20");
  EXPECT_EQ(formatted(-0.0), u"-0");
  EXPECT_EQ(formatted(-std::numeric_limits<double>::infinity()), u"-inf");
  EXPECT_EQ(formatted(-std::numeric_limits<double>::quiet_NaN()), u"nan");
  std::setlocale(LC_ALL, saved.c_str());
}

TEST(KELUnicodeString, ConversionsOut) {
  const KELUnicodeString s(u"a\u00E9\u20AC\U0001F600");  // 1 + 2 + 3 + 4 UTF-8 bytes
  EXPECT_EQ(s.ConvertToWChar(), L"a\u00E9\u20AC\U0001F600");
  // Into a buffer (every size is the fuzz target ustring_utf8_conversions'):
  // whole characters and the NUL, the full length returned.
  char buf[10];
  EXPECT_EQ(s.ConvertToUTF8(buf, 10), 10);
  EXPECT_STREQ(buf, "a\xC3\xA9\xE2\x82\xAC");  // no room for the NUL after the emoji
  EXPECT_EQ(s.ConvertToUTF8(nullptr, 0), 10);
  EXPECT_EQ(s.ConvertToUTF8(nullptr, 5), -1);
  char one[1];
  EXPECT_EQ(s.ConvertToUTF8(one, -1), -1);
  std::ostringstream out;
  out << s;
  EXPECT_EQ(out.str(), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(s[1], 0xE9);
  EXPECT_EQ(s[-1], 0);
  EXPECT_EQ(s[5], 0);
}

TEST(KELUnicodeString, ComparisonByUnitsAndWithoutCase) {
  // Across the forms: the corpora's round trips.
  const struct { const char16_t *a, *b; int compare, noCase; } cases[] = {
      {u"abc", u"abd", -1, -1},
      {u"ab", u"abc", -1, -1},
      {u"\u00C9COLE", u"\u00E9cole", -1, 0},
      {u"\u03A3\u03C2", u"\u03C3\u03C3", -1, 0},      // final sigma folds to sigma
      {u"STRASSE", u"stra\u00DFe", -1, -1},           // simple folding: no ß -> ss
      {u"\U00010400", u"\U00010428", -1, 0},         // Deseret, beyond the BMP
      {u"\uFFFF", u"\U00010000", 1, 1},              // by code units: the pair sorts first
      {u"K", u"\u212A", -1, 0},                       // KELVIN SIGN folds to k
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << std::u16string(c.a).size() << " units vs " << std::u16string(c.b).size());
    const KELUnicodeString a = ucs(c.a), b = ucs(c.b);
    EXPECT_EQ(a.Compare(b), c.compare);
    EXPECT_EQ(b.Compare(a), -c.compare);
    EXPECT_EQ(a.CompareNoCase(b), c.noCase);
    EXPECT_EQ(b.CompareNoCase(a), -c.noCase);
  }
}

TEST(KELUnicodeString, CaseMappingIsFullSimpleMapping) {
  const struct { const char16_t *in, *upper, *lower; } cases[] = {
      {u"\u00E9t\u00E9 \u00FF", u"\u00C9T\u00C9 \u0178", u"\u00E9t\u00E9 \u00FF"},
      {u"stra\u00DFe", u"STRA\u00DFE", u"stra\u00DFe"},  // ß has no simple uppercase
      {u"\u0130I", u"\u0130I", u"ii"},                    // İ lowers to i (simple mapping)
      {u"\u01C6\u01C5", u"\u01C4\u01C4", u"\u01C6\u01C6"},
      {u"\u24D0\uFF41", u"\u24B6\uFF21", u"\u24D0\uFF41"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(KELUnicodeString(std::u16string_view(c.in)).ConvertToUTF8());
    KELUnicodeString up = ucs(c.in), low = ucs(c.in);
    EXPECT_EQ(text(up.ToUpper()), c.upper);
    EXPECT_EQ(text(low.ToLower()), c.lower);
  }
  // Unpaired surrogates pass through.
  KELUnicodeString odd(std::u16string{'a', 0xD801, 'b', 0xDC28});
  EXPECT_EQ(text(odd.ToUpper()), (std::u16string{'A', 0xD801, 'B', 0xDC28}));
}

TEST(KELUnicodeString, NullHandleIsTolerated) {
  alignas(KELUnicodeString) unsigned char storage[sizeof(KELUnicodeString)] = {};
  auto* s = std::launder(reinterpret_cast<KELUnicodeString*>(storage));
  EXPECT_TRUE(s->IsNull());
  EXPECT_STREQ(s->ConvertToChar(), "");
  *s += ucs(u"x");
  s->Insert(0, ucs(u"y")).Remove(0).ToUpper().Strip();
  s->Pack();
  EXPECT_EQ(rep(*s), nullptr);
  EXPECT_TRUE(*s == KELUnicodeString());
  KELUnicodeString copy(*s);
  EXPECT_EQ(rep(copy), nullptr);
  *s = "now";
  EXPECT_EQ(text(*s), u"now");
  s->~KELUnicodeString();
}

// Each corpus in the process code page it is written in: the two forms are
// one text, and it comes back to the same bytes and through UTF-8.
TEST(KELUnicodeString, RoundTripsOnTheCorpora) {
  const struct {
    const char* file;
    const char* locale;
  } cases[] = {{"latin.cp1252.txt", "fr_FR.CP1252"},
               {"cjk.shift_jis.txt", "ja_JP.SJIS"},
               {"cjk.gb18030.txt", "zh_CN.GB18030"}};
  for (const auto& c : cases) {
    const std::string bytes = readCorpus(c.file);
    if (bytes.empty()) GTEST_SKIP() << "corpus " << c.file << " not found under " << SYSTEMTS_CORPORA_DIR;
    SCOPED_TRACE(c.file);
    ASSERT_EQ(NLSCoreChangeLanguage(c.locale), 0);
    const KELUnicodeString m = mbcs(bytes.c_str());
    const KELUnicodeString u(m.ToU16StringView());  // UTF-16 primary form of the same text
    EXPECT_EQ(std::string(u.ConvertToChar()), bytes);
    EXPECT_EQ(u.GetLengthInByte(), static_cast<int>(bytes.size()));
    EXPECT_EQ(m.Compare(u), 0);
    EXPECT_EQ(std::unordered_set<KELUnicodeString>{m}.count(u), 1u);  // std::hash and == across the forms
    EXPECT_EQ(KELUnicodeString::FromUTF8(u.ConvertToUTF8()), u);
  }
  NLSCoreChangeLanguage("C");
}

// Copies of one string read, converted and hashed by four threads at once
// while each thread also changes copies of its own: every read sees the whole
// text, the second view is installed once, and no change shows in the shared
// string. Each round starts from fresh shared strings (no view built, hash
// stale), released to all threads at once. Run under ThreadSanitizer as well.
TEST(KELUnicodeStringConcurrency, SharedCopiesReadAndChangedByFourThreads) {
  constexpr int kThreads = 4;
  NLSCoreChangeLanguage("C");  // UTF-8 process code page
  const std::string utf8 = "Gr\xC3\xBC\xC3\x9F" "e \xE4\xB8\x96\xE7\x95\x8C \xF0\x9F\x98\x80!";
  const KELUnicodeString reference = KELUnicodeString::FromUTF8(utf8);
  const std::u16string units = reference.ToU16String();
  const int length = static_cast<int>(units.size());
  const unsigned hash = reference.ComputeHashKey();
  std::atomic<int> failures{0};
  for (int round = 0; round < 50; ++round) {
    const KELUnicodeString mb(utf8.c_str());                       // multi-byte primary form
    const KELUnicodeString uc = KELUnicodeString::FromUTF8(utf8);  // UTF-16 primary form
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        ready.fetch_add(1);
        while (!go.load(std::memory_order_acquire)) std::this_thread::yield();
        for (int i = 0; i < 20; ++i) {
          const KELUnicodeString& shared = (i + t) % 2 ? mb : uc;
          KELUnicodeString copy(shared);
          bool ok = copy.GetLengthInChar() == length && copy.ToU16StringView() == units &&
                    copy.ConvertToChar() == utf8 && copy.GetLengthInByte() == static_cast<int>(utf8.size()) &&
                    copy.ComputeHashKey() == hash && copy.ConvertToUTF8() == utf8;
          KELUnicodeString mine(copy);
          mine += static_cast<char16_t>(u'a' + t);
          mine.ToUpper();
          ok = ok && mine.GetLengthInChar() == length + 1 && mine[length] == u'A' + t &&
               shared.ToU16StringView() == units && copy == shared;
          if (!ok) failures.fetch_add(1);
        }
      });
    }
    while (ready.load() < kThreads) std::this_thread::yield();
    go.store(true, std::memory_order_release);
    for (std::thread& th : threads) th.join();
    // Every thread let its copies go.
    EXPECT_EQ(rep(mb)->GetRefCount(), 1);
    EXPECT_EQ(rep(uc)->GetRefCount(), 1);
  }
  EXPECT_EQ(failures.load(), 0);
}


// ---- failures of the operating system ----

TEST(KELUnicodeStringFaults, TextThatCannotBeAllocatedLeavesTheStringEmpty) {
  using systemts::detail::SysCalls;
  // Longer than the pooled blocks and than the stack buffer of ConvertToUTF8.
  const std::string longText(3000, 'a');
  const std::u16string longUnits(3000, u'a'), upper(3000, u'A');
  const struct { const char* what; std::function<std::u16string(KELUnicodeString&)> run; std::u16string healed; } kCases[] = {
      {"BuildFromUTF8", [&](KELUnicodeString& s) { s.BuildFromUTF8(longText.c_str()); return text(s); }, longUnits},
      {"ToUpper", [](KELUnicodeString& s) { s.ToUpper(); return text(s); }, upper},
      {"ConvertToUTF8", [](KELUnicodeString& s) { return ucs(s.ConvertToUTF8().empty() ? u"" : u"x").ToU16String(); }, u"x"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    KELUnicodeString s = ucs(longUnits.c_str());
    {
      Fault<&SysCalls::malloc> m(ENOMEM, nullptr, 1, Fault<&SysCalls::malloc>::kAlways);
      Fault<&SysCalls::realloc> r(ENOMEM, nullptr, 1, Fault<&SysCalls::realloc>::kAlways);
      EXPECT_EQ(u"", c.run(s));
      EXPECT_EQ(1, m.failed() + r.failed());
    }
    s = ucs(longUnits.c_str());
    EXPECT_EQ(c.healed, c.run(s));
  }
}

}  // namespace
