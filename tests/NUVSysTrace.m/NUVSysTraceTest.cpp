// Traces: levels, the line format, where settings come from, option files,
// file rotation, and sinks that fail through the OS table and recover.
#include "NUVSysTrace.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "FaultInjection.h"
#include "TestSupport.h"

namespace {

using systemts::detail::SysCalls;
constexpr auto npos = std::string::npos;

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  for (std::size_t nl; (nl = text.find('\n', start)) != npos; start = nl + 1)
    lines.push_back(text.substr(start, nl - start));
  return lines;
}

std::string describe(const char* name) {
  char buf[1024];
  NUVSysTraceDescribe__(name, buf, sizeof buf);
  return buf;
}

int configure(const std::string& line) { return NUVSysTraceConfigure__(line.c_str()); }

std::string memory() {
  std::string out(NUVSysTraceReadMemory__(nullptr, 0) + 1, '\0');
  out.resize(NUVSysTraceReadMemory__(out.data(), out.size()));
  return out;
}

// Back to the built-in settings: no trace variable set, and the ring emptied.
void reset() {
  for (const char* v : {"KELTraceLevel", "KELTraceSink", "KELTraceDir", "KELTemp", "TMPDIR", "KELTraceSize",
                        "KELTraceCount", "KELTraceRing", "KELTraDecDir"})
    setEnv(v, nullptr);
  setEnv("KELTraceRing", "0");
  NUVSysTraceConfigure__(nullptr);
  setEnv("KELTraceRing", nullptr);
  NUVSysTraceConfigure__(nullptr);
}

// "2026-11-24T15:27:01.123456Z " (UTC, microseconds), then `rest`.
bool hasShape(const std::string& line, const std::string& rest) {
  const std::string kTime = "dddd-dd-ddTdd:dd:dd.ddddddZ ";
  if (line.size() < kTime.size() || line.substr(kTime.size()) != rest) return false;
  for (std::size_t i = 0; i < kTime.size(); ++i)
    if (kTime[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(line[i])) : line[i] != kTime[i]) return false;
  return true;
}

// Every test starts from the built-in settings, an empty ring and a fresh
// directory of its own.
class NUVSysTraceTest : public testing::Test {
 protected:
  void SetUp() override {
    reset();
    char pattern[] = "/tmp/systemts-trace-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    dir_ = pattern;
  }
  void TearDown() override {
    NUVSysTraceFlush__();
    std::filesystem::remove_all(dir_);
    reset();
  }
  std::string traceFile(const char* name) const {
    return dir_ + "/" + name + "." + std::to_string(getpid()) + ".trace";
  }
  std::string dir_;
};
class NUVSysTraceFaults : public NUVSysTraceTest {};

TEST_F(NUVSysTraceTest, LevelsFilterLinesAndOffEvaluatesNothing) {
  NUVSysTrace* t = NUVSysTraceCreate__("Levels");
  ASSERT_NE(nullptr, t);
  const char* kLevels[] = {"off", "error", "warning", "information", "debug"};
  for (int configured = 0; configured <= 4; ++configured) {
    SCOPED_TRACE(kLevels[configured]);
    reset();
    ASSERT_EQ(0, configure(std::string("--name Levels --sink memory --level ") + kLevels[configured]));
    int evaluated = 0;
    NUVSYSTRACE_ERROR(t, "m%d", ++evaluated);
    NUVSYSTRACE_WARNING(t, "m%d", ++evaluated);
    NUVSYSTRACE_INFO(t, "m%d", ++evaluated);
    NUVSYSTRACE_DEBUG(t, "m%d", ++evaluated);
    EXPECT_EQ(configured, evaluated);  // arguments of lines that are off are not evaluated
    for (auto print : {NUVSysTraceError__, NUVSysTraceWarning__, NUVSysTraceInfo__, NUVSysTraceDebug__}) print(t, "f");
    for (int level : {0, 5}) NUVSysTracePrint__(t, level, "never");
    NUVSysTracePrint__(nullptr, 1, "never");
    const std::string all = memory();
    EXPECT_EQ(static_cast<std::size_t>(2 * configured), linesOf(all).size()) << all;
    EXPECT_EQ(npos, all.find("never"));
    for (int l = 1; l <= 4; ++l) EXPECT_EQ(l <= configured, t->IsOn(l));
  }
  // No sink: off whatever the level.
  ASSERT_EQ(0, NUVSysTraceConfigure__("--name Levels --sink none --level debug"));
  EXPECT_FALSE(t->IsOn(NUVSysTraceError));
  NUVSysTraceDestroy__(t);
  NUVSysTraceDestroy__(nullptr);
  EXPECT_EQ(nullptr, NUVSysTraceCreate__(nullptr));
  EXPECT_EQ(nullptr, NUVSysTraceCreate__(""));
}

TEST_F(NUVSysTraceTest, LineCarriesTimeThreadNameAndLevel) {
  ASSERT_EQ(0, NUVSysTraceConfigure__("--name \"Line Format\" --sink memory --level debug"));
  NUVSysTrace* t = NUVSysTraceCreate__("Line Format");
  const std::string longText(3000, 'x');  // past the stack buffer
  const struct { void (*print)(NUVSysTrace*, const char*, ...); std::string text, rest; } kLines[] = {
      {NUVSysTraceInfo__, "plain 42", "INFO: plain 42"},
      {NUVSysTraceError__, "ends in newline\n", "ERROR: ends in newline"},
      {NUVSysTraceDebug__, longText, "DEBUG: " + longText},
      {NUVSysTraceWarning__, std::string(70 * 1024, 'y'), "WARNING: " + std::string(64 * 1024, 'y')},  // cut
  };
  for (const auto& c : kLines) c.print(t, "%s", c.text.c_str());
  NUVSysTraceDestroy__(t);
  const std::vector<std::string> lines = linesOf(memory());
  ASSERT_EQ(4u, lines.size());
  const std::string who = std::to_string(syscall(SYS_gettid)) + " Line Format ";
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(hasShape(lines[i], who + kLines[i].rest)) << lines[i].substr(0, 200);
}

// Also: handles of one name made before a change share it. (Handles made after
// a change get it: the line format and rotation tests rely on that.)
TEST_F(NUVSysTraceTest, SettingsComeFromTheMostSpecificLayer) {
  struct Case {
    const char* what;
    std::vector<std::pair<const char*, const char*>> env;
    std::vector<const char*> lines;
    std::string want;  // after "--name A "
  };
  const std::string kFile = " --directory /tmp --size 10485760 --count 5";
  const Case kCases[] = {
      {"built-in", {}, {}, "--level warning --sink stderr" + kFile},
      {"KELTemp, then TMPDIR", {{"TMPDIR", "/t2"}, {"KELTemp", "/t1"}}, {},
       "--level warning --sink stderr --directory /t1 --size 10485760 --count 5"},
      {"TMPDIR", {{"TMPDIR", "/t2"}}, {}, "--level warning --sink stderr --directory /t2 --size 10485760 --count 5"},
      {"environment defaults", {{"KELTraceLevel", "debug"}, {"KELTraceSink", "file+memory"}, {"KELTraceDir", "/d"},
        {"KELTraceSize", "2K"}, {"KELTraceCount", "2"}, {"KELTemp", "/t1"}}, {},
       "--level debug --sink memory+file --directory /d --size 2048 --count 2"},
      {"environment per name", {{"KELTraceLevel", "error, A=info ,B=debug"}, {"KELTraceSink", "stdout,A=none"}}, {},
       "--level information --sink none" + kFile},
      {"environment defaults beat default lines", {{"KELTraceLevel", "error"}}, {"--level debug --count 9"},
       "--level error --sink stderr --directory /tmp --size 10485760 --count 9"},
      {"a named line beats the environment's defaults", {{"KELTraceLevel", "error"}},
       {"--name A --level debug", "--name B --level off"}, "--level debug --sink stderr" + kFile},
      {"the environment for the name beats its lines", {{"KELTraceLevel", "A=info"}},
       {"--name A --level debug --size 1M"},
       "--level information --sink stderr --directory /tmp --size 1048576 --count 5"},
      {"later lines win; '*' is the defaults", {}, {"--name * --level 4", "--level error --sink stdout"},
       "--level error --sink stdout" + kFile},
      {"bad environment items are skipped", {{"KELTraceLevel", "loud,A=,=x,A=debug"}, {"KELTraceSize", "0"}}, {},
       "--level debug --sink stderr" + kFile},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    reset();
    for (const auto& [k, v] : c.env) setEnv(k, v);
    NUVSysTraceConfigure__(nullptr);
    for (const char* line : c.lines) EXPECT_EQ(0, NUVSysTraceConfigure__(line));
    EXPECT_EQ("--name A " + c.want, describe("A"));
    EXPECT_EQ(0, configure(describe("A")));  // takes its own description back
    EXPECT_EQ("--name A " + c.want, describe("A"));
  }
  reset();
  NUVSysTrace* a = NUVSysTraceCreate__("Shared");
  NUVSysTrace* b = NUVSysTraceCreate__("Shared");
  NUVSysTrace* other = NUVSysTraceCreate__("Other");
  ASSERT_NE(a, b);
  ASSERT_EQ(0, NUVSysTraceConfigure__("--name Shared --level debug --sink memory"));
  EXPECT_TRUE(a->IsOn(NUVSysTraceDebug));
  EXPECT_TRUE(b->IsOn(NUVSysTraceDebug));
  EXPECT_FALSE(other->IsOn(NUVSysTraceInformation));
  NUVSysTraceDestroy__(a);  // the others still follow changes
  ASSERT_EQ(0, NUVSysTraceConfigure__("--name Shared --level error"));
  EXPECT_FALSE(b->IsOn(NUVSysTraceWarning));
  NUVSysTraceDestroy__(b);
  NUVSysTraceDestroy__(other);
}

TEST_F(NUVSysTraceTest, OptionFileAppliesGoodLinesAndReportsBadOnesOnce) {
  // Bad lines: an unknown option, missing values, two values, a repeated
  // option, an unknown level and sink, size and count out of range, an empty
  // name, a short option, a value without option, an empty directory.
  const char* const kBad[] = {"--name File --colour red", "--name File --level", "--name File --level --count 2",
                              "--name File --level debug info", "--name File --name File", "--name File --level loud",
                              "--name File --sink disk", "--name File --size 0", "--name File --count 1001",
                              "--name \"\" --level error", "-v --name File", "File --level error",
                              "--name File --directory \"\""};
  const std::string path = dir_ + "/options.tradec";
  {
    std::ofstream out(path);
    out << "# comment\n\n   \t\n--name File --level debug --sink memory+file --directory \"" + dir_ +
               "\"\r\n--name File --size 4k --count 7\n";
    for (const char* line : kBad) out << line << '\n';
  }
  testing::internal::CaptureStderr();
  EXPECT_EQ(13, NUVSysTraceReadOptionFile__(path.c_str()));
  EXPECT_EQ(13, NUVSysTraceReadOptionFile__(path.c_str()));  // read again: not reported again
  const std::vector<std::string> reports = linesOf(testing::internal::GetCapturedStderr());
  ASSERT_EQ(13u, reports.size());
  for (int i = 0; i < 13; ++i) {
    const std::string where = "KELTrace: " + path + ":" + std::to_string(6 + i) + ": ";
    EXPECT_EQ(0u, reports[i].find(where)) << reports[i];
    EXPECT_NE(npos, reports[i].find("; line ignored")) << reports[i];
  }
  EXPECT_NE(npos, reports[0].find("unknown option --colour"));
  EXPECT_NE(npos, reports[2].find("option --level needs a value"));
  const std::string want = "--name File --level debug --sink memory+file --directory " + dir_ + " --size 4096 --count ";
  EXPECT_EQ(want + "7", describe("File"));
  EXPECT_EQ(-1, NUVSysTraceReadOptionFile__((dir_ + "/missing").c_str()));
  EXPECT_EQ(-1, NUVSysTraceConfigure__("--name File --level loud"));

  // The same file from the declaration directory, with a later one that
  // overrides it and a file of another extension that is not read.
  std::ofstream(dir_ + "/zz.tradec") << "--name File --count 3\n";
  std::ofstream(dir_ + "/other.txt") << "--name File --count 4\n";
  setEnv("KELTraDecDir", dir_.c_str());
  testing::internal::CaptureStderr();
  NUVSysTraceConfigure__(nullptr);
  EXPECT_EQ("", testing::internal::GetCapturedStderr());  // reported already
  EXPECT_EQ(want + "3", describe("File"));
}

TEST_F(NUVSysTraceTest, RotationKeepsExactlyCountFilesWithinTheSize) {
  const struct { const char* name; int count; std::uint64_t size; int lines; } kCases[] = {
      {"Rot3", 3, 1000, 100}, {"Rot1", 1, 1000, 100}, {"Rot5", 5, 700, 60}, {"RotBig", 3, 1 << 20, 50}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(0, configure(std::string("--level info --sink file --name ") + c.name + " --directory " + dir_ +
                           " --size " + std::to_string(c.size) + " --count " + std::to_string(c.count)));
    NUVSysTrace* t = NUVSysTraceCreate__(c.name);
    for (int i = 0; i < c.lines; ++i) NUVSysTraceInfo__(t, "line %05d %040d", i, 0);
    NUVSysTraceDestroy__(t);
    // Oldest file first; every file within the size; the lines kept are the
    // newest ones, whole, in order, ending with the last.
    const std::string base = traceFile(c.name);
    std::size_t kept = 0;
    std::string text;
    for (int k = c.count; k >= 0; --k) {
      const std::string path = k == 0 ? base : base + "." + std::to_string(k);
      if (access(path.c_str(), F_OK) != 0) continue;
      ++kept;
      const std::string one = readText(path);
      EXPECT_LE(one.size(), c.size) << path;
      EXPECT_EQ('\n', one.back());
      text += one;
    }
    EXPECT_EQ(static_cast<std::size_t>(c.size >= 100000 ? 1 : c.count), kept);
    EXPECT_NE(0, access((base + "." + std::to_string(c.count)).c_str(), F_OK));  // none past the count
    const std::vector<std::string> lines = linesOf(text);
    ASSERT_FALSE(lines.empty());
    for (std::size_t i = 0; i < lines.size(); ++i) {
      char seq[16];
      std::snprintf(seq, sizeof seq, "line %05d ", c.lines - static_cast<int>(lines.size() - i));
      EXPECT_NE(npos, lines[i].find(seq)) << lines[i];
    }
  }
}

TEST_F(NUVSysTraceFaults, WriteFailuresDropCountReportOnceThenRecover) {
  ASSERT_EQ(0, configure("--name Full --level info --sink file --directory " + dir_));
  NUVSysTrace* t = NUVSysTraceCreate__("Full");
  NUVSysTraceError__(t, "before");  // error lines are written at once
  testing::internal::CaptureStderr();
  {
    Fault<&SysCalls::write> full(ENOSPC, -1, 1, Fault<&SysCalls::write>::kAlways);
    NUVSysTraceError__(t, "lost 1");
    NUVSysTraceInfo__(t, "lost 2");
    NUVSysTraceError__(t, "lost 3");  // writes the buffer: fails again
    EXPECT_EQ(3u, NUVSysTraceGetDropped__(t));
    EXPECT_GE(full.calls(), 2);  // "lost 2" is written with "lost 3", or alone in a new second
  }
  const std::string report = testing::internal::GetCapturedStderr();
  EXPECT_EQ(1u, linesOf(report).size()) << report;
  EXPECT_NE(npos, report.find("cannot write " + traceFile("Full"))) << report;
  // Writing works again: the file says what was lost, then goes on.
  {
    Fault<&SysCalls::open> denied(EACCES, -1);  // the reopening fails once more
    NUVSysTraceError__(t, "lost 4");
  }
  NUVSysTraceError__(t, "after");
  EXPECT_EQ(4u, NUVSysTraceGetDropped__(t));
  const std::vector<std::string> lines = linesOf(readText(traceFile("Full")));
  ASSERT_EQ(3u, lines.size());
  EXPECT_NE(npos, lines[0].find("ERROR: before"));
  EXPECT_NE(npos, lines[1].find("Full WARNING: 4 lines dropped while the file could not be written"));
  EXPECT_NE(npos, lines[2].find("ERROR: after"));
  NUVSysTraceDestroy__(t);

  // The standard streams count a lost line once per sink.
  ASSERT_EQ(0, NUVSysTraceConfigure__("--name Streams --level info --sink stdout+stderr"));
  t = NUVSysTraceCreate__("Streams");
  testing::internal::CaptureStderr();
  {
    Fault<&SysCalls::write> closed(EBADF, -1, 1, Fault<&SysCalls::write>::kAlways);
    NUVSysTraceInfo__(t, "one");
    NUVSysTraceInfo__(t, "two");
  }
  NUVSysTraceInfo__(t, "three");
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(4u, NUVSysTraceGetDropped__(t));  // two lines, two sinks each
  EXPECT_NE(npos, err.find("KELTrace: cannot write to standard output"));
  EXPECT_NE(npos, err.find("KELTrace: cannot write to standard error"));
  EXPECT_NE(npos, err.find("Streams INFO: three"));
  EXPECT_EQ(3u, linesOf(err).size()) << err;
  NUVSysTraceDestroy__(t);
}

}  // namespace
