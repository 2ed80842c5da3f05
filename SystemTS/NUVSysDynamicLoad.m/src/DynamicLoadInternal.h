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

// Reports the library cache's records in array order, under its mutex:
// `onModule` for each module record (failed: recorded with a null handle),
// `onSymbol` for each symbol record, then the records each array has room for.
struct LibraryCacheVisitor {
  void (*onModule)(void* self, const char* module, bool failed);
  void (*onSymbol)(void* self, const char* symbol, const char* module);
  void* self;
};
void visitLibraryCache(const LibraryCacheVisitor& visitor, size_t* moduleCapacity,
                       size_t* symbolCapacity);

// A copy of the library cache's state for the tests. Built here, in the
// caller, so that the library itself instantiates no standard containers of
// standard types (they would be exported with it).
struct LibraryCacheView {
  std::vector<std::string> modules;  // in array order
  std::vector<bool> failed;          // per module
  size_t moduleCapacity = 0;         // records the array has room for
  std::vector<std::string> symbols;  // "symbol@module", in array order
  size_t symbolCapacity = 0;
};
inline LibraryCacheView libraryCacheView() {
  LibraryCacheView view;
  LibraryCacheVisitor visitor{
      [](void* self, const char* module, bool failed) {
        static_cast<LibraryCacheView*>(self)->modules.emplace_back(module);
        static_cast<LibraryCacheView*>(self)->failed.push_back(failed);
      },
      [](void* self, const char* symbol, const char* module) {
        static_cast<LibraryCacheView*>(self)->symbols.push_back(std::string(symbol) + "@" + module);
      },
      &view};
  visitLibraryCache(visitor, &view.moduleCapacity, &view.symbolCapacity);
  return view;
}

}  // namespace systemts::detail

#endif  // SYSTEMTS_DYNAMICLOADINTERNAL_H
