// The one writer of the library's messages.
#include "Diagnostics.h"

namespace systemts::detail {

void VDiagnose(FILE* stream, unsigned flags, const char* prefix, const char* format, va_list args) {
  if (stream == nullptr || format == nullptr) return;
  flockfile(stream);
  if (prefix != nullptr) std::fputs(prefix, stream);
  std::vfprintf(stream, format, args);
  if ((flags & kDiagnoseNewline) != 0) std::fputc('\n', stream);
  if ((flags & kDiagnoseFlush) != 0) std::fflush(stream);
  funlockfile(stream);
}

void Diagnose(FILE* stream, unsigned flags, const char* format, ...) {
  va_list args;
  va_start(args, format);
  VDiagnose(stream, flags, nullptr, format, args);
  va_end(args);
}

}  // namespace systemts::detail
