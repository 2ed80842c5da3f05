// The 8-bit string: the printable check of the development stage and its
// warning, the move to bytes of UTF-16 text, comparison, appends and their
// exact growth, every boundary of search, replacement, substring, resize and
// strip, the hash key, ReadLine, streams and the crossings with
// KELUnicodeString. The process code page is UTF-8 here (no locale is set).
#include "KELString.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <sstream>
#include <string>

#include "FaultInjection.h"
#include "TestSupport.h"

namespace {

using Rep = KELInterUnicodeString;

std::string str(const KELString& s) { return std::string(s.ConvertToChar(), static_cast<size_t>(s.Length())); }
Rep* repOf(const KELString& s) { return s.getUnicodeString()._GetRepresentation(); }

// Sets the development stage for one scope.
struct DevStage {
  explicit DevStage(int on) : saved(Rep::S_devStage) { Rep::S_devStage = on; }
  ~DevStage() { Rep::S_devStage = saved; }
  int saved;
};

const std::string kStars(85, '*');
std::string warning(int position, const std::string& text) {
  return kStars + "\n* [KELString][Warning] The code '" + std::to_string(position) +
         "' does not map to a printable US ASCII character. *\n* String: \"" + text +
         "\".\n* STACK TRACE:                                                                      *\n" + kStars +
         "\n";
}
const char kBanner[] =
    "***************************************************************\n"
    "* [KELString] Risk of data corruption detected:               *\n"
    "* Non-ASCII Unicode data is being converted to MBCS (char *). *\n"
    "* STACK TRACE:                                                *\n"
    "***************************************************************\n";

TEST(KELStringTest, DevelopmentStageRefusesNonPrintableTextWithAWarning) {
  if (std::getenv("KELStringWarningSuppress") != nullptr) GTEST_SKIP() << "warnings suppressed here";
  DevStage on(1);
  const struct { const char* text; int position; } cases[] = {  // position 0: printable
     {"caf\xE9", 4}, {"\x7F", 1}, {"a\x01z", 2}, {"tab\tcr\rlf\n ~", 0}, {"", 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const std::string expect = c.position ? warning(c.position, c.text) : "";
    testing::internal::CaptureStdout();
    KELString built(c.text);
    KELString assigned("old");
    assigned = c.text;
    KELString appended("x");
    appended += c.text;
    const KELString prefixed = c.text + KELString("y");
    EXPECT_EQ(expect + expect + expect + expect, testing::internal::GetCapturedStdout());
    EXPECT_EQ(c.position ? "" : c.text, str(built));
    EXPECT_EQ(c.position ? "" : c.text, str(assigned));
    EXPECT_EQ(c.position ? "x" : std::string("x") + c.text, str(appended));
    EXPECT_EQ(c.position ? "y" : std::string(c.text) + "y", str(prefixed));
  }
}

// The stage (on unless "KELDevelopmentStage" is exactly "FALSE") and the
// suppression switch are read once per process, when the library loads:
// children.
TEST(KELStringDeathTest, StageAndSuppressionAsReadFromTheEnvironment) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // What the child reports on stderr (stdout joined to it).
  const struct { const char *stage, *suppress, *expected; } cases[] = {
      {nullptr, nullptr, "code '4' does not map.*<0>$"}, {"false", nullptr, "code '4' does not map.*<0>$"},
      {nullptr, "1", "^<0>$"}, {"FALSE", nullptr, "^<4>$"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    setEnv("KELDevelopmentStage", c.stage);
    setEnv("KELStringWarningSuppress", c.suppress);
    EXPECT_EXIT(runThenExit([] {
                  std::fflush(stdout);
                  dup2(2, 1);
                  KELString s("caf\xE9");
                  std::fflush(stdout);
                  std::fprintf(stderr, "<%d>", s.Length());
                }),
                testing::ExitedWithCode(0), c.expected);
  }
  unsetenv("KELDevelopmentStage");
  unsetenv("KELStringWarningSuppress");
}

TEST(KELStringTest, Utf16TextIsBroughtToBytesOnFirstUse) {
  const struct { std::u16string units; int stage; std::string bytes; bool banner; } cases[] = {
      {u"\u0141", 1, "A", false},            // only the low byte is looked at
      {u"a\u0100b", 1, std::string("a\0b", 3), false},
      {u"\u007F", 0, "\x7F", true},          // 127 fails the narrow test: through the code page
      {u"caf\u00E9", 0, "caf\xC3\xA9", true},  // outside the stage: the UTF-8 bytes
      {u"caf\u00E9", 1, "", true},           // inside: banner, then refused
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.bytes);
    DevStage stage(c.stage);
    KELUnicodeString u(c.units);
    KELString s(u);
    EXPECT_EQ(2, u._GetRepresentation()->GetRefCount()) << "shared until first use";
    testing::internal::CaptureStdout();
    EXPECT_EQ(c.bytes, str(s));
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(c.banner && c.stage, out.rfind(kBanner, 0) == 0) << out;
    EXPECT_FALSE(repOf(s)->IsUCS());
    EXPECT_EQ(c.units, u.ToU16String()) << "the Unicode string is untouched";
  }
}

TEST(KELStringTest, ConstructionCopiesAndMoves) {
  KELUnicodeString u(u"abc");
  Rep* block = u._GetRepresentation();
  KELString copied(u);
  KELString moved(std::move(u));
  EXPECT_TRUE(u.IsNull());
  EXPECT_EQ(2, block->GetRefCount()) << "the reference moved, none added";
  EXPECT_EQ("abc", str(moved));  // now a multi-byte block of its own
  EXPECT_EQ(1, block->GetRefCount());
  EXPECT_EQ(u"abc", moved.getUnicodeString().ToU16String());
  moved = KELUnicodeString(u"xyz");
  KELString b(std::move(moved));
  EXPECT_TRUE(moved.IsNull());  // NOLINT(bugprone-use-after-move): a moved-from string is empty
  EXPECT_EQ("xyz", str(b));

  DevStage on(1);
  EXPECT_EQ(Rep::_KELSysEmptyStringPtr, repOf(KELString(static_cast<const char*>(nullptr))));
  EXPECT_EQ(Rep::_KELSysEmptyStringPtr, repOf(KELString("")));
  EXPECT_EQ("zzz", str(KELString(KELChar('z'), 3)));
  EXPECT_EQ(std::string(2, '\0'), str(KELString(KELChar(), 2)));
  EXPECT_TRUE(KELString(KELChar('z'), 0).IsNull());
  const KELString ab("ab");
  EXPECT_EQ("ababab", str(KELString(ab, 3)));
  EXPECT_EQ(repOf(ab), repOf(KELString(ab, 1)));
  EXPECT_TRUE(KELString(ab, 0).IsNull());

  // A null handle is reported and treated as empty.
  alignas(KELString) unsigned char raw[sizeof(KELString)] = {};
  KELString& null = *reinterpret_cast<KELString*>(raw);
  testing::internal::CaptureStderr();
  KELString copy(null);
  null = "set";
  EXPECT_EQ("NUVDebugBreak(1)\nNUVDebugBreak(1)\n", testing::internal::GetCapturedStderr());
  EXPECT_TRUE(copy.IsNull());
  EXPECT_EQ("set", str(null));
  null.~KELString();
}

// KELSysUTF8Str takes any bytes, with no warning even in the stage.
TEST(KELStringTest, KELSysUTF8StrComparisonAndHashKey) {
  DevStage on(1);
  KELString s("old");
  char bad[] = "\xE9t\xE9", empty[] = "";
  EXPECT_EQ(0, KELSysUTF8Str(&s, bad));
  EXPECT_EQ("\xE9t\xE9", str(s));
  EXPECT_EQ(0, KELSysUTF8Str(&s, nullptr));
  EXPECT_EQ(0, KELSysUTF8Str(nullptr, bad));
  EXPECT_EQ("\xE9t\xE9", str(s));
  EXPECT_EQ(-23, s.Compare(static_cast<const char*>(nullptr)));  // signed
  EXPECT_EQ(E_FAIL, KELSysUTF8Str(&s, empty));
  EXPECT_TRUE(s.IsNull());

  const KELString abc("abc");
  EXPECT_EQ('a', abc.Compare(static_cast<const char*>(nullptr)));
  EXPECT_TRUE(abc == "abc" && "abc" == abc && abc != "abd" && "abd" != abc);
  EXPECT_TRUE(abc < "abd" && "ab" < abc && abc <= abc && abc >= "abc" && "b" > abc && abc > KELString("ab"));
  const struct { const char *a, *b; int result; } byCase[] = {
      {"Abc", "aBC", 2}, {"abc", "abc", 1}, {"abc", "abd", 0}, {"ab", "abc", 0}, {"", "", 1}, {"A", "", 0}};
  for (const auto& c : byCase) EXPECT_EQ(c.result, KELString(c.a).CompareByCase(c.b)) << c.a << " " << c.b;

  // The hash key is the xor of the little-endian 32-bit words.
  const struct { std::string text; unsigned key; } keys[] = {
      {"", 0}, {"abcd", 0x64636261}, {"abcdefg", 0x64636261 ^ 0x676665}, {"abcdabcd", 0},
      {std::string(32, 'a') + "abcdX", 0x64636261 ^ 'X'}, {"\xFF\xFF\xFF\xFF\x01", 0xFFFFFFFE}};
  for (const auto& c : keys) {
    KELSysUTF8Str(&s, const_cast<char*>(c.text.c_str()));
    EXPECT_EQ(c.key, s.ComputeHashKey()) << c.text;
  }
}

template <class Number>
std::string appended(Number v) {
  KELString s("=");
  s += v;
  return str(s);
}

TEST(KELStringTest, AppendsUseFixedFormatsGrowExactlyAndSurviveTheirOwnText) {
  EXPECT_EQ("=1", appended(4294967297L));   // "%d": the low 32 bits
  EXPECT_EQ("=44", appended(','));          // a char is an int: its code
  EXPECT_EQ("=5", appended(4294967301UL));  // "%u"
  EXPECT_EQ("=-9223372036854775808", appended(LLONG_MIN));
  EXPECT_EQ("=18446744073709551615", appended(ULLONG_MAX));
  EXPECT_EQ("=4294967295", appended(4294967295u));
  EXPECT_EQ("=-2147483648", appended(INT_MIN));

  KELString s("abc");
  s += s;
  EXPECT_EQ("abcabc", str(s));
  s += s.ConvertToChar() + 4;  // a pointer into the string's own text
  EXPECT_EQ("abcabcbc", str(s));
  s.ReplaceSubString(1, 2, s);
  EXPECT_EQ("aabcabcbcabcbc", str(s));
  for (int i = 0; i < 40; ++i) {
    s += "x";
    const int len = s.Length();
    ASSERT_EQ(((32 + len + 1 + 7) & ~7) - 32, repOf(s)->GetCapacity()) << "exact growth, no factor";
  }
  KELString empty;
  empty += s;
  EXPECT_EQ(repOf(s), repOf(empty)) << "appending to the empty string shares";
  EXPECT_EQ("ab", str(KELString("a") + "b"));
  EXPECT_EQ("b", str(static_cast<const char*>(nullptr) + KELString("b")));
}

// The fuzz target kelstring_model checks search, replacement, substring and
// strip against a model; here the results a caller would not guess.
TEST(KELStringTest, SearchEditingResizeStripAndCaseBoundaries) {
  const KELString s("abcab");
  EXPECT_EQ(5, s.FindPosition("", 5));
  EXPECT_EQ(-1, s.index("abcabc"));  // longer than the string
  const struct { const char* text; int start, len; const char *by, *result; } cases[] = {
      {"abc", 3, 0, "d", "abcd"}, {"abc", 4, 0, "d", "abc"}, {"", 0, 0, "d", ""},
      {"abc", 1, 5, "", "abc"}, {"abc", 1, 5, "abcdefgh", "aabcde"}};  // length - len + by, cut
  for (const auto& c : cases) {
    KELString r(c.text);
    EXPECT_EQ(c.result, str(r.ReplaceSubString(c.start, c.len, c.by))) << c.text << " " << c.start << "," << c.len;
  }
  KELString r("abcb");
  EXPECT_EQ(1, r.ReplaceSubString("b", "XY"));
  EXPECT_EQ(-1, r.replace("q", "z"));
  EXPECT_EQ("aXcb", str(r.Remove(2, 1)));
  EXPECT_EQ("-aXcb!", str(r.insert(4, "!").Insert(0, "-")));
  // Out of range, SubString gives the whole string (the same block), not an empty one.
  EXPECT_EQ(repOf(s), repOf(s.SubString(2, 10)));
  EXPECT_EQ(repOf(s), repOf(s.SubString(ULONG_MAX, 2)));
  EXPECT_EQ("ca", str(s.SubString(2, 2)));
  EXPECT_TRUE(KELString().SubString(0, 1).IsNull());
  EXPECT_EQ('b', s[1]);
  EXPECT_EQ('\0', s[5]);
  EXPECT_EQ('\0', s[-1]);

  const struct { int n, truncate; const char* result; } sizes[] = {{5, 0, "abc.."}, {2, 0, "abc"}, {2, 1, "ab"}, {-1, 1, ""}};
  for (const auto& c : sizes) {
    KELString t("abc");
    EXPECT_EQ(c.result, str(t.Resize(c.n, '.', c.truncate))) << c.n << "," << c.truncate;
  }
  EXPECT_EQ("ab--", str(KELString("ab").pad(4, '-', 0)));
  EXPECT_EQ("ab", str(KELString("xxaxbxx").Strip(KELStripAll, 'x')));
  EXPECT_TRUE(KELString("xxx").Strip(KELStripBoth, 'x').IsNull());
  EXPECT_EQ("a  ", str(KELString("  a  ").strip(' '))) << "the lower-case name strips leading bytes only";
  KELString up("MiXed 1");
  const KELString shared(up);
  EXPECT_EQ("MIXED 1", str(up.ToUpper()));
  EXPECT_EQ("mixed 1", str(up.toLower()));
  EXPECT_EQ("MiXed 1", str(shared));
}

TEST(KELStringTest, ReadLineAndStreamOutput) {
  const std::string long200(200, 'L');
  // The line read (null: the input's first line), the stream after it, the
  // next character left (or EOF).
  const struct { std::string input; int skip; const char* first; bool good; int next; } cases[] = {
      {long200 + "\nrest", 0, nullptr, true, 'r'}, {std::string(79, 'a') + "\nz", 0, nullptr, true, 'z'},
      {"a\r\nb", 0, "a\r", true, 'b'}, {"last", 0, "last", false, EOF},
      {"\nnext", 0, "", false, EOF},  // an empty line reads nothing and fails the stream
      {"\n \t next\n", 1, "next", true, EOF}, {"   ", 1, "", false, EOF}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.input);
    std::istringstream in(c.input);
    KELString s("previous");
    EXPECT_EQ(&in, &s.ReadLine(in, c.skip));
    const std::string expect = c.first ? c.first : c.input.substr(0, c.input.find('\n'));
    EXPECT_EQ(expect, str(s));
    EXPECT_EQ(c.good, in.good());
    EXPECT_EQ(c.next, in.good() ? in.peek() : EOF);
  }
  // In the stage a piece with a non-printable byte is dropped, the rest kept.
  if (std::getenv("KELStringWarningSuppress") == nullptr) {
    DevStage on(1);
    KELString s;
    std::istringstream bad(std::string(79, 'a') + "\x01" + "b\n");
    testing::internal::CaptureStdout();
    s.ReadLine(bad, 0);
    EXPECT_EQ(warning(1, "\x01" "b"), testing::internal::GetCapturedStdout());
    EXPECT_EQ(std::string(79, 'a'), str(s));
  }
  std::ostringstream out;
  out << '[' << std::setw(4) << KELString("ab") << ']' << KELString();
  EXPECT_EQ("[  ab]", out.str());
  EXPECT_TRUE(out.good());
}


// ---- failures of the operating system ----

TEST(KELStringFaults, TextThatCannotBeAllocatedLeavesTheStringEmpty) {
  using Malloc = Fault<&systemts::detail::SysCalls::malloc>;
  const std::string longText(5000, 'k');  // longer than the pooled blocks
  const struct { const char* what; void (*run)(KELString&, const char*); } kCases[] = {
      {"construction", [](KELString& s, const char* t) { s = KELString(t); }},
      {"assignment", [](KELString& s, const char* t) { s = t; }},
      {"append", [](KELString& s, const char* t) { s += t; }},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    KELString s;
    {
      Malloc f(ENOMEM, nullptr, 1, Malloc::kAlways);
      c.run(s, longText.c_str());
      EXPECT_EQ(0, s.GetLengthInChar());
      EXPECT_EQ(1, f.failed());
    }
    c.run(s, longText.c_str());
    EXPECT_EQ(longText, s.ConvertToChar());
  }
}

}  // namespace
