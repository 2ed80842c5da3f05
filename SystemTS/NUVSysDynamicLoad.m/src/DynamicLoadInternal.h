// DynamicLoadInternal.h - what the module-loading sources share: the calling
// thread's last loader error, the process-wide load manager, and a view of
// the library cache for the tests.
#ifndef SYSTEMTS_DYNAMICLOADINTERNAL_H
#define SYSTEMTS_DYNAMICLOADINTERNAL_H

#include <cstddef>
#include <string>
#include <vector>

class NUVSysLifeCycleDynamicLoadManagerImplement;

namespace systemts::detail {

// Makes `text` the calling thread's last loader error (cut to the buffer).
void setLastLoadError(const char* text);

// Takes the loader's pending error text with dlerror (which also clears the
// loader's error state) and makes it the calling thread's last loader error.
// When the loader has none (a failure the loader did not report), the text
// is "<what>: <name>".
void noteLoaderError(const char* what, const char* name);

// The process-wide load manager, made on the first call, once, under the
// global mutex. Null only when it could not be made (out of memory).
NUVSysLifeCycleDynamicLoadManagerImplement* processLoadManager();

// A copy of the library cache's state, taken under its mutex.
struct LibraryCacheView {
  std::vector<std::string> modules;  // in array order
  std::vector<bool> failed;          // per module: recorded with a null handle
  size_t moduleCapacity = 0;         // records the array has room for
  std::vector<std::string> symbols;  // "symbol@module", in array order
  size_t symbolCapacity = 0;
};
LibraryCacheView libraryCacheView();

}  // namespace systemts::detail

#endif  // SYSTEMTS_DYNAMICLOADINTERNAL_H
