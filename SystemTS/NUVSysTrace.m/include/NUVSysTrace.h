// NUVSysTrace.h - named traces: printf-style lines at four levels, written
// to standard output, standard error, an in-memory ring and size-rotated
// files, configured per trace name from the environment and option files.
//
// A trace is a handle made by NUVSysTraceCreate__(name). Every handle of one
// name shares that name's configuration (level, sinks, file), which lives for
// the process; the handle itself is released by NUVSysTraceDestroy__.
//
//   NUVSysTrace* t = NUVSysTraceCreate__("LifeCycle");
//   NUVSYSTRACE_INFO(t, "built %d variables", n);     // inline level check
//   NUVSysTraceInfo__(t, "built %d variables", n);    // the same, as a call
//   NUVSysTraceDestroy__(t);
//
// Cost: a line below the trace's level costs one relaxed atomic load and a
// branch in the NUVSYSTRACE_* macros (NUVSysTrace::IsOn is inline), before
// any argument is evaluated or formatted. The NUVSysTrace<Level>__ functions
// make the same test as their first step, after the call.
//
// A line, as every sink receives it:
//   2026-11-24T15:27:01.123456Z 4242 LifeCycle INFO: built 12 variables
// the time (UTC, microseconds), the kernel thread id (as top and gdb show
// it), the trace name, the level (ERROR, WARNING, INFO, DEBUG), then the
// message. One newline ends the line; a message that already ends in one
// does not get a second. Newlines inside a message are written as they are.
// A message is cut at 64 KiB.
//
// Levels: 0 off, 1 error, 2 warning, 3 information, 4 debug. A trace
// writes the lines at its level and below.
//
// Sinks (any combination, per trace name):
//   stdout, stderr  one write(2) per line, unbuffered, so lines of several
//                   threads and processes do not mix below the pipe limit.
//   memory          one ring of the last N lines of every trace, in the order
//                   they were written, for post-mortem reading
//                   (NUVSysTraceReadMemory__, NUVSysTraceDumpMemory__).
//   file            <directory>/<name>.<pid>.trace, rotated by size: before a
//                   line would take the file past `size` bytes, the file is
//                   renamed <...>.trace.1 (older ones move up to .2, ...) and
//                   a new one is begun, so that exactly `count` files are kept
//                   in all (count 1: the file is removed and begun anew). A
//                   file never exceeds `size` unless one line alone does.
//                   Characters of the name other than letters, digits, '.',
//                   '-' and '_' are written '_' in the file name. Lines are
//                   buffered (32 KiB) and written when the buffer fills, at
//                   once for an error line, at the first line after a second
//                   without a write, on NUVSysTraceFlush__, when the last
//                   handle of the name is destroyed, and at normal exit.
//
// Configuration. Every setting of a trace name is taken from the first of
// these that sets it (the more specific name wins over the environment):
//   1. the environment for that name: "KELTraceLevel" and "KELTraceSink" hold
//      a default and NAME=VALUE items, "warning,LifeCycle=debug";
//   2. option lines for that name (--name NAME), the later line winning;
//   3. the environment's defaults: the default items of "KELTraceLevel" and
//      "KELTraceSink", "KELTraceDir", "KELTraceSize", "KELTraceCount";
//   4. option lines without --name (or with --name "*");
//   5. built-in: level warning, sink stderr, directory "KELTemp" else
//      "TMPDIR" else "/tmp", size 10485760 bytes, count 5.
// "KELTraceRing" sets the ring's capacity in lines (default 1024, 0 turns
// the ring off). "KELTraDecDir" names a directory of trace declaration
// files: every regular file in it whose name ends in ".tradec" is read as an
// option file, in byte order of the names, when tracing starts and on
// NUVSysTraceConfigure__(nullptr).
// The environment and the declaration files are read when the first trace
// is made (or the first function of this header is called) and again on
// NUVSysTraceConfigure__(nullptr).
//
// Option lines (files, NUVSysTraceConfigure__) are split like a command line
// and hold the long options
//   --name NAME  --level LEVEL  --sink SINKS  --directory DIR
//   --size BYTES  --count FILES
// each at most once and with exactly one value. LEVEL: off, error, warning,
// information (or info), debug, or 0 to 4, in any case. SINKS: stdout,
// stderr, memory, file, joined with '+' (stderr+file), or none. BYTES: 1 to
// 2^40, a decimal number with an optional K, M or G suffix (times 1024).
// FILES: 1 to 1000. DIR: not empty. Empty lines and lines whose first
// non-blank character is '#' are comments. A bad line is reported once on
// standard error, with its file and line number, and ignored whole.
//
// Failure: a sink that cannot write (disk full, directory gone, permission,
// a closed stream) drops the lines, counts them in the trace's dropped count
// (NUVSysTraceGetDropped__), reports once on standard error, and recovers
// when writing works again; a recovered file first receives one WARNING line
// saying how many lines were lost. A call blocks its caller at most for the
// write of one line or one buffer (plus a rotation). Nothing here throws; an
// allocation that fails drops the line and counts it.
//
// Threads: every function is callable from any thread, on the same or on
// different handles, except that a handle must not be used during or after
// its own NUVSysTraceDestroy__. Lines of one thread keep their order in every
// sink.
#ifndef NUVSYSTRACE_H
#define NUVSYSTRACE_H

#include <atomic>
#include <cstdarg>
#include <cstddef>

#include "SystemTSCommon.h"

enum NUVSysTraceLevel {
  NUVSysTraceOff = 0,
  NUVSysTraceError = 1,
  NUVSysTraceWarning = 2,
  NUVSysTraceInformation = 3,
  NUVSysTraceDebug = 4,
};

// A handle on a named trace. Made only by NUVSysTraceCreate__, released only
// by NUVSysTraceDestroy__; not copyable.
class NUVSysTrace {
 public:
  // Whether a line at `level` (1 to 4) would be written: one relaxed atomic
  // load and a compare. The level follows configuration changes made from
  // other threads, possibly a few lines late.
  bool IsOn(int level) const noexcept { return level <= level_.load(std::memory_order_relaxed); }

  NUVSysTrace(const NUVSysTrace&) = delete;
  NUVSysTrace& operator=(const NUVSysTrace&) = delete;

 protected:
  NUVSysTrace() noexcept = default;
  ~NUVSysTrace() = default;

  // The name's level, copied into each handle so that the test above reads
  // one word; the library updates every handle of a name together.
  std::atomic<int> level_{NUVSysTraceOff};
};

// Makes a handle on the trace `name` (bytes compared exactly). The first
// handle of a name sets the name's configuration up from the environment and
// the option lines; later handles share it.
// Ownership: release with NUVSysTraceDestroy__.
// Failure: null for a null or empty name or when memory runs out.
SYSTEMTS_API NUVSysTrace* NUVSysTraceCreate__(const char* name);

// Releases a handle; null is ignored. When it was the last handle of its
// name, that name's buffered file lines are written. The name's
// configuration, file and dropped count stay for the process.
SYSTEMTS_API void NUVSysTraceDestroy__(NUVSysTrace* trace);

// Writes one line at `level` (1 to 4) when the trace is on at that level. A
// null trace or a level outside 1 to 4 writes nothing. A null format writes
// an empty message.
SYSTEMTS_API void NUVSysTracePrint__(NUVSysTrace* trace, int level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
SYSTEMTS_API void NUVSysTracePrintV__(NUVSysTrace* trace, int level, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

// NUVSysTracePrint__ at one level each. NUVSysTraceInfo__ is the
// information-level print the library's own modules use.
SYSTEMTS_API void NUVSysTraceError__(NUVSysTrace* trace, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
SYSTEMTS_API void NUVSysTraceWarning__(NUVSysTrace* trace, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
SYSTEMTS_API void NUVSysTraceInfo__(NUVSysTrace* trace, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
SYSTEMTS_API void NUVSysTraceDebug__(NUVSysTrace* trace, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// The level test inline, then NUVSysTracePrint__: nothing of the arguments is
// evaluated when the trace is off at that level. `trace` is evaluated once
// and may be null.
#define NUVSYSTRACE_PRINT(trace, level, ...)                                 \
  do {                                                                       \
    NUVSysTrace* const nuvSysTrace_ = (trace);                               \
    if (nuvSysTrace_ != nullptr && nuvSysTrace_->IsOn(level))                \
      NUVSysTracePrint__(nuvSysTrace_, (level), __VA_ARGS__);                \
  } while (0)
#define NUVSYSTRACE_ERROR(trace, ...) NUVSYSTRACE_PRINT(trace, NUVSysTraceError, __VA_ARGS__)
#define NUVSYSTRACE_WARNING(trace, ...) NUVSYSTRACE_PRINT(trace, NUVSysTraceWarning, __VA_ARGS__)
#define NUVSYSTRACE_INFO(trace, ...) NUVSYSTRACE_PRINT(trace, NUVSysTraceInformation, __VA_ARGS__)
#define NUVSYSTRACE_DEBUG(trace, ...) NUVSYSTRACE_PRINT(trace, NUVSysTraceDebug, __VA_ARGS__)

// Applies one option line (the grammar above) on top of the lines applied
// before, and updates every trace it concerns. A null line forgets every
// applied line and reads the environment and the declaration files again.
// Result: 0; -1 for a bad line, which changes nothing and is not reported.
// Changing a trace's file settings closes its current file (after writing
// its buffer); the next line opens the file the new settings name.
SYSTEMTS_API int NUVSysTraceConfigure__(const char* line);

// Reads an option file and applies its good lines in order, reporting each
// bad line once on standard error as "KELTrace: FILE:LINE: REASON; line
// ignored". Result: the number of bad lines, or -1 when the file cannot be
// read (nothing applied, nothing reported).
SYSTEMTS_API int NUVSysTraceReadOptionFile__(const char* path);

// Writes the settings now in force for `name` as one option line, which
// NUVSysTraceConfigure__ takes back unchanged:
//   --name N --level L --sink S --directory "D" --size B --count C
// into `buffer` (NUL-terminated, cut to `size` - 1 bytes). Result: the length
// of the whole line, as snprintf; -1 for a null or empty name.
SYSTEMTS_API int NUVSysTraceDescribe__(const char* name, char* buffer, size_t size);

// Lines the sinks of `trace`'s name could not write, since the process began.
// 0 for a null trace.
SYSTEMTS_API unsigned long long NUVSysTraceGetDropped__(const NUVSysTrace* trace);

// Copies the ring's lines, oldest first, into `buffer` (NUL-terminated, cut
// to `size` - 1 bytes; `buffer` may be null when `size` is 0). Result: the
// length of all the lines, so that a caller can size a second call.
SYSTEMTS_API size_t NUVSysTraceReadMemory__(char* buffer, size_t size);

// Writes the ring's lines, oldest first, to the file descriptor `fd`.
// Result: 0, or -1 when a write fails. Takes the ring's lock: not for a
// signal handler.
SYSTEMTS_API int NUVSysTraceDumpMemory__(int fd);

// Writes the buffered lines of every file sink now. Result: 0, or -1 when a
// file could not be written (its lines are dropped and counted).
SYSTEMTS_API int NUVSysTraceFlush__();

#endif  // NUVSYSTRACE_H
