// The national-language log writer.
#include "NLSLog.h"
#include "Settings.h"

#include <unistd.h>

#include <cstdlib>

namespace systemts::detail {

void VLogNLS(FILE* stream, const char* format, va_list args) {
  static const bool enabled = NLSCoreTraceSetting();
  if (!enabled || stream == nullptr || format == nullptr) return;
  std::fprintf(stream, "[PID:%u]", static_cast<unsigned>(getpid()));
  std::vfprintf(stream, format, args);
  std::fputc('\n', stream);
  std::fflush(stream);
}

void LogNLS(FILE* stream, const char* format, ...) {
  va_list args;
  va_start(args, format);
  VLogNLS(stream, format, args);
  va_end(args);
}

}  // namespace systemts::detail
