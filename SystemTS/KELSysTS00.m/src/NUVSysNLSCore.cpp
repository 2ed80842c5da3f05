// The national-language core: detection of the process code page and
// language from the locale environment, changes of language, the C locale
// name of the environment, and the log writer.
#include <langinfo.h>
#include <locale.h>

#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "NUVSysCLocale.h"
#include "NUVSysNLSEnv.h"
#include "LocaleDatabase.h"
#include "LocaleEnvironment.h"
#include "NLSCore.h"
#include "NLSLog.h"
#include "Settings.h"
#include "SysCalls.h"

namespace systemts::detail {

namespace {

struct CodePageName {
  const char* key;   // lower case, letters and digits only
  const char* name;  // as iconv knows it
  int maxBytes;      // longest character in bytes
};

// Known code pages. Keys are compared after dropping case and punctuation,
// so "UTF-8", "utf8" and "Utf_8" all match "utf8".
constexpr CodePageName kCodePages[] = {
    {"utf8", "UTF-8", 4},          {"gb18030", "GB18030", 4},    {"euctw", "EUC-TW", 4},
    {"eucjp", "EUC-JP", 3},        {"ujis", "EUC-JP", 3},        {"sjis", "SHIFT_JIS", 2},
    {"shiftjis", "SHIFT_JIS", 2},  {"cp932", "CP932", 2},        {"windows31j", "CP932", 2},
    {"euckr", "EUC-KR", 2},        {"cp949", "CP949", 2},        {"uhc", "CP949", 2},
    {"johab", "JOHAB", 2},         {"euccn", "GB2312", 2},       {"gb2312", "GB2312", 2},
    {"gbk", "GBK", 2},             {"cp936", "CP936", 2},        {"big5", "BIG5", 2},
    {"big5hkscs", "BIG5-HKSCS", 2}, {"cp950", "CP950", 2},       {"koi8r", "KOI8-R", 1},
    {"koi8u", "KOI8-U", 1},        {"koi8t", "KOI8-T", 1},       {"tis620", "TIS-620", 1},
    {"ansix341968", "ANSI_X3.4-1968", 1}, {"ascii", "ASCII", 1}, {"usascii", "ASCII", 1},
    {"cp437", "CP437", 1},         {"cp850", "CP850", 1},        {"cp866", "CP866", 1},
    {"georgianps", "GEORGIAN-PS", 1}, {"pt154", "PT154", 1},     {"armscii8", "ARMSCII-8", 1},
    {"viscii", "VISCII", 1},       {"tcvn57121", "TCVN5712-1", 2},
};

std::string keyOf(const std::string& name) {
  std::string key;
  for (unsigned char c : name) {
    if (std::isalnum(c)) key += static_cast<char>(std::tolower(c));
  }
  return key;
}

// ISO-8859-n and CP125n are single-byte families spelled many ways.
bool familyName(const std::string& key, std::string& name) {
  if (key.compare(0, 7, "iso8859") == 0 && key.size() > 7 && key.size() <= 9 &&
      key.find_first_not_of("0123456789", 7) == std::string::npos) {
    name = "ISO-8859-" + key.substr(7);
    return true;
  }
  if ((key.compare(0, 5, "cp125") == 0 || key.compare(0, 10, "windows125") == 0) &&
      std::isdigit(static_cast<unsigned char>(key.back())) && key.size() == (key[0] == 'c' ? 6u : 11u)) {
    name = std::string("CP125") + key.back();
    return true;
  }
  return false;
}

struct State {
  std::mutex mutex;
  bool detected = false;
  // MultiByteCharMaxSize of env.codePage, 0 until detected: read without
  // the mutex, since the code-page converter asks for it on every
  // conversion that meets a character iconv refuses.
  std::atomic<int> maxBytes{0};
  NUVSysNLSEnv env{};
  std::string cLocale;  // a name newlocale accepts for this environment
  std::vector<void (*)(const NUVSysNLSEnv&)> callbacks;
  // Held by a change of language from its start to its last callback, so
  // that the callbacks of two changes never overtake each other. Recursive:
  // a callback may change the language again. Taken before `mutex`, never
  // while holding it (callbacks read the environment).
  std::recursive_mutex changing;
};

State& state() {
  static State* s = new State;  // lives for the process, usable during exit
  return *s;
}

bool localeExists(const std::string& name) {
  locale_t l = NewLocale(LC_ALL_MASK, name.c_str(), static_cast<locale_t>(nullptr));
  if (l == static_cast<locale_t>(nullptr)) return false;
  FreeLocale(l);
  return true;
}

void putName(char (&dst)[64], const std::string& src) {
  std::snprintf(dst, sizeof dst, "%s", src.c_str());
}

void fill(State& s, const char* localeName);

// Fills the state from one locale name (null or empty: the C locale).
void describe(State& s, const char* localeName) {
  fill(s, localeName);
  s.maxBytes.store(MultiByteCharMaxSize(s.env.codePage), std::memory_order_release);
}

void fill(State& s, const char* localeName) {
  const std::string name = localeName != nullptr ? localeName : "";
  if (name.empty() || name == "C" || name == "POSIX") {
    putName(s.env.codePage, "UTF-8");
    putName(s.env.localeEntry, "C");
    s.cLocale = localeExists("C.UTF-8") ? "C.UTF-8" : "C";
    return;
  }
  const size_t dot = name.find('.');
  const size_t at = name.find('@');
  const std::string entry = name.substr(0, std::min(dot, at));
  std::string codeset;
  if (dot != std::string::npos && (at == std::string::npos || dot < at)) {
    codeset = name.substr(dot + 1, at == std::string::npos ? std::string::npos : at - dot - 1);
  }
  if (codeset.empty()) {
    locale_t l = NewLocale(LC_CTYPE_MASK, name.c_str(), static_cast<locale_t>(nullptr));
    if (l != static_cast<locale_t>(nullptr)) {
      codeset = nl_langinfo_l(CODESET, l);
      FreeLocale(l);
    }
  }
  putName(s.env.codePage, codeset.empty() ? std::string("UTF-8") : NormalizeCodePageName(codeset));
  putName(s.env.localeEntry, entry.empty() ? std::string("C") : entry);
  if (localeExists(name)) {
    s.cLocale = name;
  } else if (!entry.empty() && localeExists(entry + "." + s.env.codePage)) {
    s.cLocale = entry + "." + s.env.codePage;
  } else {
    s.cLocale = std::strcmp(s.env.codePage, "UTF-8") == 0 && localeExists("C.UTF-8") ? "C.UTF-8" : "C";
  }
}

State& detected() {
  State& s = state();
  if (!s.detected) {
    describe(s, LocaleNameSetting());
    s.detected = true;
  }
  return s;
}

}  // namespace

std::string NormalizeCodePageName(const std::string& codeset) {
  const std::string key = keyOf(codeset);
  for (const CodePageName& cp : kCodePages) {
    if (key == cp.key) return cp.name;
  }
  std::string family;
  if (familyName(key, family)) return family;
  return codeset;
}

int MultiByteCharMaxSize(const char* codePage) {
  if (codePage == nullptr) return 4;
  const std::string key = keyOf(codePage);
  for (const CodePageName& cp : kCodePages) {
    if (key == cp.key) return cp.maxBytes;
  }
  std::string family;
  return familyName(key, family) ? 1 : 4;
}

}  // namespace systemts::detail

using namespace systemts::detail;

int GetEnvNLSData(NUVSysNLSEnv& env) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  env = detected().env;
  return 0;
}

int NLSCoreRegisterCBOnChange(void (*callback)(const NUVSysNLSEnv&)) {
  if (callback == nullptr) return -1;
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  for (auto* cb : s.callbacks) {
    if (cb == callback) return 0;
  }
  if (s.callbacks.size() >= 32) return -1;
  s.callbacks.push_back(callback);
  return 0;
}

int NLSCoreChangeLanguage(const char* localeName) {
  if (localeName == nullptr) return -1;
  State& s = state();
  NUVSysNLSEnv env;
  std::vector<void (*)(const NUVSysNLSEnv&)> callbacks;
  std::lock_guard<std::recursive_mutex> changing(s.changing);
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    describe(s, localeName);
    s.detected = true;
    env = s.env;
    callbacks = s.callbacks;
  }
  for (auto* cb : callbacks) cb(env);
  return 0;
}

int NUVGetMultiByteCharMaxSize() {
  State& s = state();
  if (const int n = s.maxBytes.load(std::memory_order_acquire); n != 0) return n;
  std::lock_guard<std::mutex> lock(s.mutex);
  detected();
  return s.maxBytes.load(std::memory_order_relaxed);
}

const char* NUVSysCLocaleEnvironGet() {
  // A copy per thread, so that a change of language on another thread never
  // alters a name this thread is still using.
  thread_local char name[86];
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  std::snprintf(name, sizeof name, "%s", detected().cLocale.c_str());
  return name;
}

std::string systemts::detail::EnvironmentCodePage() {
  NUVSysNLSEnv env;
  GetEnvNLSData(env);
  return env.codePage;
}

void LogNLSCore(FILE* stream, const char* format, ...) {
  va_list args;
  va_start(args, format);
  systemts::detail::VLogNLS(stream, format, args);
  va_end(args);
}
