// The prefix of trace lines, with the date text cached per thread and second.
#include "TraceLine.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "SysCalls.h"

namespace systemts::detail {

TraceTime traceNow() {
  struct timespec ts;
  if (g_sys.clockGetTime(CLOCK_REALTIME, &ts) != 0) return {0, 0};
  return {static_cast<std::int64_t>(ts.tv_sec), ts.tv_nsec / 1000};
}

long traceThreadId() {
  thread_local const long id = static_cast<long>(::syscall(SYS_gettid));
  return id;
}

namespace {

char* putDigits(char* p, unsigned long v, int width) {
  for (int i = width - 1; i >= 0; --i) {
    p[i] = static_cast<char>('0' + v % 10);
    v /= 10;
  }
  return p + width;
}

// "YYYY-MM-DDTHH:MM:SS" of `second`, formatted once per second per thread:
// most lines share their second with the line before.
const char* dateText(std::int64_t second) {
  thread_local std::int64_t cached = -1;
  thread_local char text[20];
  if (second != cached) {
    const time_t t = static_cast<time_t>(second);
    struct tm tm;
    if (gmtime_r(&t, &tm) == nullptr) std::memset(&tm, 0, sizeof tm);
    char* p = text;
    p = putDigits(p, static_cast<unsigned long>(tm.tm_year + 1900) % 10000, 4);
    *p++ = '-';
    p = putDigits(p, static_cast<unsigned long>(tm.tm_mon + 1), 2);
    *p++ = '-';
    p = putDigits(p, static_cast<unsigned long>(tm.tm_mday), 2);
    *p++ = 'T';
    p = putDigits(p, static_cast<unsigned long>(tm.tm_hour), 2);
    *p++ = ':';
    p = putDigits(p, static_cast<unsigned long>(tm.tm_min), 2);
    *p++ = ':';
    p = putDigits(p, static_cast<unsigned long>(tm.tm_sec), 2);
    *p = '\0';
    cached = second;
  }
  return text;
}

}  // namespace

std::size_t formatTracePrefix(char* out, TraceTime time, long thread, std::string_view name, int level) {
  static constexpr std::string_view kLevels[] = {"OFF: ", "ERROR: ", "WARNING: ", "INFO: ", "DEBUG: "};
  char* p = out;
  std::memcpy(p, dateText(time.second), 19);
  p += 19;
  *p++ = '.';
  p = putDigits(p, static_cast<unsigned long>(time.micro) % 1000000, 6);
  *p++ = 'Z';
  *p++ = ' ';
  char digits[24];
  int n = 0;
  unsigned long t = thread < 0 ? 0 : static_cast<unsigned long>(thread);
  do {
    digits[n++] = static_cast<char>('0' + t % 10);
    t /= 10;
  } while (t != 0);
  while (n > 0) *p++ = digits[--n];
  *p++ = ' ';
  std::memcpy(p, name.data(), name.size());
  p += name.size();
  *p++ = ' ';
  const std::string_view lv = kLevels[level >= 0 && level <= 4 ? level : 0];
  std::memcpy(p, lv.data(), lv.size());
  p += lv.size();
  return static_cast<std::size_t>(p - out);
}

std::string traceNotice(std::string_view name, const std::string& text) {
  std::string line(kTracePrefixRoom + name.size(), '\0');
  line.resize(formatTracePrefix(line.data(), traceNow(), traceThreadId(), name, 2));
  line += text;
  line += '\n';
  return line;
}

}  // namespace systemts::detail
