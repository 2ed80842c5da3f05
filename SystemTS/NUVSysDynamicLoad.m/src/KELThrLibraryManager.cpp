// The library cache: two sorted record arrays under one mutex, and a small
// per-thread memo of recent symbol hits in front of them.
//
// Records are plain structs in malloc'ed arrays that grow ten records at a
// time, re-sorted with qsort after each insertion and searched with bsearch.
//
// Why the memo: a hit in the shared arrays costs the mutex (about a third of
// the time, and the cache line moves between cores when several threads look
// up at once) and five or so strcmp calls of the binary search (another
// third); measured at about half of dlsym's cost on one thread, not enough
// for the look-up loops of the hosts. The memo answers a repeated look-up of
// the same pair from the same call site on the same thread with a few pointer
// comparisons, two strcmp calls and no shared write (about a sixth of dlsym's
// cost in bench_dynload, on one thread or two). It holds only what the shared
// arrays hold: it is filled from a record, and _Cleanup empties every
// thread's memo at once by moving the generation on, so results and loader
// calls are exactly those of the arrays alone.
#include "KELThrLibraryManager.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "DynamicLoadInternal.h"
#include "KELMutex.h"
#include "LockInternal.h"
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

// The memo: 32 sets of 4 slots, the set chosen by the addresses of the
// caller's two strings (a call site passes the same pointers each time). A
// slot answers only for the same two pointers and the same contents (a
// caller's buffer may hold another name the next time); pairs whose names do
// not fit in a slot are not memoised. A slot is valid while its generation is
// the current one; generations start at 1, so zeroed slots are invalid.
// Allocated (16 KB) on a thread's first found symbol, freed when it ends.
constexpr size_t kMemoSets = 32;
constexpr size_t kMemoWays = 4;
constexpr size_t kMemoKey = 98;
struct MemoSlot {
  const char* module;  // the caller's pointers, as a first filter
  const char* symbol;
  void* address;
  unsigned generation;
  unsigned short moduleLength;
  char key[kMemoKey];  // module, NUL, symbol, NUL
};
static_assert(sizeof(MemoSlot) == 128, "two cache lines a slot");
struct Memo {
  MemoSlot slots[kMemoSets][kMemoWays];
  unsigned char next[kMemoSets];  // the way the next new pair replaces
};

thread_local Memo* t_memo = nullptr;
thread_local bool t_memoGone = false;  // the thread is ending: memoise no more
struct MemoOwner {
  ~MemoOwner() {
    std::free(t_memo);
    t_memo = nullptr;
    t_memoGone = true;
  }
};
std::atomic<unsigned> g_generation{1};  // moved on by _Cleanup, under the lock

size_t memoSet(const char* module, const char* symbol) {
  uint64_t x = reinterpret_cast<uintptr_t>(module) ^
               (reinterpret_cast<uintptr_t>(symbol) * 0xC2B2AE3D27D4EB4Full);
  x ^= x >> 32;
  x *= 0x9E3779B97F4A7C15ull;
  return static_cast<size_t>(x >> 59) & (kMemoSets - 1);
}

void* memoFind(const char* module, const char* symbol) {
  const Memo* memo = t_memo;
  if (memo == nullptr) return nullptr;
  const unsigned generation = g_generation.load(std::memory_order_acquire);
  for (const MemoSlot& slot : memo->slots[memoSet(module, symbol)]) {
    if (slot.symbol == symbol && slot.module == module && slot.generation == generation &&
        std::strcmp(slot.key, module) == 0 &&
        std::strcmp(slot.key + slot.moduleLength + 1, symbol) == 0) {
      return slot.address;
    }
  }
  return nullptr;
}

// Under the lock, with the address of a record.
void memoStore(const char* module, const char* symbol, void* address) {
  const size_t m = std::strlen(module);
  const size_t n = std::strlen(symbol);
  if (m + n + 2 > kMemoKey || t_memoGone) return;
  if (t_memo == nullptr) {
    t_memo = static_cast<Memo*>(std::calloc(1, sizeof(Memo)));
    if (t_memo == nullptr) return;
    static thread_local MemoOwner owner;  // frees it when the thread ends
    (void)owner;
  }
  const size_t set = memoSet(module, symbol);
  MemoSlot* slot = nullptr;
  for (MemoSlot& s : t_memo->slots[set]) {
    if (s.symbol == symbol && s.module == module) slot = &s;
  }
  if (slot == nullptr) {
    slot = &t_memo->slots[set][t_memo->next[set]];
    t_memo->next[set] = static_cast<unsigned char>((t_memo->next[set] + 1) % kMemoWays);
  }
  slot->module = module;
  slot->symbol = symbol;
  slot->address = address;
  slot->generation = g_generation.load(std::memory_order_relaxed);
  slot->moduleLength = static_cast<unsigned short>(m);
  std::memcpy(slot->key, module, m + 1);
  std::memcpy(slot->key + m + 1, symbol, n + 1);
}

KELMutex& cacheLock() {
  KELMutex* m = __atomic_load_n(&g_cacheLock, __ATOMIC_ACQUIRE);
  if (m == nullptr) {
    systemts::detail::createSharedMutex(g_cacheLock);
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
  if (void* address = memoFind(module, symbol)) return address;
  KELMutex& lock = cacheLock();
  {
    KELMutexGuard guard(lock);
    if (const SymbolRecord* r = findSymbol(module, symbol)) {
      memoStore(module, symbol, r->address);
      return r->address;
    }
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
  if (findSymbol(module, symbol) != nullptr) {  // another thread recorded it
    memoStore(module, symbol, address);
    return address;
  }
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
  memoStore(module, symbol, address);
  return address;
}

void KELThrLibraryManager::_Cleanup() {
  KELMutexGuard guard(cacheLock());
  // Every thread's memo goes with the records (0 is skipped: it marks unused
  // slots).
  if (g_generation.fetch_add(1, std::memory_order_acq_rel) + 1 == 0) g_generation.store(1);
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
