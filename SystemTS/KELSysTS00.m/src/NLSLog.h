// NLSLog.h - the writer behind the national-language log (LogNLSCore in
// NUVSysNLSEnv.h), below every text layer that logs through it.
#ifndef SYSTEMTS_NLSLOG_H
#define SYSTEMTS_NLSLOG_H

#include <cstdarg>
#include <cstdio>

namespace systemts::detail {

// Writes only when the environment variable "NUVSysNLSCoreTrace" holds an
// integer whose low 8 bits are not 0 (read once): "[PID:<pid>]", the
// formatted message, one newline, then flushes `stream`. Null stream or
// format: nothing.
void VLogNLS(FILE* stream, const char* format, va_list args);
void LogNLS(FILE* stream, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace systemts::detail

#endif  // SYSTEMTS_NLSLOG_H
