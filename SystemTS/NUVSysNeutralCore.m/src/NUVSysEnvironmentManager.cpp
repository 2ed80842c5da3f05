// The environment manager: arrays of NAME=value lines, the table of
// variables put at run time, tag registration and expansion, argument suites.
#include "NUVSysEnvironmentManager.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "EnvironInternal.h"
#include "NUVSysEnvironCommandLine.h"
#include "NUVSysHashTable.h"
#include "NUVSysList.h"
#include "NUVSysTrace.h"
#include "SysCalls.h"

namespace systemts::detail {

char* copyLine(const char* text, size_t n) {
  char* copy = static_cast<char*>(g_sys.malloc(n + 1));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, text, n);
  copy[n] = '\0';
  return copy;
}

char* copyLine(const char* text) { return copyLine(text, std::strlen(text)); }

const char* lookUpInArray(char** array, const char* name) {
  if (array == nullptr || name == nullptr || *name == '\0') return nullptr;
  const size_t n = std::strlen(name);
  for (char** p = array; *p != nullptr; ++p) {
    const char* eq = std::strchr(*p, '=');
    if (eq != nullptr && static_cast<size_t>(eq - *p) == n && std::memcmp(*p, name, n) == 0) return eq + 1;
  }
  return nullptr;
}

namespace {

// The arrays carry their slot count in a hidden word before the first
// slot, so that releasing one frees every line, also those after a slot the
// caller emptied (a look-up stops at the first null slot, a release does not).
char** newArray(int n) {
  if (n < 0) return nullptr;
  auto* base = static_cast<char**>(g_sys.calloc(static_cast<size_t>(n) + 2, sizeof(char*)));
  if (base == nullptr) return nullptr;
  base[0] = reinterpret_cast<char*>(static_cast<uintptr_t>(n));
  return base + 1;
}

void releaseArray(char** array) {
  if (array == nullptr) return;
  char** base = array - 1;
  const auto n = static_cast<size_t>(reinterpret_cast<uintptr_t>(base[0]));
  for (size_t i = 0; i < n; ++i) std::free(array[i]);
  std::free(base);
}

// The variable table: values are malloc copies of text.
class EnvTable final : public NUVSysHashTable {
 public:
  EnvTable() : NUVSysHashTable(8192, -1) {}
  ~EnvTable() override { Erase(); }
  void* CopyValue(const void* value) override {
    return value != nullptr ? copyLine(static_cast<const char*>(value)) : nullptr;
  }
  void DeleteValue(void* value) override { std::free(value); }
  int CompareValue(const void* a, const void* b) override {
    return std::strcmp(static_cast<const char*>(a), static_cast<const char*>(b));
  }
};

// Argument suites, appended in order; compared by their current argument.
class SuiteList final : public NUVSysList {
 public:
  SuiteList() : NUVSysList(NUVSysListUnsorted, true) {}
  ~SuiteList() override { removeall(); }
  void* CopyElement(const void* e) override { return const_cast<void*>(e); }
  void DeleteElement(void* e) override { freeSuite(static_cast<NUVSysEnvironArgumentSuite*>(e)); }
  int CompareElements(const void* stored, const void* other) override {
    const auto* a = static_cast<const NUVSysEnvironArgumentSuite*>(stored);
    const auto* b = static_cast<const NUVSysEnvironArgumentSuite*>(other);
    if (a == nullptr || b == nullptr || a->current == nullptr || b->current == nullptr) return a == b ? 0 : 1;
    return std::strcmp(b->current, a->current);
  }
  static void freeSuite(NUVSysEnvironArgumentSuite* s) {
    if (s == nullptr) return;
    if (s->argv != nullptr)
      for (int i = 0; i < s->count; ++i) std::free(s->argv[i]);
    std::free(s->argv);
    std::free(s->cursor);
    std::free(s);
  }
};

// Tag texts, each once (compared by text); the list owns malloc copies.
class TagList final : public NUVSysList {
 public:
  TagList() : NUVSysList(NUVSysListUnsorted, false) {}
  ~TagList() override { removeall(); }
  void* CopyElement(const void* e) override {
    void* copy = copyLine(static_cast<const char*>(e));
    if (copy == nullptr) copyFailed = true;
    return copy;
  }
  void DeleteElement(void* e) override { std::free(e); }
  int CompareElements(const void* stored, const void* other) override {
    if (stored == nullptr || other == nullptr) return stored == other ? 0 : 1;
    return std::strcmp(static_cast<const char*>(other), static_cast<const char*>(stored));
  }
  bool copyFailed = false;
};

// Line addresses, not owned, equal only when the same address.
class AddrList final : public NUVSysList {
 public:
  AddrList() : NUVSysList(NUVSysListUnsorted, true) {}
  ~AddrList() override { removeall(); }
  void* CopyElement(const void* e) override { return const_cast<void*>(e); }
  void DeleteElement(void*) override {}
  int CompareElements(const void* stored, const void* other) override { return stored == other ? 0 : 1; }
};

using Retired = std::vector<char**>;

constexpr size_t kTagCut = 8191;   // a tag of kTagCut + 2 bytes or more is cut to this
constexpr size_t kTagWhole = 8192;  // up to this a tag is kept whole
constexpr size_t kTagMax = 8191;    // longer tags are never expanded

}  // namespace
}  // namespace systemts::detail

using namespace systemts::detail;

NUVSysEnvironmentManager::NUVSysEnvironmentManager()
    : _pDynamicEnv(nullptr),
      _pStaticEnv(nullptr),
      _pOfficialEnv(nullptr),
      _pEnvTable(nullptr),
      _pvRetired(nullptr),
      _pArgumentSuites(nullptr),
      _pExpandableTags(nullptr),
      _pExpandableAddrs(nullptr),
      _pTrace(nullptr) {
  std::unique_ptr<SuiteList> suites(new SuiteList);
  std::unique_ptr<TagList> tags(new TagList);
  std::unique_ptr<AddrList> addrs(new AddrList);
  std::unique_ptr<EnvTable> table(new EnvTable);
  _pTrace = NUVSysTraceCreate__("LifeCycle");
  _pArgumentSuites = suites.release();
  _pExpandableTags = tags.release();
  _pExpandableAddrs = addrs.release();
  _pEnvTable = table.release();
}

NUVSysEnvironmentManager::~NUVSysEnvironmentManager() {
  releaseArray(_pDynamicEnv);
  releaseArray(_pStaticEnv);
  releaseArray(_pOfficialEnv);
  _pDynamicEnv = _pStaticEnv = _pOfficialEnv = nullptr;
  if (auto* retired = static_cast<Retired*>(_pvRetired)) {
    for (char** a : *retired) releaseArray(a);
    delete retired;
  }
  _pvRetired = nullptr;
  delete _pEnvTable;
  _pEnvTable = nullptr;
  NUVSysTraceDestroy__(_pTrace);
  _pTrace = nullptr;
  delete _pExpandableAddrs;
  delete _pExpandableTags;
  delete _pArgumentSuites;
}

int NUVSysEnvironmentManager::retireArray(char** array) {
  if (array == nullptr) return 0;
  try {
    if (_pvRetired == nullptr) _pvRetired = new Retired;
    static_cast<Retired*>(_pvRetired)->push_back(array);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  return 0;
}

int NUVSysEnvironmentManager::BuildDynamicEnviron(int n) {
  releaseArray(_pDynamicEnv);
  _pDynamicEnv = nullptr;
  _pDynamicEnv = newArray(n);
  return _pDynamicEnv != nullptr ? 0 : -1;
}

int NUVSysEnvironmentManager::BuildStaticEnviron(int n) {
  char** array = newArray(n);
  if (array == nullptr || retireArray(_pStaticEnv) != 0) {
    releaseArray(array);
    return -1;
  }
  _pStaticEnv = array;
  return 0;
}

int NUVSysEnvironmentManager::BuildOfficialEnviron(int n) {
  char** array = newArray(n);
  if (array == nullptr || retireArray(_pOfficialEnv) != 0) {
    releaseArray(array);
    return -1;
  }
  _pOfficialEnv = array;
  return 0;
}

int NUVSysEnvironmentManager::BuildEnvironString(char** slot, const char* text) {
  if (slot == nullptr) return -1;
  std::free(*slot);
  *slot = nullptr;
  if (text != nullptr) {
    *slot = copyLine(text);
    if (*slot == nullptr) return -1;
  }
  return BuildEnvironExpandableString(*slot);
}

int NUVSysEnvironmentManager::BuildEnvironString(char** slot, const wchar_t*, int) {
  if (slot != nullptr) {
    std::free(*slot);
    *slot = nullptr;
  }
  return -1;
}

int NUVSysEnvironmentManager::BuildArgumentString(char** slot, const char* text) {
  if (slot == nullptr) return -1;
  std::free(*slot);
  *slot = nullptr;
  if (text == nullptr) return 0;
  *slot = copyLine(text);
  return *slot != nullptr ? 0 : -1;
}

int NUVSysEnvironmentManager::BuildEnvironExpandableString(const char* line) {
  if (line == nullptr) return -1;
  auto* tags = static_cast<TagList*>(_pExpandableTags);
  const char* pos = line;
  for (;;) {
    const char* start = std::strstr(pos, "${");
    if (start == nullptr) return 0;
    const char* end = std::strchr(start + 2, '}');
    if (end == nullptr) {
      // Kept as it always was: the scan stays on this "${" (see the header).
      std::this_thread::yield();
      continue;
    }
    size_t len = static_cast<size_t>(end - start) + 1;
    if (len > kTagWhole) len = kTagCut;
    const std::string tag(start, len);
    tags->copyFailed = false;
    NUVSysListElementStruct* node = tags->Add(tag.c_str());
    if (tags->copyFailed) {
      if (node != nullptr) tags->removeat(node);  // the list keeps no null tag
      return -1;
    }
    if (_pExpandableAddrs->addtail(line) == nullptr) return -1;
    NUVSYSTRACE_INFO(_pTrace, "l_pTag=='%s', ipStringAddr=='%s'", tag.c_str(), line);
    pos = end;
  }
}

int NUVSysEnvironmentManager::PutEnvInTable(const char* name, const char* value) {
  if (_pEnvTable == nullptr || name == nullptr || value == nullptr) return -1;
  return _pEnvTable->Add(name, value);
}

int NUVSysEnvironmentManager::ReplaceEnvInTable(const char* name, const char* value) {
  if (_pEnvTable == nullptr || name == nullptr || value == nullptr) return -1;
  return _pEnvTable->Replace(name, value);
}

const char* NUVSysEnvironmentManager::GetEnvInTable(const char* name) {
  if (_pEnvTable == nullptr || name == nullptr) return nullptr;
  return static_cast<const char*>(_pEnvTable->Get(name));
}

const char* NUVSysEnvironmentManager::GetEnv(const char* name) {
  if (name == nullptr || *name == '\0') return nullptr;
  if (const char* v = GetEnvInTable(name)) return v;
  if (const char* v = lookUpInArray(_pOfficialEnv, name)) return v;
  if (const char* v = lookUpInArray(_pStaticEnv, name)) return v;
  return lookUpInArray(_pDynamicEnv, name);
}

const char* NUVSysEnvironmentManager::GetOfficialEnv(const char* name) {
  return lookUpInArray(_pOfficialEnv, name);
}

int NUVSysEnvironmentManager::ExpandAllEnvironStrings() {
  if (_pExpandableAddrs->Count() == 0) return 0;
  try {
    // The slot of every line standing in an array, the official array
    // winning over the static and the dynamic one, an earlier slot over a
    // later one (so the map is filled in the reverse order).
    std::vector<char**> slots;
    std::unordered_map<const char*, size_t> slotOf;
    for (char** array : {_pDynamicEnv, _pStaticEnv, _pOfficialEnv}) {
      if (array == nullptr) continue;
      size_t n = 0;
      while (array[n] != nullptr) ++n;
      for (size_t i = n; i-- > 0;) {
        slots.push_back(&array[i]);
        slotOf[array[i]] = slots.size() - 1;
      }
    }
    // The snapshot: per registered address, the slot its line stands in and
    // the generation of that slot's line. A slot's generation moves on at
    // each replacement, so an entry left behind by a replacement (the second
    // registration of a line with two tags) no longer matches and is
    // skipped; its freed line is never read. An address that stands in no
    // array is skipped from the start.
    struct Entry {
      size_t slot;
      unsigned generation;
    };
    constexpr size_t kNone = static_cast<size_t>(-1);
    std::vector<unsigned> generation(slots.size(), 0);
    std::vector<Entry> snapshot;
    snapshot.reserve(_pExpandableAddrs->Count());
    for (void* a = _pExpandableAddrs->GetFirst(); a != nullptr; a = _pExpandableAddrs->GetNext()) {
      const auto it = slotOf.find(static_cast<const char*>(a));
      snapshot.push_back({it != slotOf.end() ? it->second : kNone, 0});
    }

    std::string name, value;
    for (void* t = _pExpandableTags->GetFirst(); t != nullptr; t = _pExpandableTags->GetNext()) {
      const char* tag = static_cast<const char*>(t);
      const size_t len = std::strlen(tag);
      if (len < 3 || len > kTagMax) continue;
      name.assign(tag + 2, len - 3);
      NUVSYSTRACE_INFO(_pTrace, "l_pExpandableStr=='%s', l_pTagAsString=='%s'", tag, name.c_str());
      const char* found = GetEnv(name.c_str());
      if (found == nullptr) continue;
      // The value may live in a line this tag is about to replace: keep a
      // copy for the whole pass.
      value.assign(found);
      NUVSYSTRACE_INFO(_pTrace, "\tl_pEnvSet='%s'", value.c_str());
      for (Entry& e : snapshot) {
        if (e.slot == kNone || e.generation != generation[e.slot]) continue;
        char** slot = slots[e.slot];
        char* old = *slot;
        char* copy = copyLine(old);
        if (copy == nullptr) return -1;
        char* line = NUVSysEnvironStringReplaceA(copy, tag, value.c_str());
        *slot = line;
        e.generation = ++generation[e.slot];
        NUVSYSTRACE_INFO(_pTrace, "*l_pEnvLine=='%s'", line);
        std::free(old);
      }
    }
  } catch (const std::bad_alloc&) {
    return -1;
  }
  return 0;
}

int NUVSysEnvironmentManager::AddMain(char** argv, int argc) {
  if (argv == nullptr || argc < 1) return -1;
  for (int i = 0; i < argc; ++i)
    if (argv[i] == nullptr) return -1;
  auto* s = static_cast<NUVSysEnvironArgumentSuite*>(g_sys.calloc(1, sizeof(NUVSysEnvironArgumentSuite)));
  if (s == nullptr) return -1;
  s->argv = static_cast<char**>(g_sys.calloc(static_cast<size_t>(argc) + 1, sizeof(char*)));
  s->cursor = static_cast<NUVSysEnvironArgumentCursor*>(g_sys.calloc(1, sizeof(NUVSysEnvironArgumentCursor)));
  bool ok = s->argv != nullptr && s->cursor != nullptr;
  for (int i = 0; ok && i < argc; ++i) {
    s->argv[i] = copyLine(argv[i]);
    ok = s->argv[i] != nullptr;
    s->count = i + 1;
  }
  if (ok) {
    s->current = s->first = s->argv[0];
    s->position = -1;
    ok = _pArgumentSuites->addtail(s) != nullptr;
  }
  if (!ok) {
    SuiteList::freeSuite(s);
    return -1;
  }
  return 0;
}

int NUVSysEnvironmentManager::AddMain(const char* line) {
  if (line == nullptr) {
    _pArgumentSuites->removeall();
    return 0;
  }
  char** argv = nullptr;
  int argc = 0;
  if (NUVSysEnvironBuildArgumentFromCommandLine(line, &argv, &argc) != 0) return -1;
  const int rc = AddMain(argv, argc);
  const int freed = NUVSysEnvironDeleteArgumentArrayA(&argv, argc);
  return rc == 0 && freed == 0 ? 0 : -1;
}

const NUVSysEnvironArgumentSuite* NUVSysEnvironmentManager::GetMainFirst() {
  return static_cast<const NUVSysEnvironArgumentSuite*>(_pArgumentSuites->GetFirst());
}

const NUVSysEnvironArgumentSuite* NUVSysEnvironmentManager::GetMainNext() {
  return static_cast<const NUVSysEnvironArgumentSuite*>(_pArgumentSuites->GetNext());
}

int NUVSysEnvironmentManager::BuildArgumentArrayA(int n, char*** out) {
  if (out == nullptr || n < 1) return -1;
  return NUVSysEnvrionCreateBufferOfStringA(static_cast<size_t>(n), out);
}

// The manager's layout is part of its binary interface: the virtual table
// pointer, the three arrays, the table, the word, the three lists, the trace.
static_assert(sizeof(NUVSysEnvironmentManager) == 10 * sizeof(void*), "NUVSysEnvironmentManager layout");
