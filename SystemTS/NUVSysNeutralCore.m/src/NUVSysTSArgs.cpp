// The process's own command line and the named-argument table.
#include "NUVSysTSArgs.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "ArgEnt.h"
#include "ArgTable.h"
#include "KELResourceLock.h"
#include "KELSysSimpleHashTable.h"
#include "LockInternal.h"
#include "SysCalls.h"

namespace systemts::detail {

namespace {

char* copyText(const char* text) {
  if (text == nullptr) return nullptr;
  const size_t n = std::strlen(text) + 1;
  char* copy = new char[n];
  std::memcpy(copy, text, n);
  return copy;
}

}  // namespace

ArgEnt::ArgEnt(const char* n, int k, int a, const char* v)
    : name(copyText(n)), kind(k), added(a), hash(ComputeHashKey(n)), value(nullptr) {
  try {
    value = copyText(v);
    if (value != nullptr) text.BuildFromUTF8(value);
  } catch (...) {
    delete[] value;
    delete[] name;
    throw;
  }
}

ArgEnt::ArgEnt(const char* n) noexcept
    : name(const_cast<char*>(n)), kind(kLookUp), added(0), hash(ComputeHashKey(n)), value(nullptr) {}

ArgEnt::~ArgEnt() {
  if (kind != kLookUp) delete[] name;
  delete[] value;
}

unsigned int ArgEnt::ComputeHashKey(const char* n) noexcept {
  if (n == nullptr) return 0;
  unsigned int h = 5381;
  for (; *n != '\0'; ++n)
    h = h * 33 + static_cast<unsigned int>(static_cast<int>(static_cast<signed char>(*n)));
  return h;
}

unsigned int ArgEnt::Hash(void* entry) noexcept {
  return entry != nullptr ? static_cast<ArgEnt*>(entry)->hash : 0;
}

int ArgEnt::Compare(void* a, void* b) noexcept {
  const ArgEnt* x = static_cast<ArgEnt*>(a);
  const ArgEnt* y = static_cast<ArgEnt*>(b);
  if (x == nullptr || y == nullptr || x->name == nullptr || y->name == nullptr) return -1;
  return std::strcmp(x->name, y->name) == 0 ? 1 : 0;
}

namespace {

// The table's lock, `_ArgsLock`: made on first use and never destroyed, so
// that threads still running at exit find it.
KELResourceLock& argsLock() {
  static KELResourceLock* const _ArgsLock = systemts::detail::newResourceLock();
  return *_ArgsLock;
}

// The table, guarded by argsLock(); null until first made. Its entries are
// owned ArgEnt objects.
KELSysSimpleHashTable* g_table = nullptr;
constexpr int kTableBuckets = 23;

KELSysSimpleHashTable& tableLocked() {
  if (g_table == nullptr) g_table = new KELSysSimpleHashTable(kTableBuckets, ArgEnt::Hash, ArgEnt::Compare);
  return *g_table;
}

// Inserts a new entry; an entry of the same name already there is kept and
// the new one dropped. Returns the table's Insert result.
int insertLocked(const char* name, int kind, int added, const char* value) {
  std::unique_ptr<ArgEnt> e(new ArgEnt(name, kind, added, value));
  const int rc = tableLocked().Insert(e.get());
  if (rc == 1) e.release();
  return rc;
}

// An entry read from the command line.
void insertArgLocked(const char* name, int kind, const char* value) { insertLocked(name, kind, 0, value); }

bool isNext(int i, int argc, char** argv) { return i + 1 < argc && argv[i + 1] != nullptr; }

// Options that stand alone, and options that take the next argument as their
// value: the argument and the entry's name.
struct Rule {
  const char* arg;
  const char* name;
};
constexpr Rule kFlags[] = {
    {"-help", "help"}, {"-admin", "admin"}, {"-batch", "batch"},
    {"/regserver", "regserver"}, {"/unregserver", "unregserver"},
};
constexpr Rule kValued[] = {
    {"-object", "object"}, {"-file", "file"}, {"-workbench", "workbench"}, {"-e", "e"},
    {"-env", "env"}, {"-direnv", "direnv"}, {"-Url", "Url"}, {"-Sli", "Sli"},
    {"-Cas", "Cas"}, {"-Ctx", "Ctx"},
};

const Rule* findRule(const char* a, const Rule* begin, const Rule* end) {
  for (const Rule* r = begin; r != end; ++r)
    if (std::strcmp(a, r->arg) == 0) return r;
  return nullptr;
}

// Fills the empty table from the vector by the rules of NUVSysTSSetArg.
void fillLocked(int argc, char** argv) {
  tableLocked();
  if (argv == nullptr) return;
  int i = 1;
  while (i < argc) {
    const char* a = argv[i];
    if (a == nullptr) {
      ++i;
      continue;
    }
    if (const Rule* r = findRule(a, std::begin(kFlags), std::end(kFlags))) {
      insertArgLocked(r->name, ArgEnt::kNoValue, nullptr);
      ++i;
      continue;
    }
    if (isNext(i, argc, argv)) {
      if (const Rule* r = findRule(a, std::begin(kValued), std::end(kValued))) {
        if (std::strcmp(a, "-e") == 0) {
          std::string joined = argv[i + 1];
          for (int j = i + 2; j < argc && argv[j] != nullptr && argv[j][0] != '-' && argv[j][0] != '\\'; ++j) {
            joined += ' ';
            joined += argv[j];
          }
          insertArgLocked(r->name, ArgEnt::kValue, joined.c_str());
        } else {
          insertArgLocked(r->name, ArgEnt::kValue, argv[i + 1]);
        }
        i += 2;
        continue;
      }
    }
    if (i == 2 && argc == 3 && std::strcmp(a, "-maintenance") == 0) {
      // Marked as having a value, the value being the vector's terminator.
      insertArgLocked("maintenance", ArgEnt::kValue, nullptr);
      break;
    }
    static constexpr char kRender[] = "-render=";
    if (std::strncmp(a, kRender, sizeof kRender - 1) == 0) {
      insertArgLocked("render", ArgEnt::kValue, a + sizeof kRender - 1);
    } else if (a[0] == '-') {
      const char* name = a + (a[1] == '-' ? 2 : 1);
      if (const char* eq = std::strchr(name, '=')) {
        insertArgLocked(std::string(name, eq).c_str(), ArgEnt::kValue, eq + 1);
      } else {
        insertArgLocked(name, ArgEnt::kNoValue, nullptr);
      }
    }
    ++i;
  }
}

void clearLocked() {
  if (g_table == nullptr) return;
  for (int i = 0, n = g_table->Size(); i < n; ++i) delete static_cast<ArgEnt*>(g_table->Get(i));
  g_table->RemoveAll();
}

// Looks `name` up under the read lock; fills kind, added and, when the entry
// has value text, `value` (hasValue then true). Returns the result code.
int lookUp(const char* name, int& kind, int& added, KELUnicodeString& value, bool& hasValue) {
  hasValue = false;
  KELReadLockGuard g(argsLock());
  if (g_table == nullptr) return E_FAIL;
  if (name == nullptr) return SYSTEMTS_E_NOT_FOUND;
  ArgEnt key(name);
  const ArgEnt* e = static_cast<const ArgEnt*>(g_table->Locate(&key));
  if (e == nullptr) return SYSTEMTS_E_NOT_FOUND;
  kind = e->kind;
  added = e->added;
  if (e->kind >= ArgEnt::kValue && e->value != nullptr) {
    value = e->text;
    hasValue = true;
  }
  return 0;
}

// The worker of NUVSysTSAddArg and NUVSysTSResetArg: removes the entry of
// `name`, then, for an addition, inserts the new one.
int change(const char* name, bool add, const KELUnicodeString* value) {
  if (name == nullptr) return E_FAIL;
  std::string utf8;
  if (value != nullptr) utf8 = value->ConvertToUTF8();
  KELWriteLockGuard g(argsLock());
  ArgEnt key(name);
  std::unique_ptr<ArgEnt> old(static_cast<ArgEnt*>(tableLocked().Remove(&key)));
  if (!add) return old != nullptr ? 0 : E_FAIL;
  const int rc = insertLocked(name, value != nullptr ? ArgEnt::kValue : ArgEnt::kNoValue, 1,
                              value != nullptr ? utf8.c_str() : nullptr);
  return rc == 1 ? 0 : E_FAIL;
}

// ---- the command line ----

struct CommandLine {
  int argc;
  char** argv;
};

// The cache, published once; s_readLock orders the first read.
std::atomic<CommandLine*> s_cache{nullptr};
std::mutex s_readLock;

constexpr size_t kPiece = 4096;

// Reads the whole of /proc/<pid>/cmdline into a zeroed buffer, one byte
// longer than the data. False when it cannot be opened or read.
bool readCommandLine(std::unique_ptr<char[]>& buffer, size_t& length) {
  char path[40];
  std::snprintf(path, sizeof path, "/proc/%d/cmdline", static_cast<int>(::getpid()));
  const int fd = RetryAfterSignal([&] { return g_sys.open(path, O_RDONLY | O_CLOEXEC, 0); });
  if (fd < 0) return false;
  size_t capacity = kPiece;
  buffer.reset(new char[capacity + 1]());
  length = 0;
  for (;;) {
    if (capacity - length < kPiece) {
      std::unique_ptr<char[]> bigger(new char[capacity + kPiece + 1]());
      std::memcpy(bigger.get(), buffer.get(), length);
      buffer = std::move(bigger);
      capacity += kPiece;
    }
    const ssize_t n = RetryAfterSignal([&] { return g_sys.read(fd, buffer.get() + length, kPiece); });
    if (n < 0) {
      g_sys.close(fd);
      return false;
    }
    if (n == 0) break;
    length += static_cast<size_t>(n);
  }
  g_sys.close(fd);
  return true;
}

// Reads the command line once, rebuilds the table from it and publishes the
// cache; the table is rebuilt (empty) after a failed read too. Threads that
// race for the first read wait here and take the published cache.
CommandLine* loadCommandLine() {
  std::lock_guard<std::mutex> g(s_readLock);
  if (CommandLine* c = s_cache.load(std::memory_order_acquire)) return c;
  std::unique_ptr<char[]> buffer;
  size_t length = 0;
  if (!readCommandLine(buffer, length)) {
    NUVSysTSSetArg(0, nullptr);
    return nullptr;
  }
  size_t count = 0;
  for (size_t k = 0; k < length; ++k) count += buffer[k] == '\0';
  char** argv = new char*[count + 1];
  size_t a = 0;
  for (size_t k = 0; a < count; ++k) {
    if (k == 0 || buffer[k - 1] == '\0') argv[a++] = buffer.get() + k;
  }
  argv[count] = nullptr;
  buffer.release();  // the strings live as long as the cache
  CommandLine* c = new CommandLine{static_cast<int>(count), argv};
  NUVSysTSSetArg(c->argc, c->argv);
  s_cache.store(c, std::memory_order_release);
  return c;
}

}  // namespace

bool visitArgTable(const std::function<void(const ArgEnt&)>& visit) {
  KELReadLockGuard g(argsLock());
  if (g_table == nullptr) return false;
  for (int i = 0, n = g_table->Size(); i < n; ++i) visit(*static_cast<const ArgEnt*>(g_table->Get(i)));
  return true;
}

}  // namespace systemts::detail

using namespace systemts::detail;

int NUVSysGetCmdLineArgs(int& argc, char**& argv) {
  CommandLine* c = s_cache.load(std::memory_order_acquire);
  if (c == nullptr) c = loadCommandLine();
  argc = c != nullptr ? c->argc : 0;
  argv = c != nullptr ? c->argv : nullptr;
  return argc;
}

KELUnicodeString* NUVSysGetCmdLineArgs(int& argc) {
  char** argv = nullptr;
  NUVSysGetCmdLineArgs(argc, argv);
  if (argc < 1) return nullptr;
  KELUnicodeString* strings = new (std::nothrow) KELUnicodeString[static_cast<size_t>(argc)];
  if (strings == nullptr) {
    argc = 0;
    return nullptr;
  }
  for (int i = 0; i < argc; ++i) strings[i] = argv[i];
  return strings;
}

int NUVSysTSSetArg(int argc, char** argv) {
  KELWriteLockGuard g(argsLock());
  clearLocked();
  fillLocked(argc, argv);
  return 0;
}

int NUVSysTSGetArg(char* name, int& kind, int& added, KELUnicodeString& value) {
  bool hasValue = false;
  return lookUp(name, kind, added, value, hasValue);
}

int NUVSysTSGetArg(char* name, int& kind, KELUnicodeString& value) {
  int added = 0;
  bool hasValue = false;
  return lookUp(name, kind, added, value, hasValue);
}

int NUVSysTSGetArg(char* name, int& kind, int& added, KELSysTSUnicodeString& value) {
  KELUnicodeString v;
  bool hasValue = false;
  const int rc = lookUp(name, kind, added, v, hasValue);
  if (hasValue) value.Set(v);
  return rc;
}

int NUVSysTSGetArg(char* name, int& kind, KELSysTSUnicodeString& value) {
  int added = 0;
  return NUVSysTSGetArg(name, kind, added, value);
}

int NUVSysTSAddArg(char* name, const KELUnicodeString* value) { return change(name, true, value); }

int NUVSysTSAddArg(char* name, KELSysTSUnicodeString* value) {
  if (value == nullptr) return change(name, true, nullptr);
  const KELUnicodeString v = value->Get();
  return change(name, true, &v);
}

int NUVSysTSResetArg(char* name) { return change(name, false, nullptr); }
