// The trace option-file reader on arbitrary text. Invariants:
// - the file reader and the one-line entry agree on every line: the number
//   of bad lines the file gives is the number of lines Configure refuses
//   (a line holding a NUL byte counts as bad), and both end with the same
//   settings;
// - a refused line changes nothing;
// - reading the same text twice ends where reading it once does;
// - the settings described afterwards are within their bounds, and the
//   description, applied as a line, is taken back unchanged.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "NUVSysTrace.h"

namespace {

std::string describe(const char* name) {
  char buf[8192];
  const int n = NUVSysTraceDescribe__(name, buf, sizeof buf);
  if (n < 0 || static_cast<size_t>(n) >= sizeof buf) std::abort();
  return buf;
}

void check(bool ok) {
  if (!ok) std::abort();
}

int g_fd = -1;
std::string g_file;

// The file reader reports bad lines on standard error: sent to /dev/null
// around its calls only, so that the fuzzer's own reports still show.
int readQuietly(const char* path) {
  static const int null = open("/dev/null", O_WRONLY);
  const int saved = dup(2);
  dup2(null, 2);
  const int bad = NUVSysTraceReadOptionFile__(path);
  dup2(saved, 2);
  close(saved);
  return bad;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  for (const char* v : {"KELTraceLevel", "KELTraceSink", "KELTraceDir", "KELTraceSize", "KELTraceCount",
                        "KELTraDecDir", "KELTraceRing"})
    unsetenv(v);
  g_fd = memfd_create("trace_options", 0);
  g_file = "/proc/self/fd/" + std::to_string(g_fd);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  // Line by line through the one-line entry.
  NUVSysTraceConfigure__(nullptr);
  int refused = 0;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.find('\0') != std::string::npos) {  // refused whole by the file reader
      ++refused;
      continue;
    }
    const std::string before = describe("A");
    const int rc = NUVSysTraceConfigure__(line.c_str());
    check(rc == 0 || rc == -1);
    if (rc == -1) {
      ++refused;
      check(describe("A") == before);
    }
  }
  const std::string byLines = describe("A");
  const std::string defaultsByLines = describe("some other name");

  // The same text as a file (in memory: a file on disk makes the target
  // wait on the file system).
  if (g_fd < 0 || ftruncate(g_fd, 0) != 0 ||
      pwrite(g_fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
    return 0;
  NUVSysTraceConfigure__(nullptr);
  check(readQuietly(g_file.c_str()) == refused);
  check(describe("A") == byLines);
  check(describe("some other name") == defaultsByLines);
  check(readQuietly(g_file.c_str()) == refused);
  check(describe("A") == byLines);

  // Bounds, then the description taken back.
  char level[32], sinks[64];
  unsigned long long bytes = 0;
  int count = 0;
  const std::string d = describe("A");
  const char* rest = std::strstr(d.c_str(), " --level ");
  check(rest != nullptr);
  check(std::sscanf(rest, " --level %31s --sink %63s", level, sinks) == 2);
  const std::string lv = level;
  check(lv == "off" || lv == "error" || lv == "warning" || lv == "information" || lv == "debug");
  // The directory may hold " --size " too: the real one is the last.
  const size_t at = d.rfind(" --size ");
  check(at != std::string::npos);
  const char* tail = d.c_str() + at;
  check(std::sscanf(tail, " --size %llu --count %d", &bytes, &count) == 2);
  check(bytes >= 1 && bytes <= (1ull << 40) && count >= 1 && count <= 1000);
  check(NUVSysTraceConfigure__(d.c_str()) == 0);
  check(describe("A") == d);
  return 0;
}
