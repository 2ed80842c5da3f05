// The settings reader: the process environment, then the current and the
// main application context, then the install path, which is computed in
// child processes started with a chosen argv[0], "PATH" and directory.
#include "NUVSysEnvironmentManager.h"

#include <gtest/gtest.h>

#include <clocale>
#include <optional>

#include "FaultInjection.h"
#include "NUVSysNeutralCoreApplication.h"
#include "TestSupport.h"

namespace {

using systemts::detail::SysCalls;

std::string getEnvInt(const char* name, int* rc = nullptr) {
  KELUnicodeString v("<untouched>");
  const int r = NUVGetEnvInt(name, &v);
  if (rc != nullptr) *rc = r;
  return v.ConvertToUTF8();
}

// Before any context exists (a fresh process): no application context.
TEST(NUVGetEnvInt, NoApplicationContext) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(runThenExit([] {
                setEnv("SYSTEMTS_ENV_T0", nullptr);
                std::fprintf(stderr, "<%d %d %d %d %d>",
                             NUVSysNeutralCoreApplicationGetEnvironmentVariableA("PATH") == nullptr,
                             NUVSysNeutralCoreApplicationPutEnvironmentVariableA("SYSTEMTS_ENV_T0", "v"),
                             NUVSysNeutralCoreApplicationExpandAllEnvA(), NUVGetEnvInt("SYSTEMTS_ENV_T0", nullptr),
                             NUVSysNeutralCoreApplication::PeekMainApplication() == nullptr);
              }),
              testing::ExitedWithCode(0), "<1 -1 -1 0 1>");
}

TEST(NUVGetEnvInt, EnvironmentThenCurrentThenMainContext) {
  NUVSysNeutralCoreApplication* main = NUVSysNeutralCoreApplication::GetMainApplication();
  ASSERT_NE(nullptr, main);
  EXPECT_EQ(main, NUVSysNeutralCoreApplication::GetMainApplication());
  EXPECT_EQ(main, NUVSysNeutralCoreApplication::GetCurrentApplication());
  ASSERT_EQ(0, NUVSysNeutralCoreApplicationPutEnvironmentVariableA("SYSTEMTS_ENV_A", "main-a"));
  ASSERT_EQ(0, NUVSysNeutralCoreApplicationPutEnvironmentVariableA("SYSTEMTS_ENV_B", "main-b"));
  EXPECT_EQ(-1, NUVSysNeutralCoreApplicationPutEnvironmentVariableA("SYSTEMTS_ENV_B", nullptr));
  EXPECT_EQ(-1, NUVSysNeutralCoreApplicationPutEnvironmentVariableA(nullptr, "x"));
  {
    NUVSysNeutralCoreApplication own;
    NUVSysNeutralCoreApplication::SetCurrentApplication(&own);
    ASSERT_EQ(0, NUVSysNeutralCoreApplicationPutEnvironmentVariableA("SYSTEMTS_ENV_A", "own-a"));
    setEnv("SYSTEMTS_ENV_B", "env-b");
    const struct { const char* name; int rc; const char* value; } kCases[] = {
        {"SYSTEMTS_ENV_A", 1, "own-a"}, {"SYSTEMTS_ENV_B", 1, "env-b"}, {"SYSTEMTS_ENV_UNSET", 0, "<untouched>"}};
    for (const auto& c : kCases) {
      SCOPED_TRACE(c.name);
      int rc = -1;
      EXPECT_EQ(c.value, getEnvInt(c.name, &rc));
      EXPECT_EQ(c.rc, rc);
      EXPECT_EQ(c.rc, NUVGetEnvInt(c.name, nullptr));
    }
    setEnv("SYSTEMTS_ENV_B", nullptr);
    EXPECT_EQ("main-b", getEnvInt("SYSTEMTS_ENV_B"));
    EXPECT_STREQ("main-b", NUVSysNeutralCoreApplicationGetEnvironmentVariableA("SYSTEMTS_ENV_B"));
    NUVSysNeutralCoreApplication::SetCurrentApplication(nullptr);
    EXPECT_EQ("main-a", getEnvInt("SYSTEMTS_ENV_A"));
    NUVSysNeutralCoreApplication::SetCurrentApplication(&own);
  }
  // Destroying the thread's own context put the main one back.
  EXPECT_EQ(main, NUVSysNeutralCoreApplication::GetCurrentApplication());
  // The official look-up reads the official arrays only.
  NUVSysEnvironmentManager* m = main->GetEnvironmentManager();
  ASSERT_EQ(0, m->BuildOfficialEnviron(1));
  ASSERT_EQ(0, m->BuildEnvironString(&m->GetOfficialEnviron()[0], "SYSTEMTS_ENV_O=off"));
  EXPECT_STREQ("off", NUVSysNeutralCoreApplicationGetOfficialEnvironmentVariableA("SYSTEMTS_ENV_O"));
  EXPECT_EQ(nullptr, NUVSysNeutralCoreApplicationGetOfficialEnvironmentVariableA("SYSTEMTS_ENV_A"));
  EXPECT_EQ(0, NUVSysNeutralCoreApplicationExpandAllEnvA());
}

TEST(NUVGetEnvInt, FromOSAndTheFixedEntryPoints) {
  setEnv("SYSTEMTS_ENV_OS", "os");
  KELUnicodeString v("x");
  EXPECT_EQ(1, _NUVGetEnvironmentVariableFromOS("SYSTEMTS_ENV_OS", v));
  EXPECT_EQ("os", v.ConvertToUTF8());
  setEnv("SYSTEMTS_ENV_OS", nullptr);
  EXPECT_EQ(0, _NUVGetEnvironmentVariableFromOS("SYSTEMTS_ENV_OS", v));
  EXPECT_EQ("os", v.ConvertToUTF8());
  EXPECT_EQ(0, _NUVGetEnvironmentVariableFromOS(nullptr, v));
  EXPECT_EQ(0, NUVGetEnvInt(nullptr, &v));
  // Intended: these two never report a value.
  setEnv("SYSTEMTS_ENV_OS", "os");
  char buffer[8] = "keep";
  size_t needed = 7;
  EXPECT_EQ(-1, NUVSysGetEnvA(&needed, buffer, sizeof buffer, "SYSTEMTS_ENV_OS"));
  EXPECT_EQ(7u, needed);
  EXPECT_STREQ("keep", buffer);
  EXPECT_EQ(nullptr, NUVSysGetOfficialEnvA("SYSTEMTS_ENV_OS"));
  setEnv("SYSTEMTS_ENV_OS", nullptr);
}

// ---- the install path, in child processes ----

constexpr const char* kChildOut = "SYSTEMTS_INSTALL_CHILD_OUT";
constexpr const char* kChildFault = "SYSTEMTS_INSTALL_CHILD_FAULT";

// The child's side: the install path, then what NUVGetEnvInt says of
// "KELInstallPath", to the file named by kChildOut.
TEST(InstallPathChild, Report) {
  const char* out = std::getenv(kChildOut);
  if (out == nullptr) GTEST_SKIP() << "runs only in the children of the install-path tests";
  const char* fault = std::getenv(kChildFault);
  const std::string which = fault != nullptr ? fault : "";
  std::optional<Fault<&SysCalls::getcwd>> noCwd;
  std::optional<Fault<&SysCalls::access>> noAccess;
  if (which == "getcwd") noCwd.emplace(ERANGE, nullptr, 1, Fault<&SysCalls::getcwd>::kAlways);
  if (which == "access") noAccess.emplace(EACCES, -1, 1, Fault<&SysCalls::access>::kAlways);
  const std::string path = NUVGetMainInstallPath();
  int rc = -1;
  const std::string viaEnv = getEnvInt("KELInstallPath", &rc);
  std::ofstream(out, std::ios::binary) << path << "|" << rc << "|" << viaEnv;
}

// Runs the test binary as `argv0` in `dir` with "PATH" set to `pathEnv`
// and the fault named `fault` ("getcwd", "access" or ""); what the child
// reported.
std::string runChild(const std::string& argv0, const std::string& pathEnv, const std::string& dir,
                     const char* fault, const char* lang = "C") {
  return runSelfChild(argv0, "InstallPathChild.Report", kChildOut, [&] {
    setenv(kChildFault, fault, 1);
    setenv("PATH", pathEnv.c_str(), 1);
    unsetenv("KELInstallPath");
    setenv("LANG", lang, 1);
    return chdir(dir.c_str()) == 0;
  });
}

// A directory tree T/opt/a/prog (readable) and T/opt/b (no prog).
struct Tree {
  std::string root;
  Tree() {
    char tmpl[] = "/tmp/envTreeXXXXXX";
    char real[PATH_MAX];
    if (mkdtemp(tmpl) == nullptr || realpath(tmpl, real) == nullptr) return;
    root = real;
    for (const char* d : {"/opt", "/opt/a", "/opt/b"}) mkdir((root + d).c_str(), 0755);
    std::ofstream(root + "/opt/a/prog") << "x";
  }
  ~Tree() {
    unlink((root + "/opt/a/prog").c_str());
    for (const char* d : {"/opt/b", "/opt/a", "/opt", ""}) rmdir((root + d).c_str());
  }
};

// Each case in a child process; the fault cases make getcwd or access fail.
TEST(NUVGetMainInstallPathFaults, ChildProcesses) {
  Tree t;
  ASSERT_FALSE(t.root.empty());
  const std::string path = "/nonexistent::" + t.root + "/opt/b:" + t.root + "/opt/a/";
  const std::string parent = t.root.substr(0, t.root.rfind('/'));
  const struct { std::string argv0, pathEnv, dir; const char* fault; std::string want; } kCases[] = {
      // Found through "PATH" (empty and missing entries skipped, a trailing
      // "/" not doubled): T/opt/a/prog loses three components.
      {"prog", path, "/", "", t.root},
      {"prog", "/nonexistent:" + t.root + "/opt/b", "/", "", ""},
      // Relative with a "/": the current directory first.
      {"bin/x/prog", path, t.root, "", t.root},
      {"x/prog", path, t.root, "", parent},
      // Absolute.
      {"/r/s/t/u/prog", path, "/", "", "/r/s"},
      // Fewer than three separators: cutting stops when none is left.
      {"/a/prog", path, "/", "", ""},
      {"/prog", path, "/", "", ""},
      // No current directory: a relative program is cut as it stands.
      {"bin/x/prog", "/bin", t.root, "getcwd", "bin"},
      // Nothing readable along "PATH": empty.
      {"prog", t.root + "/opt/a", "/", "access", ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.argv0 + " in " + c.dir + " " + c.fault);
    EXPECT_EQ(c.want + "|1|" + c.want, runChild(c.argv0, c.pathEnv, c.dir, c.fault));
  }
}

// A path that is not UTF-8 is taken as the process code page and converted.
TEST(NUVGetMainInstallPath, NotUTF8IsConverted) {
  locale_t latin1 = newlocale(LC_ALL_MASK, "fr_FR.ISO-8859-1", nullptr);
  if (latin1 == nullptr) GTEST_SKIP() << "no fr_FR.ISO-8859-1 locale";
  freelocale(latin1);
  EXPECT_EQ("/opt/\xC3\xA9t\xC3\xA9|1|/opt/\xC3\xA9t\xC3\xA9",
            runChild("/opt/\xE9t\xE9/x/y/prog", "/bin", "/", "", "fr_FR.ISO-8859-1"));
}

}  // namespace
