// The splitter and its inverse, the option checker, and the string vectors.
// Random vectors through the quoting round trip are the fuzz target
// cmdline_split's; here are the rules one by one.
#include "NUVSysEnvironCommandLine.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "FaultInjection.h"

namespace {

using Args = std::vector<std::string>;
using systemts::detail::SysCalls;

// Splits `line`; the vector as strings.
Args split(const char* line) {
  char** argv = nullptr;
  int argc = 0;
  EXPECT_EQ(0, NUVSysEnvironBuildArgumentFromCommandLine(line, &argv, &argc));
  Args got(argv, argv + argc);
  EXPECT_EQ(0, NUVSysEnvironDeleteArgumentArrayA(&argv, argc));
  EXPECT_EQ(nullptr, argv);
  return got;
}

// The quoted line of `args`.
std::string quote(Args args) {
  std::vector<char*> argv;
  for (std::string& s : args) argv.push_back(s.data());
  char* line = nullptr;
  EXPECT_EQ(0, NUVSysEnvironBuildCommandLineFromArgumentsA(static_cast<int>(argv.size()), argv.data(), &line));
  std::string s = line ? line : "<null>";
  std::free(line);
  return s;
}

TEST(NUVSysEnvironBuildArgumentFromCommandLine, SplittingRules) {
  const struct { const char* line; Args want; } kCases[] = {
      {"", {""}},
      {"a\t \tb  c", {"a", "b", "c"}},    // a run of blanks and tabs is one separator
      {" a", {"", "a"}},                  // leading blank: empty first argument
      {"a ", {"a", ""}},                  // trailing blank: empty last argument
      {"\"a b\" c", {"a b", "c"}},        // quotes keep blanks and are dropped
      {"\"a  b\"", {"a b"}},              // ... after the runs were collapsed
      {"x\"y z\"w", {"xy zw"}},           // a quoted stretch inside an argument
      {"\"\" a", {"", "a"}},              // an empty argument
      {"\"open ended", {"open ended"}},   // an unclosed quote runs to the end
      {"\\\"a b\\\"", {"\"a", "b\""}},    // \" is a literal quote
      {"\\\\\"a b\"", {"\\a b"}},         // \\" is one backslash, then the quote opens
      {"\\\\\\\"x", {"\\\"x"}},           // \\\" is a backslash and a literal quote
      {"C:\\dir\\ x\\\\y", {"C:\\dir\\", "x\\\\y"}},  // backslashes before anything else stay
      {"\"a\\\" b\"", {"a\" b"}},         // a literal quote inside a quoted stretch
      {"line\nbreak \xFF\xFE", {"line\nbreak", "\xFF\xFE"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.line);
    EXPECT_EQ(c.want, split(c.line));
  }
  char** argv = reinterpret_cast<char**>(1);
  int argc = 7;
  EXPECT_EQ(-1, NUVSysEnvironBuildArgumentFromCommandLine(nullptr, &argv, &argc));
  EXPECT_EQ(-1, NUVSysEnvironBuildArgumentFromCommandLine("a", nullptr, &argc));
  EXPECT_EQ(-1, NUVSysEnvironBuildArgumentFromCommandLine("a", &argv, nullptr));
  EXPECT_TRUE(argv == reinterpret_cast<char**>(1) && argc == 7);  // untouched
}

// The documented quoted forms; arbitrary vectors through the round trip are
// the fuzz target's.
TEST(NUVSysEnvironBuildCommandLineFromArgumentsA, QuotedForms) {
  const struct { Args args; const char* line; } kCases[] = {
      {{"prog", "a"}, "prog a"},
      {{"a b", ""}, "\"a b\" \"\""},
      {{"q\"uote", "back\\\"slash"}, "q\\\"uote back\\\\\\\"slash"},
      {{"dir\\", "dir 2\\"}, "dir\\ \"dir 2\\\\\""},  // doubled only before the closing quote
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.line);
    EXPECT_EQ(c.line, quote(c.args));
    EXPECT_EQ(c.args, split(c.line));
  }
  char* line = reinterpret_cast<char*>(1);
  char* none[] = {nullptr};
  EXPECT_EQ(-1, NUVSysEnvironBuildCommandLineFromArgumentsA(0, none, &line));
  EXPECT_EQ(-1, NUVSysEnvironBuildCommandLineFromArgumentsA(1, none, &line));
  EXPECT_EQ(reinterpret_cast<char*>(1), line);
}

TEST(NUVSysEnvironStringVectors, CreateReleaseAndDelete) {
  char** vec = nullptr;
  EXPECT_EQ(-1, NUVSysEnvrionCreateBufferOfStringA(0, &vec));
  ASSERT_EQ(0, NUVSysEnvrionCreateBufferOfStringA(3, &vec));
  EXPECT_EQ(std::vector<char*>(4, nullptr), std::vector<char*>(vec, vec + 4));
  vec[0] = strdup("a");  // the release stops at the first null
  EXPECT_EQ(0, NUVSysEnvrionReleaseBufferOfStringA(&vec));
  EXPECT_EQ(nullptr, vec);
  EXPECT_EQ(-1, NUVSysEnvrionReleaseBufferOfStringA(&vec));
  char* keep[] = {nullptr};
  char** kept = keep;
  EXPECT_EQ(0, NUVSysEnvironDeleteArgumentArrayA(&kept, 0));  // argc below 1: nothing done
  EXPECT_EQ(keep, kept);
  EXPECT_EQ(0, NUVSysEnvironDeleteArgumentArrayA(nullptr, 1));
}

// Every allocation of the splitter failing in turn: -1, no vector, and ASan's
// leak check sees nothing left behind.
TEST(NUVSysEnvironCommandLineFaults, AllocationFailures) {
  for (long nth = 1; nth <= 3; ++nth) {
    SCOPED_TRACE(nth);
    Fault<&SysCalls::malloc> m(ENOMEM, nullptr, nth);
    Fault<&SysCalls::calloc> c(ENOMEM, nullptr, nth == 2 ? 1 : 0);
    char** argv = reinterpret_cast<char**>(1);
    int argc = 5;
    // malloc: the work buffer, then "a", then "b"; calloc: the vector.
    EXPECT_EQ(-1, NUVSysEnvironBuildArgumentFromCommandLine("a b", &argv, &argc));
    EXPECT_EQ(nullptr, argv);
    EXPECT_EQ(0, argc);
  }
  Fault<&SysCalls::calloc> c(ENOMEM, nullptr);
  char** vec = reinterpret_cast<char**>(1);
  EXPECT_EQ(-1, NUVSysEnvrionCreateBufferOfStringA(1, &vec));
  EXPECT_EQ(nullptr, vec);
  Fault<&SysCalls::malloc> m(ENOMEM, nullptr);
  char* arg = const_cast<char*>("a");
  char* line = reinterpret_cast<char*>(1);
  EXPECT_EQ(-1, NUVSysEnvironBuildCommandLineFromArgumentsA(1, &arg, &line));
  EXPECT_EQ(nullptr, line);
}

// The option checker: counters, value records and the failing index.
struct Options {
  int out = -1, in = -1, flag = -1, any = -1, v = -1, x = -1;
  char** outValue = reinterpret_cast<char**>(1);
  char** anyValue = reinterpret_cast<char**>(1);
  NUVSysEnvironCommandLongOptionStructA longs[5] = {
      {"out", 2, &outValue, &out}, {"in", 2, nullptr, &in}, {"flag", 1, nullptr, &flag},
      {"any", 3, &anyValue, &any}, {nullptr, 0, nullptr, nullptr}};
  NUVSysEnvironCommandShortOptionStruct shorts[3] = {{'v', &v}, {'x', &x}, {0, nullptr}};
};

TEST(NUVSysEnvironParseCommandOptionA, CheckingRules) {
  const struct {
    Args args;
    int rc, bad;
    int out, in, flag, any, v, x;  // counters afterwards
    int outValue, anyValue;        // index of the recorded first value, 0 for none
  } kCases[] = {
      {{"prog", "--out", "a", "b", "--out", "c"}, -1, 4, 4, 0, 0, 0, 0, 0, 2, 0},  // repeated option
      {{"prog", "-5"}, -1, 1, 0, 0, 0, 0, 0, 0, 0, 0},   // a value with nothing pending
      {{"prog", "--in"}, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0},  // kind 2 standing last: not reported
      {{"prog", "--in", "--flag"}, -1, 2, 0, 1, 0, 0, 0, 0, 0, 0},  // kind 2 without its value
      {{"prog", "--out", "-7", "8", "--any"}, 0, 0, 3, 0, 0, 1, 0, 0, 2, 0},  // negative numbers are values
      {{"prog", "--any", "-vx", "p", "q"}, 0, 0, 0, 0, 0, 3, 1, 1, 0, 3},     // short letters keep it pending
      {{"prog", "--flag", "v"}, -1, 2, 0, 0, 1, 0, 0, 0, 0, 0},               // kind 1 takes no value
      {{"prog", "-vv"}, -1, 1, 0, 0, 0, 0, 2, 0, 0, 0},                       // repeated letter
      {{"prog", "--nope"}, -1, 1, 0, 0, 0, 0, 0, 0, 0, 0},                    // unknown name
      {{"prog", "-", "--"}, -1, 2, 0, 0, 0, 0, 0, 0, 0, 0},                   // "-": no letters; "--": name ""
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.args.size() > 1 ? c.args[1] : "");
    Args args = c.args;
    std::vector<char*> argv;
    for (std::string& s : args) argv.push_back(s.data());
    Options o;
    int bad = -1;
    EXPECT_EQ(c.rc, NUVSysEnvironParseCommandOptionA(static_cast<int>(argv.size()), argv.data(), o.longs,
                                                     o.shorts, &bad));
    EXPECT_EQ(c.bad, bad);
    EXPECT_EQ((std::vector<int>{c.out, c.in, c.flag, c.any, c.v, c.x}),
              (std::vector<int>{o.out, o.in, o.flag, o.any, o.v, o.x}));
    EXPECT_EQ(c.outValue ? &argv[c.outValue] : nullptr, o.outValue);
    EXPECT_EQ(c.anyValue ? &argv[c.anyValue] : nullptr, o.anyValue);
  }
}

TEST(NUVSysEnvironParseCommandOptionA, MissingTablesAndArguments) {
  char prog[] = "prog", dd[] = "--any", letters[] = "-qz", value[] = "v";
  char* argv[] = {prog, dd, letters, value, nullptr};
  Options o;
  int bad = -1;
  // Without a short table the letters are ignored and "--any" stays pending;
  // without a long table "--any" is ignored too, and "v" has no option.
  EXPECT_EQ(0, NUVSysEnvironParseCommandOptionA(4, argv, o.longs, nullptr, &bad));
  EXPECT_EQ(std::make_pair(2, &argv[3]), std::make_pair(o.any, o.anyValue));
  EXPECT_EQ(-1, NUVSysEnvironParseCommandOptionA(4, argv, nullptr, nullptr, &bad));
  EXPECT_EQ(3, bad);
  EXPECT_EQ(-1, NUVSysEnvironParseCommandOptionA(0, argv, o.longs, o.shorts, &bad));
  EXPECT_EQ(-1, NUVSysEnvironParseCommandOptionA(4, argv, o.longs, o.shorts, nullptr));
  char* nullArg[] = {prog, nullptr};
  EXPECT_EQ(-1, NUVSysEnvironParseCommandOptionA(2, nullArg, o.longs, o.shorts, &bad));
  EXPECT_EQ(1, bad);
  // An entry without a counter is never matched; the reset of the short
  // table stops at the first entry without one.
  int a = 9, b = 9;
  NUVSysEnvironCommandLongOptionStructA longs[] = {{"any", 1, nullptr, nullptr}, {"any", 1, nullptr, &a},
                                                   {nullptr, 0, nullptr, nullptr}};
  NUVSysEnvironCommandShortOptionStruct shorts[] = {{'q', nullptr}, {'q', &b}, {0, nullptr}};
  EXPECT_EQ(0, NUVSysEnvironParseCommandOptionA(2, argv, longs, shorts, &bad));
  EXPECT_EQ(std::make_pair(1, 9), std::make_pair(a, b));
}

}  // namespace
