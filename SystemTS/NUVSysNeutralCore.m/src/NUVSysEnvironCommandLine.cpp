// The command-line splitter, its inverse, the option checker and the string
// vectors they hand out.
#include "NUVSysEnvironCommandLine.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "SysCalls.h"

namespace systemts::detail {
namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }

// Frees the first n strings of `vec` and the vector.
void freeVector(char** vec, size_t n) {
  for (size_t i = 0; i < n; ++i) std::free(vec[i]);
  std::free(vec);
}

// Splits `line` (length n) into `work`, which has room for n + 1 bytes: the
// arguments one after the other, each NUL-terminated. Returns the count.
// The output never outgrows the input: a separator replaces the blank run it
// comes from, quotes are dropped and escapes only shrink, so the pieces and
// their NULs fit in n + 1 bytes.
size_t splitInto(const char* line, size_t n, char* work) {
  size_t count = 1;
  bool quoted = false;
  char* out = work;
  size_t i = 0;
  while (i < n) {
    const char c = line[i];
    if (isBlank(c)) {
      while (i < n && isBlank(line[i])) ++i;
      if (quoted) {
        *out++ = ' ';
      } else {
        *out++ = '\0';
        ++count;
      }
      continue;
    }
    if (c == '\\') {
      size_t run = 0;
      while (i < n && line[i] == '\\') ++run, ++i;
      if (i < n && line[i] == '"') {
        std::memset(out, '\\', run / 2);
        out += run / 2;
        if (run % 2 != 0) {
          *out++ = '"';
        } else {
          quoted = !quoted;
        }
        ++i;
      } else {
        std::memset(out, '\\', run);
        out += run;
      }
      continue;
    }
    if (c == '"') {
      quoted = !quoted;
    } else {
      *out++ = c;
    }
    ++i;
  }
  *out = '\0';
  return count;
}

// Appends the quoted form of `arg` at `out`; returns the new end. Needs at
// most 2 * strlen(arg) + 3 bytes.
char* quoteInto(const char* arg, char* out) {
  bool quote = *arg == '\0';
  for (const char* p = arg; *p != '\0' && !quote; ++p) quote = isBlank(*p);
  if (quote) *out++ = '"';
  size_t backslashes = 0;
  for (const char* p = arg; *p != '\0'; ++p) {
    if (*p == '\\') {
      ++backslashes;
    } else {
      if (*p == '"') {
        // 2n + 1 backslashes: n literal ones and a literal quote.
        std::memset(out, '\\', backslashes + 1);
        out += backslashes + 1;
      }
      backslashes = 0;
    }
    *out++ = *p;
  }
  if (quote) {
    // The backslashes before the closing quote are doubled so that it stays
    // a delimiter.
    std::memset(out, '\\', backslashes);
    out += backslashes;
    *out++ = '"';
  }
  return out;
}

}  // namespace
}  // namespace systemts::detail

using systemts::detail::g_sys;

int NUVSysEnvironBuildArgumentFromCommandLine(const char* line, char*** argv, int* argc) {
  if (line == nullptr || argv == nullptr || argc == nullptr) return -1;
  *argv = nullptr;
  *argc = 0;
  const size_t n = std::strlen(line);
  char* work = static_cast<char*>(g_sys.malloc(n + 1));
  if (work == nullptr) return -1;
  const size_t count = systemts::detail::splitInto(line, n, work);
  if (count > static_cast<size_t>(INT_MAX)) {
    std::free(work);
    return -1;
  }
  char** vec = static_cast<char**>(g_sys.calloc(count + 1, sizeof(char*)));
  if (vec == nullptr) {
    std::free(work);
    return -1;
  }
  const char* piece = work;
  for (size_t k = 0; k < count; ++k) {
    const size_t len = std::strlen(piece);
    vec[k] = static_cast<char*>(g_sys.malloc(len + 1));
    if (vec[k] == nullptr) {
      systemts::detail::freeVector(vec, k);
      std::free(work);
      return -1;
    }
    std::memcpy(vec[k], piece, len + 1);
    piece += len + 1;
  }
  std::free(work);
  *argv = vec;
  *argc = static_cast<int>(count);
  return 0;
}

int NUVSysEnvironBuildCommandLineFromArgumentsA(int argc, char** argv, char** line) {
  if (line == nullptr || argc < 1 || argv == nullptr) return -1;
  size_t room = 1;
  for (int i = 0; i < argc; ++i) {
    if (argv[i] == nullptr) return -1;
    room += 2 * std::strlen(argv[i]) + 3;
  }
  char* text = static_cast<char*>(g_sys.malloc(room));
  *line = text;
  if (text == nullptr) return -1;
  char* out = text;
  for (int i = 0; i < argc; ++i) {
    if (i != 0) *out++ = ' ';
    out = systemts::detail::quoteInto(argv[i], out);
  }
  *out = '\0';
  return 0;
}

int NUVSysEnvironDeleteArgumentArrayA(char*** argv, int argc) {
  if (argv == nullptr || *argv == nullptr || argc < 1) return 0;
  systemts::detail::freeVector(*argv, static_cast<size_t>(argc));
  *argv = nullptr;
  return 0;
}

int NUVSysEnvrionCreateBufferOfStringA(size_t n, char*** out) {
  if (out == nullptr || n == 0) return -1;
  *out = static_cast<char**>(g_sys.calloc(n + 1, sizeof(char*)));
  return *out != nullptr ? 0 : -1;
}

int NUVSysEnvrionReleaseBufferOfStringA(char*** buffer) {
  if (buffer == nullptr || *buffer == nullptr) return -1;
  size_t n = 0;
  while ((*buffer)[n] != nullptr) ++n;
  systemts::detail::freeVector(*buffer, n);
  *buffer = nullptr;
  return 0;
}

int NUVSysEnvironParseCommandOptionA(int argc, char** argv,
                                     NUVSysEnvironCommandLongOptionStructA* longOptions,
                                     NUVSysEnvironCommandShortOptionStruct* shortOptions,
                                     int* badIndex) {
  if (argc < 1 || badIndex == nullptr) return -1;
  if (longOptions != nullptr) {
    for (NUVSysEnvironCommandLongOptionStructA* o = longOptions; o->name != nullptr; ++o) {
      if (o->counter != nullptr) *o->counter = 0;
      if (o->value != nullptr) *o->value = nullptr;
    }
  }
  if (shortOptions != nullptr) {
    for (NUVSysEnvironCommandShortOptionStruct* o = shortOptions; o->counter != nullptr; ++o)
      *o->counter = 0;
  }
  *badIndex = 0;
  const auto fail = [badIndex](int i) {
    *badIndex = i;
    return -1;
  };

  NUVSysEnvironCommandLongOptionStructA* pending = nullptr;
  for (int i = 1; i < argc; ++i) {
    const char* a = argv[i];
    if (a == nullptr) return fail(i);
    const bool option = a[0] == '-' && !(a[1] >= '0' && a[1] <= '9');
    if (!option) {
      // A value of the pending option.
      if (pending == nullptr) return fail(i);
      if (pending->value != nullptr && *pending->value == nullptr) *pending->value = &argv[i];
      ++*pending->counter;
      continue;
    }
    if (pending != nullptr && pending->kind == 2 && *pending->counter == 1) return fail(i);
    if (a[1] == '-') {
      if (longOptions == nullptr) {
        pending = nullptr;
        continue;
      }
      NUVSysEnvironCommandLongOptionStructA* o = longOptions;
      while (o->name != nullptr && (o->counter == nullptr || std::strcmp(o->name, a + 2) != 0)) ++o;
      if (o->name == nullptr) return fail(i);
      if ((*o->counter)++ != 0) return fail(i);
      pending = o->kind == 1 ? nullptr : o;
      continue;
    }
    if (shortOptions == nullptr) continue;
    for (const char* p = a + 1; *p != '\0'; ++p) {
      const int letter = static_cast<unsigned char>(*p);
      NUVSysEnvironCommandShortOptionStruct* o = shortOptions;
      while (o->letter != 0 && (o->letter != letter || o->counter == nullptr)) ++o;
      if (o->letter == 0) return fail(i);
      if ((*o->counter)++ != 0) return fail(i);
    }
  }
  return 0;
}
