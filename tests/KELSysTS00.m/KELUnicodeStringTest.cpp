// KELUnicodeString: copy-on-write isolation for every change, the shared
// empty string as every empty result, builders and conversions, comparison
// and case, a fixed-seed differential run against std::u16string, and round
// trips on the corpora (UTF-8 and the legacy code pages).
#include "KELUnicodeString.h"

#include <gtest/gtest.h>

#include <atomic>
#include <clocale>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <new>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "NUVSysNLSEnv.h"

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
      {"+= unit", [](KELUnicodeString& s) { s += u'!'; }, kStart + u"!"},
      {"AppendCodePoint", [](KELUnicodeString& s) { s.AppendCodePoint(0x10400); }, kStart + u"\U00010400"},
      {"+= itself", [](KELUnicodeString& s) { s += s; }, kStart + kStart},
      {"Insert", [](KELUnicodeString& s) { s.Insert(2, ucs(u"[]")); }, u"  []Ab\u00E9 \U0001F600 "},
      {"Insert itself", [](KELUnicodeString& s) { s.Insert(1, s); }, u" " + kStart + u" Ab\u00E9 \U0001F600 "},
      {"Remove", [](KELUnicodeString& s) { s.Remove(0, 2); }, u"Ab\u00E9 \U0001F600 "},
      {"ReplaceSubString range", [](KELUnicodeString& s) { s.ReplaceSubString(2, 2, ucs(u"xyz")); },
       u"  xyz\u00E9 \U0001F600 "},
      {"ReplaceSubString text", [](KELUnicodeString& s) { EXPECT_EQ(s.ReplaceSubString(ucs(u" "), ucs(u"_")), 4); },
       u"__Ab\u00E9_\U0001F600_"},
      {"Resize down", [](KELUnicodeString& s) { s.Resize(4); }, u"  Ab"},
      {"Resize up", [](KELUnicodeString& s) { s.Resize(11, u'.'); }, kStart + u".."},
      {"Strip", [](KELUnicodeString& s) { s.Strip(); }, u"Ab\u00E9 \U0001F600"},
      {"Strip leading", [](KELUnicodeString& s) { s.Strip(KELUnicodeString::kStripLeading); },
       u"Ab\u00E9 \U0001F600 "},
      {"ToUpper", [](KELUnicodeString& s) { s.ToUpper(); }, u"  AB\u00C9 \U0001F600 "},
      {"ToLower", [](KELUnicodeString& s) { s.ToLower(); }, u"  ab\u00E9 \U0001F600 "},
      {"BuildFromUTF8", [](KELUnicodeString& s) { s.BuildFromUTF8("new"); }, u"new"},
      {"assign code page text", [](KELUnicodeString& s) { s = "q"; }, u"q"},
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
        EXPECT_EQ(rep(copy), block);
        EXPECT_EQ(block->GetRefCount(), 2);
        c.apply(copy);
        EXPECT_EQ(text(copy), c.expected);
        EXPECT_NE(rep(copy), block);
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
  KELUnicodeString s(u"abc  ");
  const std::vector<std::pair<const char*, KELUnicodeString>> results = {
      {"default", KELUnicodeString()},
      {"empty literal", mbcs("")},
      {"null text", KELUnicodeString(static_cast<const char*>(nullptr))},
      {"empty UTF-16", ucs(u"")},
      {"SubString past the end", s.SubString(9)},
      {"SubString of length 0", s.SubString(1, 0)},
      {"Remove all", KELUnicodeString(s).Remove(0)},
      {"Resize(0)", KELUnicodeString(s).Resize(0)},
      {"Strip of blanks", KELUnicodeString(u"\t \u3000\u00A0").Strip()},
      {"Replace all by nothing", [] {
         KELUnicodeString r(u"aaa");
         r.ReplaceSubString(ucs(u"a"), KELUnicodeString());
         return r;
       }()},
      {"BuildFromUTF8(\"\")", [] {
         KELUnicodeString r(u"x");
         r.BuildFromUTF8("");
         return r;
       }()},
      {"BuildFromCodePoint count 0", [] {
         KELUnicodeString r;
         r.BuildFromCodePoint('a', 0);
         return r;
       }()},
      {"FromUTF8", KELUnicodeString::FromUTF8("")},
      {"empty + empty", KELUnicodeString() + KELUnicodeString()},
      {"moved-from", [] {
         KELUnicodeString a(u"x");
         KELUnicodeString b(std::move(a));
         return a;  // NOLINT(bugprone-use-after-move): the moved-from state is specified
       }()},
  };
  for (const auto& [label, r] : results) {
    SCOPED_TRACE(label);
    EXPECT_EQ(rep(r), emptyRep());
    EXPECT_TRUE(r.IsNull());
    EXPECT_EQ(r.GetLengthInChar(), 0);
  }
  EXPECT_EQ(emptyRep()->GetRefCount(), 1);
}

TEST(KELUnicodeString, BuildersAndTheirErrors) {
  KELUnicodeString s;
  EXPECT_EQ(s.BuildFromUTF8("a\xC3\xA9\xF0\x9F\x98\x80"), 0);
  EXPECT_EQ(text(s), u"a\u00E9\U0001F600");
  EXPECT_EQ(s.BuildFromUTF8("\x80z", 2), 0);  // a stray byte passes through
  EXPECT_EQ(text(s), u"\u0080z");
  EXPECT_EQ(s.BuildFromUTF8("\xF1", 1), 0);  // cut four-byte lead: U+40000, a pair from one byte
  EXPECT_EQ(s.GetLengthInChar(), 2);
  const unsigned short raw[] = {'h', 0xD800, 'i', 0};
  EXPECT_EQ(s.BuildFromUCChar(raw), 0);
  EXPECT_EQ(text(s), (std::u16string{'h', 0xD800, 'i'}));
  EXPECT_EQ(s.BuildFromWChar(L"\U0001F600x"), 0);
  EXPECT_EQ(text(s), u"\U0001F600x");
  EXPECT_EQ(s.BuildFromCodePoint(0x1F600, 2), 0);
  EXPECT_EQ(text(s), (std::u16string{0xD83D, 0xDE00, 0xD83D, 0xDE00}));

  for (auto build : std::vector<std::function<int(KELUnicodeString&)>>{
           [](KELUnicodeString& x) { return x.BuildFromUTF8(nullptr, 3); },
           [](KELUnicodeString& x) { return x.BuildFromUCChar(nullptr, 3); },
           [](KELUnicodeString& x) { return x.BuildFromWChar(nullptr, 3); },
           [](KELUnicodeString& x) { return x.BuildFromUTF8("abc", -2); }}) {
    KELUnicodeString x(u"old");
    EXPECT_EQ(build(x), E_INVALIDARG);
    EXPECT_EQ(rep(x), emptyRep());
  }
  EXPECT_EQ(s.BuildFromUTF8(nullptr), 0);
  EXPECT_TRUE(s.IsNull());
}

TEST(KELUnicodeString, NumbersAlwaysUseADotWhateverTheLocale) {
  // A locale with a decimal comma, when the machine has one.
  const char* old = std::setlocale(LC_ALL, nullptr);
  const std::string saved = old ? old : "C";
  const bool comma = std::setlocale(LC_ALL, "de_DE.UTF-8") != nullptr;
  struct Case {
    std::function<void(KELUnicodeString&)> build;
    const char16_t* expected;
  } const cases[] = {
      {[](KELUnicodeString& s) { s.BuildFromNum(-2147483647 - 1); }, u"-2147483648"},
      {[](KELUnicodeString& s) { s.BuildFromNum(0u); }, u"0"},
      {[](KELUnicodeString& s) { s.BuildFromNum(18446744073709551615ULL); }, u"18446744073709551615"},
      {[](KELUnicodeString& s) { s.BuildFromNum(-42L); }, u"-42"},
      {[](KELUnicodeString& s) { s.BuildFromNum(1.5); }, u"1.5"},
      {[](KELUnicodeString& s) { s.BuildFromNum(0.1); }, u"0.1"},
      {[](KELUnicodeString& s) { s.BuildFromNum(1e20); }, u"1e+20"},
      {[](KELUnicodeString& s) { s.BuildFromNum(-0.0); }, u"-0"},
      {[](KELUnicodeString& s) { s.BuildFromNum(-std::numeric_limits<double>::infinity()); }, u"-inf"},
      {[](KELUnicodeString& s) { s.BuildFromNum(-std::numeric_limits<double>::quiet_NaN()); }, u"nan"},
  };
  for (const Case& c : cases) {
    KELUnicodeString s;
    c.build(s);
    EXPECT_EQ(text(s), c.expected) << (comma ? "(de_DE)" : "(C)");
  }
  std::setlocale(LC_ALL, saved.c_str());
}

TEST(KELUnicodeString, ConversionsOut) {
  const KELUnicodeString s(u"a\u00E9\u20AC\U0001F600");  // 1 + 2 + 3 + 4 UTF-8 bytes
  EXPECT_EQ(s.ConvertToUTF8(), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_STREQ(s.ConvertToChar(), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");  // the code page is UTF-8
  EXPECT_EQ(s.GetLengthInByte(), 10);
  EXPECT_EQ(s.ConvertToWChar(), L"a\u00E9\u20AC\U0001F600");
  struct Case {
    int capacity;
    int result;
    const char* written;
  } const cases[] = {{100, 10, "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
                     {11, 10, "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
                     {10, 10, "a\xC3\xA9\xE2\x82\xAC"},  // no room for the NUL after the emoji
                     {3, 10, "a"},
                     {1, 10, ""}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.capacity);
    char buf[100];
    std::memset(buf, 'X', sizeof buf);
    EXPECT_EQ(s.ConvertToUTF8(buf, c.capacity), c.result);
    EXPECT_STREQ(buf, c.written);
  }
  EXPECT_EQ(s.ConvertToUTF8(nullptr, 0), 10);
  EXPECT_EQ(s.ConvertToUTF8(nullptr, 5), -1);
  char one[1];
  EXPECT_EQ(s.ConvertToUTF8(one, -1), -1);

  const KELUnicodeString lone(std::u16string{0xDC00, 'x'});  // unpaired: three bytes
  EXPECT_EQ(lone.ConvertToUTF8(), "\xED\xB0\x80x");
  std::ostringstream out;
  out << s;
  EXPECT_EQ(out.str(), s.ConvertToUTF8());
  EXPECT_EQ(s.ToU16StringView(), u"a\u00E9\u20AC\U0001F600");
  EXPECT_EQ(s[1], 0xE9);
  EXPECT_EQ(s[-1], 0);
  EXPECT_EQ(s[5], 0);
}

TEST(KELUnicodeString, ComparisonIgnoresTheForm) {
  const KELUnicodeString m = mbcs("caf\xC3\xA9");
  const KELUnicodeString u = ucs(u"caf\u00E9");
  EXPECT_TRUE(m == u);
  EXPECT_FALSE(m != u);
  EXPECT_EQ(m.Compare(u), 0);
  EXPECT_EQ(m.ComputeHashKey(), u.ComputeHashKey());
  EXPECT_EQ(std::hash<KELUnicodeString>()(m), std::hash<KELUnicodeString>()(u));
  std::unordered_set<KELUnicodeString> set{m};
  EXPECT_EQ(set.count(u), 1u);

  struct Case {
    const char16_t* a;
    const char16_t* b;
    int compare;
    int noCase;
  } const cases[] = {
      {u"abc", u"abd", -1, -1},
      {u"ab", u"abc", -1, -1},
      {u"", u"a", -1, -1},
      {u"ABC", u"abc", -1, 0},
      {u"\u00C9COLE", u"\u00E9cole", -1, 0},
      {u"\u03A3\u03C2", u"\u03C3\u03C3", -1, 0},      // final sigma folds to sigma
      {u"STRASSE", u"stra\u00DFe", -1, -1},           // simple folding: no ß -> ss
      {u"\U00010400", u"\U00010428", -1, 0},         // Deseret, beyond the BMP
      {u"\uFFFF", u"\U00010000", 1, 1},              // by code units: the pair sorts first
      {u"K", u"\u212A", -1, 0},                       // KELVIN SIGN folds to k
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << std::u16string(c.a).size() << " units vs " << std::u16string(c.b).size());
    const KELUnicodeString a = ucs(c.a), b = ucs(c.b);
    EXPECT_EQ(a.Compare(b), c.compare);
    EXPECT_EQ(b.Compare(a), -c.compare);
    EXPECT_EQ(a < b, c.compare < 0);
    EXPECT_EQ(a.CompareNoCase(b), c.noCase);
    EXPECT_EQ(b.CompareNoCase(a), -c.noCase);
  }
}

TEST(KELUnicodeString, CaseMappingIsFullSimpleMapping) {
  struct Case {
    const char16_t* in;
    const char16_t* upper;
    const char16_t* lower;
  } const cases[] = {
      {u"Hello, World", u"HELLO, WORLD", u"hello, world"},
      {u"\u00E9t\u00E9 \u00FF", u"\u00C9T\u00C9 \u0178", u"\u00E9t\u00E9 \u00FF"},
      {u"stra\u00DFe", u"STRA\u00DFE", u"stra\u00DFe"},  // ß has no simple uppercase
      {u"\u0130I", u"\u0130I", u"ii"},                    // İ lowers to i (simple mapping)
      {u"\u01C6\u01C5", u"\u01C4\u01C4", u"\u01C6\u01C6"},
      {u"\u03B1\u03C2\u0391", u"\u0391\u03A3\u0391", u"\u03B1\u03C2\u03B1"},
      {u"\u0436\u0416", u"\u0416\u0416", u"\u0436\u0436"},
      {u"\U00010428\U00010400", u"\U00010400\U00010400", u"\U00010428\U00010428"},
      {u"\u24D0\uFF41", u"\u24B6\uFF21", u"\u24D0\uFF41"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(KELUnicodeString(std::u16string_view(c.in)).ConvertToUTF8());
    KELUnicodeString up = ucs(c.in), low = ucs(c.in);
    EXPECT_EQ(text(up.ToUpper()), c.upper);
    EXPECT_EQ(text(low.ToLower()), c.lower);
  }
  // Unpaired surrogates pass through, and text that does not change keeps
  // sharing its block.
  KELUnicodeString odd(std::u16string{'a', 0xD801, 'b', 0xDC28});
  EXPECT_EQ(text(odd.ToUpper()), (std::u16string{'A', 0xD801, 'B', 0xDC28}));
  const KELUnicodeString digits = ucs(u"123 \u4E2D");
  KELUnicodeString copy(digits);
  copy.ToUpper();
  EXPECT_EQ(rep(copy), rep(digits));
}

TEST(KELUnicodeString, NullHandleIsTolerated) {
  alignas(KELUnicodeString) unsigned char storage[sizeof(KELUnicodeString)] = {};
  static_assert(sizeof(KELUnicodeString) == sizeof(void*), "one pointer");
  auto* s = std::launder(reinterpret_cast<KELUnicodeString*>(storage));
  EXPECT_TRUE(s->IsNull());
  EXPECT_EQ(s->GetLengthInChar(), 0);
  EXPECT_STREQ(s->ConvertToChar(), "");
  EXPECT_EQ(s->ConvertToUTF8(), "");
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

// A fixed-seed differential run: random edits on a few strings, in both
// forms, against std::u16string.
TEST(KELUnicodeString, RandomEditsAgreeWithStdU16String) {
  std::mt19937 rng(20240611);
  const std::u16string alphabet = u"ab \u00E9\u4E2D\U0001F600";
  auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  auto randomText = [&] {
    std::u16string t;
    for (int i = pick(6); i > 0; --i) t += alphabet[static_cast<size_t>(pick(static_cast<int>(alphabet.size())))];
    return t;
  };
  std::vector<KELUnicodeString> strings(4);
  std::vector<std::u16string> model(4);
  for (int step = 0; step < 20000; ++step) {
    const size_t i = static_cast<size_t>(pick(4)), j = static_cast<size_t>(pick(4));
    KELUnicodeString& s = strings[i];
    std::u16string& m = model[i];
    const int len = static_cast<int>(m.size());
    const int a = pick(len + 3) - 1, b = pick(len + 3) - 1;
    const size_t pa = a < 0 ? 0 : std::min(static_cast<size_t>(a), m.size());
    const size_t nb = b < 0 ? m.size() - pa : std::min(static_cast<size_t>(b), m.size() - pa);
    switch (pick(10)) {
      case 0: {
        const std::u16string t = randomText();
        s = KELUnicodeString(std::u16string_view(t));
        if (pick(2)) s.Pack();
        m = t;
        break;
      }
      case 1:
        s = strings[j];
        m = model[j];
        break;
      case 2: {
        const std::u16string add = model[j];
        s += strings[j];
        m += add;
        break;
      }
      case 3: {
        const std::u16string ins = model[j];
        s.Insert(a, strings[j]);
        m.insert(pa, ins);
        break;
      }
      case 4:
        s.Remove(a, b);
        m.erase(pa, nb);
        break;
      case 5: {
        const std::u16string with = model[j];
        s.ReplaceSubString(a, b, strings[j]);
        m.replace(pa, nb, with);
        break;
      }
      case 6:
        EXPECT_EQ(text(s.SubString(a, b)), m.substr(pa, nb));
        break;
      case 7: {
        const size_t at = m.find(model[j], pa);
        EXPECT_EQ(s.SearchSubString(strings[j], a), at == std::u16string::npos ? -1 : static_cast<int>(at));
        const size_t last = m.rfind(model[j], a < 0 ? std::u16string::npos : static_cast<size_t>(a));
        EXPECT_EQ(s.SearchSubString(strings[j], a, true),
                  last == std::u16string::npos ? -1 : static_cast<int>(last));
        break;
      }
      case 8: {
        const int n = pick(len + 4);
        s.Resize(n, u'~');
        m.resize(static_cast<size_t>(n), u'~');
        break;
      }
      default:
        s += static_cast<char16_t>(u'a' + pick(3));
        m += s[static_cast<int>(m.size())];
        break;
    }
    ASSERT_EQ(text(s), m) << "step " << step;
    ASSERT_EQ(s.IsNull(), m.empty());
    if (m.empty()) {
      ASSERT_EQ(rep(s), emptyRep());
    }
  }
}

std::string readCorpus(const std::string& name) {
  std::ifstream in(std::string(SYSTEMTS_CORPORA_DIR) + "/" + name, std::ios::binary);
  return in ? std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()) : std::string();
}

TEST(KELUnicodeString, Utf8RoundTripsOnTheCorpora) {
  for (const char* name : {"ascii.txt", "latin.txt", "cjk.txt", "emoji.txt"}) {
    const std::string utf8 = readCorpus(name);
    if (utf8.empty()) GTEST_SKIP() << "corpus " << name << " not found under " << SYSTEMTS_CORPORA_DIR;
    SCOPED_TRACE(name);
    const KELUnicodeString s = KELUnicodeString::FromUTF8(utf8);
    EXPECT_EQ(s.ConvertToUTF8(), utf8);
    std::string buf(utf8.size() + 1, '\0');
    EXPECT_EQ(s.ConvertToUTF8(&buf[0], static_cast<int>(buf.size())), static_cast<int>(utf8.size()));
    EXPECT_EQ(buf.c_str(), utf8);
    EXPECT_EQ(mbcs(utf8.c_str()), s);  // the code page is UTF-8: both forms are one text
    EXPECT_EQ(mbcs(utf8.c_str()).ComputeHashKey(), s.ComputeHashKey());
  }
}

TEST(KELUnicodeString, CodePageRoundTripsOnTheCorpora) {
  const struct {
    const char* file;
    const char* locale;
  } cases[] = {{"latin.iso-8859-1.txt", "fr_FR.ISO-8859-1"}, {"latin.cp1252.txt", "fr_FR.CP1252"},
               {"cjk.shift_jis.txt", "ja_JP.SJIS"},          {"cjk.euc-jp.txt", "ja_JP.eucJP"},
               {"cjk.gb18030.txt", "zh_CN.GB18030"}};
  for (const auto& c : cases) {
    const std::string bytes = readCorpus(c.file);
    if (bytes.empty()) GTEST_SKIP() << "corpus " << c.file << " not found under " << SYSTEMTS_CORPORA_DIR;
    SCOPED_TRACE(c.file);
    ASSERT_EQ(NLSCoreChangeLanguage(c.locale), 0);
    const KELUnicodeString m = mbcs(bytes.c_str());
    const KELUnicodeString u(m.ToU16StringView());  // UTF-16 primary form of the same text
    EXPECT_TRUE(rep(u)->IsUCS());
    EXPECT_EQ(std::string(u.ConvertToChar()), bytes);
    EXPECT_EQ(u.GetLengthInByte(), static_cast<int>(bytes.size()));
    EXPECT_EQ(m, u);
  }
  NLSCoreChangeLanguage("C");
}


// ---- shared copies across threads ----
// Copies of one string read, converted and hashed by four threads at once
// while each thread also changes copies of its own: every read sees the whole
// text, the second view is installed once, and no change shows in the shared
// string. Run under ThreadSanitizer as well.
constexpr int kSharingThreads = 4;

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
  for (int t = 0; t < kSharingThreads; ++t) {
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
  while (ready.load() < kSharingThreads) std::this_thread::yield();
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
