// The national-language log writer.
#include "NLSLog.h"

#include "Diagnostics.h"
#include "Settings.h"

#include <unistd.h>

#include <cstdlib>

namespace systemts::detail {

void VLogNLS(FILE* stream, const char* format, va_list args) {
  static const bool enabled = NLSCoreTraceSetting();
  if (!enabled || stream == nullptr || format == nullptr) return;
  char prefix[32];
  std::snprintf(prefix, sizeof prefix, "[PID:%u]", static_cast<unsigned>(getpid()));
  VDiagnose(stream, kDiagnoseNewline | kDiagnoseFlush, prefix, format, args);
}

void LogNLS(FILE* stream, const char* format, ...) {
  va_list args;
  va_start(args, format);
  VLogNLS(stream, format, args);
  va_end(args);
}

}  // namespace systemts::detail
