// TraceLine.h - the text of one trace line: "<time> <thread> <name> <LEVEL>: ".
#ifndef SYSTEMTS_TRACE_LINE_H
#define SYSTEMTS_TRACE_LINE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace systemts::detail {

struct TraceTime {
  std::int64_t second;  // since the epoch, UTC
  long micro;
};

// The wall clock now (0 when it cannot be read).
TraceTime traceNow();

// The calling thread's kernel id, read once per thread.
long traceThreadId();

// Room the prefix needs besides the name: 27 for the time, up to 20 for the
// thread, "WARNING: " and the blanks.
inline constexpr std::size_t kTracePrefixRoom = 64;

// Writes "2026-11-24T15:27:01.123456Z 4242 NAME INFO: " into `out`, which
// holds at least kTracePrefixRoom + name.size() bytes; returns its length.
std::size_t formatTracePrefix(char* out, TraceTime time, long thread, std::string_view name, int level);

// A whole WARNING line from the library itself, for `name`, now.
std::string traceNotice(std::string_view name, const std::string& text);

}  // namespace systemts::detail

#endif  // SYSTEMTS_TRACE_LINE_H
