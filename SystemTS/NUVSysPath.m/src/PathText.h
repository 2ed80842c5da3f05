// PathText.h - the byte-level rules of paths, shared by the path class, the
// directory iterator and the internal fuzz targets.
#ifndef SYSTEMTS_PATHTEXT_H
#define SYSTEMTS_PATHTEXT_H

#include <cstddef>
#include <cstdint>

namespace systemts::detail {

struct PathType {
  uint32_t flags;   // NUVSysPathImpl::k* bits; kInvalid alone when refused
  uint16_t prefix;  // bytes of the type's prefix
};

// Type detection and checks on `n` bytes (the first matching rule).
PathType detectPathType(const char* p, size_t n);
// 0 when the text passes the checks for its type, else -1.
int checkPath(const char* p, size_t n, PathType type);

// Cleans `n` bytes of a path of type `flags` in place (see
// NUVSysPathImpl::CleanAndCanonicalize); returns the new length, never more
// than n except that a relative path cleaning to nothing becomes "." (so
// the buffer must hold at least one byte).
size_t canonicalize(char* p, size_t n, uint32_t flags, uint16_t prefix);

}  // namespace systemts::detail

#endif  // SYSTEMTS_PATHTEXT_H
