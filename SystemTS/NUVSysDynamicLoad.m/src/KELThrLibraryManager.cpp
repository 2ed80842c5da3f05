// The library cache: two sorted record arrays under one mutex.
//
// Records are plain structs in malloc'ed arrays that grow ten records at a
// time, re-sorted with qsort after each insertion and searched with bsearch.
// A look-up that hits costs one lock and one binary search with strcmp; the
// loader's own dlsym takes its lock too and hashes the name, so the cache wins
// by skipping the loader's symbol search and its error bookkeeping.
#include "KELThrLibraryManager.h"

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>

#include "DynamicLoadInternal.h"
#include "KELMutex.h"
#include "SysCalls.h"

namespace {

using systemts::detail::g_sys;

struct LibraryRecord {
  char* module;  // owned
  void* handle;  // null: the load failed and is not tried again
  char* error;   // owned; the loader's text when the load failed, else null
};

struct SymbolRecord {
  char* symbol;  // owned
  char* module;  // owned
  void* address;
};

constexpr size_t kGrowth = 10;

// All guarded by g_cacheLock.
LibraryRecord* g_libraries = nullptr;
size_t g_libraryCount = 0;
size_t g_libraryCapacity = 0;
SymbolRecord* g_symbols = nullptr;
size_t g_symbolCount = 0;
size_t g_symbolCapacity = 0;
bool g_cleanupRegistered = false;

KELMutex* g_cacheLock = nullptr;

KELMutex& cacheLock() {
  KELMutex* m = __atomic_load_n(&g_cacheLock, __ATOMIC_ACQUIRE);
  if (m == nullptr) {
    NUVCreateMutex(g_cacheLock, 1);
    m = __atomic_load_n(&g_cacheLock, __ATOMIC_ACQUIRE);
  }
  return *m;
}

int compareLibraries(const void* a, const void* b) {
  return std::strcmp(static_cast<const LibraryRecord*>(a)->module,
                     static_cast<const LibraryRecord*>(b)->module);
}

int compareSymbols(const void* a, const void* b) {
  const auto* x = static_cast<const SymbolRecord*>(a);
  const auto* y = static_cast<const SymbolRecord*>(b);
  const int bySymbol = std::strcmp(x->symbol, y->symbol);
  return bySymbol != 0 ? bySymbol : std::strcmp(x->module, y->module);
}

LibraryRecord* findLibrary(const char* module) {
  if (g_libraryCount == 0) return nullptr;
  LibraryRecord key{const_cast<char*>(module), nullptr, nullptr};
  return static_cast<LibraryRecord*>(
      std::bsearch(&key, g_libraries, g_libraryCount, sizeof(LibraryRecord), compareLibraries));
}

SymbolRecord* findSymbol(const char* module, const char* symbol) {
  if (g_symbolCount == 0) return nullptr;
  SymbolRecord key{const_cast<char*>(symbol), const_cast<char*>(module), nullptr};
  return static_cast<SymbolRecord*>(
      std::bsearch(&key, g_symbols, g_symbolCount, sizeof(SymbolRecord), compareSymbols));
}

char* copyString(const char* s) {
  const size_t n = std::strlen(s) + 1;
  char* copy = static_cast<char*>(g_sys.malloc(n));
  if (copy != nullptr) std::memcpy(copy, s, n);
  return copy;
}

// Makes room for one more record: when the count is a multiple of ten, moves
// the records to a new array of count + 10. False when out of memory.
template <class Record>
bool makeRoom(Record*& array, size_t count, size_t& capacity) {
  if (count % kGrowth != 0) return true;
  auto* bigger = static_cast<Record*>(g_sys.malloc((count + kGrowth) * sizeof(Record)));
  if (bigger == nullptr) return false;
  if (count != 0) std::memcpy(bigger, array, count * sizeof(Record));
  std::free(array);
  array = bigger;
  capacity = count + kGrowth;
  return true;
}

// Records a load (under the lock): overwrites the record another thread made
// meanwhile, or inserts one. `error` is owned by the record afterwards (or
// freed). False when the record could not be made.
bool recordLibrary(const char* module, void* handle, char* error) {
  if (LibraryRecord* r = findLibrary(module)) {
    r->handle = handle;
    std::free(r->error);
    r->error = error;
    return true;
  }
  char* name = copyString(module);
  if (name == nullptr || !makeRoom(g_libraries, g_libraryCount, g_libraryCapacity)) {
    std::free(name);
    std::free(error);
    return false;
  }
  g_libraries[g_libraryCount++] = LibraryRecord{name, handle, error};
  std::qsort(g_libraries, g_libraryCount, sizeof(LibraryRecord), compareLibraries);
  if (!g_cleanupRegistered) {
    // atexit from a shared object runs the handler when that object is
    // unloaded, or at exit.
    g_cleanupRegistered = true;
    std::atexit(&KELThrLibraryManager::_Cleanup);
  }
  return true;
}

}  // namespace

void* KELThrLibraryManager::LoadLibrary(const char* module) {
  if (module == nullptr) return nullptr;
  KELMutex& lock = cacheLock();
  {
    KELMutexGuard guard(lock);
    if (const LibraryRecord* r = findLibrary(module)) {
      if (r->handle == nullptr) systemts::detail::setLastLoadError(r->error);
      return r->handle;
    }
  }
  // Outside the lock: loading runs the module's constructors, which may take
  // their time or use the cache themselves.
  const size_t length = std::strlen(module);
  char small[256];
  char* fileName = length + 7 <= sizeof small ? small : static_cast<char*>(g_sys.malloc(length + 7));
  if (fileName == nullptr) return nullptr;
  std::memcpy(fileName, "lib", 3);
  std::memcpy(fileName + 3, module, length);
  std::memcpy(fileName + 3 + length, ".so", 4);
  void* const handle = g_sys.dlopen(fileName, RTLD_LAZY | RTLD_GLOBAL);
  char* error = nullptr;
  if (handle == nullptr) {
    systemts::detail::noteLoaderError("cannot load", fileName);
    error = copyString(NUVSysDynamicLoadLastError());
  }
  if (fileName != small) std::free(fileName);
  KELMutexGuard guard(lock);
  recordLibrary(module, handle, error);
  return handle;
}

void* KELThrLibraryManager::GetFunctionAddress(const char* module, const char* symbol) {
  if (module == nullptr) return nullptr;
  if (symbol == nullptr) {
    LoadLibrary(module);
    return nullptr;
  }
  KELMutex& lock = cacheLock();
  {
    KELMutexGuard guard(lock);
    if (const SymbolRecord* r = findSymbol(module, symbol)) return r->address;
  }
  void* const handle = LoadLibrary(module);
  if (handle == nullptr) return nullptr;
  void* const address = g_sys.dlsym(handle, symbol);
  if (address == nullptr) {
    // Not cached; dlerror takes the text and clears the loader's error state.
    systemts::detail::noteLoaderError("symbol not found", symbol);
    return nullptr;
  }
  KELMutexGuard guard(lock);
  if (findSymbol(module, symbol) != nullptr) return address;  // another thread recorded it
  char* symbolCopy = copyString(symbol);
  char* moduleCopy = copyString(module);
  if (symbolCopy == nullptr || moduleCopy == nullptr ||
      !makeRoom(g_symbols, g_symbolCount, g_symbolCapacity)) {
    std::free(symbolCopy);
    std::free(moduleCopy);
    return address;  // found, only not cached
  }
  g_symbols[g_symbolCount++] = SymbolRecord{symbolCopy, moduleCopy, address};
  std::qsort(g_symbols, g_symbolCount, sizeof(SymbolRecord), compareSymbols);
  return address;
}

void KELThrLibraryManager::_Cleanup() {
  KELMutexGuard guard(cacheLock());
  for (size_t i = 0; i < g_libraryCount; ++i) {
    std::free(g_libraries[i].module);
    std::free(g_libraries[i].error);
  }
  for (size_t i = 0; i < g_symbolCount; ++i) {
    std::free(g_symbols[i].symbol);
    std::free(g_symbols[i].module);
  }
  std::free(g_libraries);
  std::free(g_symbols);
  g_libraries = nullptr;
  g_symbols = nullptr;
  g_libraryCount = g_libraryCapacity = 0;
  g_symbolCount = g_symbolCapacity = 0;
}

namespace systemts::detail {

void visitLibraryCache(const LibraryCacheVisitor& visitor, size_t* moduleCapacity,
                       size_t* symbolCapacity) {
  KELMutexGuard guard(cacheLock());
  for (size_t i = 0; i < g_libraryCount; ++i) {
    visitor.onModule(visitor.self, g_libraries[i].module, g_libraries[i].handle == nullptr);
  }
  for (size_t i = 0; i < g_symbolCount; ++i) {
    visitor.onSymbol(visitor.self, g_symbols[i].symbol, g_symbols[i].module);
  }
  *moduleCapacity = g_libraryCapacity;
  *symbolCapacity = g_symbolCapacity;
}

}  // namespace systemts::detail
