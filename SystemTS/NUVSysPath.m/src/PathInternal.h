// PathInternal.h - what the path module's files share and nobody else sees.
#ifndef SYSTEMTS_PATHINTERNAL_H
#define SYSTEMTS_PATHINTERNAL_H

#include <string>

namespace systemts::detail {

constexpr int NUVSysTraceInfoLevel = 3;

// Writes "<label> : Path is <text>" to the trace "NUVSysPath" (made once per
// process, with a compare-and-swap) at `level`.
void PathTrace(const char* label, const char* text, int level);

// The value of the application variable `name` (UTF-8) for logical names.
// False when it is not set.
bool LookUpLogicalName(const std::string& name, std::string& value);

}  // namespace systemts::detail

#endif  // SYSTEMTS_PATHINTERNAL_H
