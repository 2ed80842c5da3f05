// Diagnostics.h - the one writer of the library's messages.
//
// Every message the library writes (errors and warnings of the converters,
// the national-language log, the hash table's trace lines, the strings'
// printable-character warnings, NUVDebugBreak, the trace's own complaints)
// goes through Diagnose. A message is written under the stream's lock, so
// that the parts of one message never interleave with another thread's.
// Whether a message is written at all (its gating variable, see Settings.h)
// is decided by its caller. Not exported.
#ifndef SYSTEMTS_DIAGNOSTICS_H
#define SYSTEMTS_DIAGNOSTICS_H

#include <cstdarg>
#include <cstdio>

namespace systemts::detail {

// What Diagnose adds after the formatted message.
enum DiagnoseFlags : unsigned {
  kDiagnosePlain = 0,
  kDiagnoseNewline = 1,  // one '\n'
  kDiagnoseFlush = 2,    // then flushes the stream
};

// Writes `prefix` (when not null) and the message formatted from `format`
// to `stream`, then what `flags` say. A null stream or format writes nothing.
void VDiagnose(FILE* stream, unsigned flags, const char* prefix, const char* format, va_list args);
void Diagnose(FILE* stream, unsigned flags, const char* format, ...) __attribute__((format(printf, 3, 4)));

}  // namespace systemts::detail

#endif  // SYSTEMTS_DIAGNOSTICS_H
