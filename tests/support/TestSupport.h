// Helpers the test programs share: the text corpora, environment variables
// that are set or left out, child processes that report on stderr, and
// threads seen asleep in the kernel.
#ifndef SYSTEMTS_TESTS_TEST_SUPPORT_H
#define SYSTEMTS_TESTS_TEST_SUPPORT_H

#include <fcntl.h>
#include <limits.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

// A file of the shared corpora, or "" when it is not there.
inline std::string readCorpus(const std::string& name) {
  std::ifstream in(std::string(SYSTEMTS_CORPORA_DIR) + "/" + name, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Sets `name` to `value`, or removes it when `value` is null.
inline void setEnv(const char* name, const char* value) {
  if (value != nullptr) {
    setenv(name, value, 1);
  } else {
    unsetenv(name);
  }
}

// The body of a death test that reports what it saw on stderr: runs `f`,
// then exits with 0.
template <class F>
[[noreturn]] void runThenExit(F f) {
  f();
  std::exit(0);
}

// Runs this test program again as a child process with argv[0] `argv0` (the
// program's own path when empty), running only the tests `filter`, after
// `setup` ran in the child (environment, current directory; a false result
// ends the child). The child's test writes its report to the file named by
// the environment variable `outVar`; the report is returned, followed by
// "<status N>" when the child did not exit with 0. Standard output of the
// child is dropped.
template <class F>
std::string runSelfChild(const std::string& argv0, const std::string& filter, const char* outVar, F setup) {
  char exe[PATH_MAX] = {};
  if (readlink("/proc/self/exe", exe, sizeof exe - 1) <= 0) return "<no exe>";
  char out[] = "/tmp/childReportXXXXXX";
  const int fd = mkstemp(out);
  if (fd < 0) return "<no file>";
  close(fd);
  const pid_t pid = fork();
  if (pid == 0) {
    setenv(outVar, out, 1);
    if (!setup()) _exit(126);
    const int devNull = open("/dev/null", O_WRONLY);
    dup2(devNull, 1);
    std::string first = argv0.empty() ? exe : argv0;
    std::string only = "--gtest_filter=" + filter;
    char* argv[] = {first.data(), only.data(), nullptr};
    execv(exe, argv);
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  std::ifstream in(out, std::ios::binary);
  std::string got(std::istreambuf_iterator<char>(in), {});
  unlink(out);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) got += "<status " + std::to_string(status) + ">";
  return got;
}

// Waits for a condition with a generous deadline; never decides by sleeping.
template <class F>
bool eventually(F done) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// True while thread `tid` of this process sleeps in the kernel.
inline bool asleep(pid_t tid) {
  std::ifstream f("/proc/self/task/" + std::to_string(tid) + "/stat");
  const std::string s{std::istreambuf_iterator<char>(f), {}};
  const auto p = s.rfind(") ");
  return p != std::string::npos && s[p + 2] == 'S';
}

// A thread that gives its kernel id first, so that the test can see it sleep.
struct Sleeper {
  template <class F>
  explicit Sleeper(F f) : thread([this, f] {
    tid = static_cast<pid_t>(syscall(SYS_gettid));
    f();
    returned = true;
  }) {}
  // Whether it sleeps in the kernel (waits for it to get there); false once it returned.
  bool sleeping() { return eventually([&] { return returned || (tid != 0 && asleep(tid)); }) && !returned; }
  std::atomic<pid_t> tid{0};
  std::atomic<bool> returned{false};
  std::thread thread;
};

#endif  // SYSTEMTS_TESTS_TEST_SUPPORT_H
