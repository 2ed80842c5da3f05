// TraceOptionFile.h - reading option files: their text, their lines, and the
// declaration directory.
#ifndef SYSTEMTS_TRACE_OPTION_FILE_H
#define SYSTEMTS_TRACE_OPTION_FILE_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "TraceConfig.h"

namespace systemts::detail {

// Applies the good lines of `text` in order through `apply` (name "" for
// the defaults) and reports each bad line on standard error, once per
// process for one source, line number and text:
//   KELTrace: SOURCE:LINE: REASON; line ignored
// Lines end at '\n'; a '\r' before it is dropped. Returns the number of bad
// lines.
using TraceApply = std::function<void(const std::string& name, const TraceOptions& options)>;
int applyTraceOptionText(std::string_view text, const std::string& source, const TraceApply& apply);

// The bytes of the file at `path`, through the OS table. False when it
// cannot be opened or read; files are read up to 16 MiB.
bool readTraceFile(const char* path, std::string& out);

// The option files of a declaration directory: its regular files whose name
// ends in ".tradec", in byte order of the names. Empty when the directory
// cannot be read.
std::vector<std::string> traceDeclarationFiles(const std::string& directory);

}  // namespace systemts::detail

#endif  // SYSTEMTS_TRACE_OPTION_FILE_H
