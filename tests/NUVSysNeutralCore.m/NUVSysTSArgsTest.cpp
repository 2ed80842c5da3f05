// The named-argument table and the process's own command line. Tests that
// need the library's first read of the command line, or no table at all, run
// in a fresh process (a re-executed death test, or a child started with
// chosen arguments).
#include "NUVSysTSArgs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <tuple>
#include <vector>

#include "ArgTable.h"
#include "FaultInjection.h"
#include "TestSupport.h"

namespace {

using systemts::detail::ArgEnt;
using systemts::detail::g_sys;
using systemts::detail::SysCalls;
using Args = std::vector<std::string>;

// One entry as the table holds it: name, kind, added, value ("<null>" for none).
using Entry = std::tuple<std::string, int, int, std::string>;
const char* const kNull = "<null>";

std::vector<Entry> tableEntries() {
  std::vector<Entry> out;
  const bool exists = systemts::detail::visitArgTable([&](const ArgEnt& e) {
    out.emplace_back(e.name, e.kind, e.added, e.value ? e.value : kNull);
  });
  EXPECT_TRUE(exists);
  std::sort(out.begin(), out.end());
  return out;
}

void setArgs(Args args) {
  std::vector<char*> argv;
  for (std::string& s : args) argv.push_back(s.data());
  argv.push_back(nullptr);
  EXPECT_EQ(0, NUVSysTSSetArg(static_cast<int>(args.size()), argv.data()));
}

// The process's command line as the kernel reports it.
Args ownCommandLine() {
  std::ifstream in("/proc/self/cmdline", std::ios::binary);
  const std::string all(std::istreambuf_iterator<char>(in), {});
  Args out;
  for (size_t start = 0, end; (end = all.find('\0', start)) != std::string::npos; start = end + 1)
    out.push_back(all.substr(start, end - start));
  return out;
}

// NUVSysTSGetArg's result, kind, added flag and value, the value starting
// as "unchanged".
using Got = std::tuple<int, int, int, std::string>;
Got getArg(const char* name) {
  int kind = -9, added = -9;
  KELUnicodeString v("unchanged");
  const int rc = NUVSysTSGetArg(name, kind, added, v);
  return {rc, kind, added, v.ConvertToUTF8()};
}

TEST(ArgEnt, HashAndCompare) {
  EXPECT_EQ(0u, ArgEnt::ComputeHashKey(nullptr));
  EXPECT_EQ(5381u, ArgEnt::ComputeHashKey(""));
  EXPECT_EQ(5381u * 33 - 1, ArgEnt::ComputeHashKey("\xFF"));  // bytes are signed
  uint64_t h = 5381;  // a reference in 64 bits, reduced at the end
  for (const char* p = "abcdefghij\xE9"; *p; ++p)
    h = h * 33 + static_cast<uint64_t>(static_cast<signed char>(*p));
  ArgEnt a("abcdefghij\xE9", 1, 0, "x"), key("abcdefghij\xE9"), other("abcdefghij"), none(nullptr);
  EXPECT_EQ(static_cast<unsigned int>(h), ArgEnt::Hash(&a));
  EXPECT_EQ(ArgEnt::Hash(&a), ArgEnt::Hash(&key));
  EXPECT_EQ(1, ArgEnt::Compare(&a, &key));
  EXPECT_EQ(0, ArgEnt::Compare(&a, &other));
  EXPECT_EQ(-1, ArgEnt::Compare(&a, &none));
  EXPECT_EQ(-1, ArgEnt::Compare(nullptr, &a));
}

TEST(NUVSysTSSetArg, RuleTable) {
  const struct { Args args; std::vector<Entry> want; } kCases[] = {
      {{"prog", "-file"}, {{"file", 0, 0, kNull}}},  // a value-taking option standing last
      {{"prog", "-file", "a.inp"}, {{"file", 1, 0, "a.inp"}}},
      {{"prog", "-e", "A=1", "B=2", "-batch"}, {{"batch", 0, 0, kNull}, {"e", 1, 0, "A=1 B=2"}}},
      {{"prog", "x", "-maintenance"}, {{"maintenance", 1, 0, kNull}}},
      {{"prog", "-maintenance"}, {{"maintenance", 0, 0, kNull}}},
      {{"prog", "x", "-maintenance", "y"}, {{"maintenance", 0, 0, kNull}}},
      {{"prog", "--level=3", "-v"}, {{"level", 1, 0, "3"}, {"v", 0, 0, kNull}}},
      {{"prog", "-help", "-admin", "-batch", "/regserver", "/unregserver", "regserver"},
       {{"admin", 0, 0, kNull}, {"batch", 0, 0, kNull}, {"help", 0, 0, kNull},
        {"regserver", 0, 0, kNull}, {"unregserver", 0, 0, kNull}}},
      {{"prog", "-object", "o", "-workbench", "w", "-env", "n", "-direnv", "d", "-Url", "u", "-Sli", "s",
        "-Cas", "c", "-Ctx", "x"},
       {{"Cas", 1, 0, "c"}, {"Ctx", 1, 0, "x"}, {"Sli", 1, 0, "s"}, {"Url", 1, 0, "u"}, {"direnv", 1, 0, "d"},
        {"env", 1, 0, "n"}, {"object", 1, 0, "o"}, {"workbench", 1, 0, "w"}}},
      // The value is the next argument whatever it is; "-e" joins up to the
      // first word beginning with "-" or "\", and the joined words are
      // visited again ("/regserver" makes its own entry too).
      {{"prog", "-file", "-batch"}, {{"file", 1, 0, "-batch"}}},
      {{"prog", "-e", "a", "/regserver", "", "\\b", "c", "-x"},
       {{"e", 1, 0, "a /regserver "}, {"regserver", 0, 0, kNull}, {"x", 0, 0, kNull}}},
      {{"prog", "-e", "-x", "y"}, {{"e", 1, 0, "-x y"}}},
      {{"prog", "-render=", "-a=b=c", "--=v"}, {{"", 1, 0, "v"}, {"a", 1, 0, "b=c"}, {"render", 1, 0, ""}}},
      {{"prog", "-file", "a", "-file", "b", "--file=c"}, {{"file", 1, 0, "a"}}},  // first entry of a name kept
      {{"prog", "-", "--", "plain", "\xC3\xA9t\xC3\xA9"}, {{"", 0, 0, kNull}}},
      {{"-batch"}, {}},  // the program name is never an argument
      {{}, {}},
  };
  for (const auto& c : kCases) {
    std::string trace;
    for (const std::string& a : c.args) trace += "[" + a + "]";
    SCOPED_TRACE(trace);
    setArgs(c.args);
    EXPECT_EQ(c.want, tableEntries());
  }
  // Null entries make no entry and are no value; 60 names make the table grow.
  char prog[] = "prog", file[] = "-file", batch[] = "-batch";
  char* withNull[] = {prog, file, nullptr, batch, nullptr};
  EXPECT_EQ(0, NUVSysTSSetArg(4, withNull));
  EXPECT_EQ((std::vector<Entry>{{"batch", 0, 0, kNull}, {"file", 0, 0, kNull}}), tableEntries());
  Args many{"prog"};
  for (int i = 0; i < 60; ++i) many.push_back("-n" + std::to_string(i) + "=" + std::to_string(i));
  setArgs(many);
  EXPECT_EQ(60u, tableEntries().size());
  EXPECT_EQ(Got(0, 1, 0, "59"), getArg("n59"));
}

// Results before the table exists, after an addition, after a rebuild, in a
// fresh process.
TEST(NUVSysTSGetArg, TableLifecycle) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(runThenExit([] {
                const Got before = getArg("file");
                const KELUnicodeString value = KELUnicodeString::FromUTF8("d\xC3\xA9j\xC3\xA0");
                const int add = NUVSysTSAddArg("file", &value);
                const Got got = getArg("file");
                std::fprintf(stderr, "<%x %d %d %d %d %d %s>", std::get<0>(before), std::get<1>(before), add,
                             std::get<0>(got), std::get<1>(got), std::get<2>(got),
                             std::get<3>(got) == "d\xC3\xA9j\xC3\xA0" ? "same" : "differs");
              }),
              testing::ExitedWithCode(0), "<80004005 -9 0 0 1 1 same>");

  setArgs({"prog", "-file", "a.inp", "-maintenance", "-v"});
  EXPECT_EQ(Got(0, 1, 0, "a.inp"), getArg("file"));
  EXPECT_EQ(SYSTEMTS_E_NOT_FOUND, std::get<0>(getArg("nope")));
  int kind = -9, added = -9;
  KELUnicodeString v("unchanged");
  EXPECT_EQ(SYSTEMTS_E_NOT_FOUND, NUVSysTSGetArg(static_cast<char*>(nullptr), kind, v));
  // Intended: an entry without value text leaves the caller's value as it
  // was, the kind-1 "maintenance" entry as well.
  EXPECT_EQ(0, NUVSysTSGetArg("maintenance", kind, v));
  EXPECT_EQ(std::make_pair(0, std::string("unchanged")), std::make_pair(kind, v.ConvertToUTF8()));
  setArgs({"prog", "x", "-maintenance"});
  EXPECT_EQ(Got(0, 1, 0, "unchanged"), getArg("maintenance"));
  setArgs({"prog", "-file", "a.inp"});

  // An addition replaces the entry read from the command line; without a
  // value it has kind 0.
  EXPECT_EQ(0, NUVSysTSAddArg("file", static_cast<const KELUnicodeString*>(nullptr)));
  EXPECT_EQ(Got(0, 0, 1, "unchanged"), getArg("file"));
  KELSysTSUnicodeString ts(KELUnicodeString::FromUTF8("\xE2\x82\xAC 5"));
  EXPECT_EQ(0, NUVSysTSAddArg("price", &ts));
  KELSysTSUnicodeString back;
  EXPECT_EQ(0, NUVSysTSGetArg("price", kind, added, back));
  EXPECT_EQ(std::make_tuple(1, 1, std::string("\xE2\x82\xAC 5")),
            std::make_tuple(kind, added, back.ConvertToUTF8()));
  EXPECT_EQ(0, NUVSysTSGetArg("file", kind, back));  // no value: the string keeps its text
  EXPECT_EQ("\xE2\x82\xAC 5", back.ConvertToUTF8());
  EXPECT_EQ(E_FAIL, NUVSysTSAddArg(static_cast<char*>(nullptr), &ts));

  // Reset: 0 once, E_FAIL after; a rebuild drops what was added.
  EXPECT_EQ(0, NUVSysTSResetArg("file"));
  EXPECT_EQ(E_FAIL, NUVSysTSResetArg("file"));
  EXPECT_EQ(E_FAIL, NUVSysTSResetArg(static_cast<char*>(nullptr)));
  EXPECT_EQ(SYSTEMTS_E_NOT_FOUND, std::get<0>(getArg("file")));
  setArgs({"prog", "-batch"});
  EXPECT_EQ(SYSTEMTS_E_NOT_FOUND, std::get<0>(getArg("price")));
  EXPECT_EQ(Got(0, 0, 0, "unchanged"), getArg("batch"));
}

// Arguments that are empty, hold a newline, are not UTF-8 or are longer
// than one read come back exactly, in both forms and in the table; the
// command line is served by a stand-in read, in a fresh process.
TEST(NUVSysGetCmdLineArgs, ArgumentsReadBackExactly) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  static const Args kArgs = {"prog", "", "line\nbreak", "\xFF\xFE not UTF-8", "-file", "x y",
                             std::string(5000, 'L'), "last"};
  EXPECT_EXIT(runThenExit([] {
                static std::string bytes;
                for (const std::string& a : kArgs) bytes += a + '\0';
                g_sys.read = [](int, void* buf, size_t n) -> ssize_t {
                  static size_t at = 0;
                  n = std::min(n, bytes.size() - at);
                  std::memcpy(buf, bytes.data() + at, n);
                  at += n;
                  return static_cast<ssize_t>(n);
                };
                int argc = -1, count = -1;
                char** argv = nullptr;
                const int n = NUVSysGetCmdLineArgs(argc, argv);
                KELUnicodeString* strings = NUVSysGetCmdLineArgs(count);
                int same = 0;  // how many arguments agree in both forms
                while (same < argc && count == argc && kArgs[same] == argv[same] &&
                       strings[same] == KELUnicodeString(argv[same]))
                  ++same;
                delete[] strings;
                const Got file = getArg("file");
                std::fprintf(stderr, "<%d %d %d %d %s>", n, same, argv[argc] == nullptr, std::get<0>(file),
                             std::get<3>(file).c_str());
              }),
              testing::ExitedWithCode(0), "<8 8 1 0 x y>");
}

// The failures of the first read, each in a fresh process (the cache is
// filled once per process).
TEST(NUVSysGetCmdLineArgsFaults, OpenAndReadFailures) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // open or read failing: count 0, null vector, the table rebuilt empty,
  // nothing cached, so the next call reads again.
  const auto failedThenRead = [](auto& fault) {
    NUVSysTSAddArg("keep", static_cast<const KELUnicodeString*>(nullptr));
    int argc = -1;
    char** argv = reinterpret_cast<char**>(1);
    const int n = NUVSysGetCmdLineArgs(argc, argv) + (argv == nullptr ? 0 : 100);
    int kind = 0;
    KELUnicodeString v;
    const int keep = NUVSysTSGetArg("keep", kind, v);
    int count = -1;
    KELUnicodeString* strings = NUVSysGetCmdLineArgs(count);
    const bool none = strings == nullptr && count == 0;
    fault.heal();
    NUVSysGetCmdLineArgs(argc, argv);
    const bool read = Args(argv, argv + argc) == ownCommandLine() && argc > 1;
    std::fprintf(stderr, "<%d %d %d %x %d %d>", n, argc > 1 ? 1 : argc, argv != nullptr, keep, none, read);
  };
  EXPECT_EXIT(runThenExit([&] {
                Fault<&SysCalls::open> f(EACCES, -1, 1, Fault<&SysCalls::open>::kAlways);
                failedThenRead(f);
                std::fprintf(stderr, "<opens %ld>", f.calls());
              }),
              testing::ExitedWithCode(0), "<0 1 1 80070002 1 1><opens 3>");
  for (long nth : {1L, 2L}) {  // the first read, or the one after data came
    EXPECT_EXIT(runThenExit([&] {
                  Fault<&SysCalls::read> f(EIO, -1, nth, Fault<&SysCalls::read>::kAlways);
                  Fault<&SysCalls::close> closes;
                  failedThenRead(f);
                  std::fprintf(stderr, "<closes %ld>", closes.calls());
                }),
                testing::ExitedWithCode(0), "<0 1 1 80070002 1 1><closes 3>");
  }
  // Short reads are read on to the end; interrupted calls are retried.
  EXPECT_EXIT(runThenExit([] {
                g_sys.read = [](int fd, void* buf, size_t n) {
                  return ::read(fd, buf, std::min<size_t>(n, 3));
                };
                Fault<&SysCalls::open> o(EINTR, -1);
                Fault<&SysCalls::read> r(EINTR, -1, 2);  // wraps the short reads
                int argc = -1;
                char** argv = nullptr;
                NUVSysGetCmdLineArgs(argc, argv);
                std::fprintf(stderr, "<%d %ld %ld>", Args(argv, argv + argc) == ownCommandLine(), o.calls(),
                             r.failed());
              }),
              testing::ExitedWithCode(0), "<1 2 1>");
}

}  // namespace
