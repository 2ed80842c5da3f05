// NUVSysCLocale: per-thread C locales with a process-wide fallback, and the
// locale conventions as wide strings.
#include "NUVSysCLocale.h"

#include <langinfo.h>
#include <locale.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <new>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "KELResourceLock.h"
#include "LocaleDatabase.h"
#include "LocaleEnvironment.h"
#include "LockInternal.h"
#include "NLSLog.h"
#include "SysCalls.h"

using systemts::detail::g_sys;

namespace {

// ---- process state ----

char g_capture[86];  // LC_ALL as the host had it, NUL-terminated
std::once_flag g_captureOnce;

// The pending capture: runs once, on the first call that needs it.
void capture() {
  std::call_once(g_captureOnce, [] {
    if (const char* name = g_sys.setLocale(LC_ALL, nullptr)) std::snprintf(g_capture, sizeof g_capture, "%s", name);
  });
}

// The global write lock of the fallback paths, made on first need.
KELResourceLock& globalLock() {
  static KELResourceLock* lock = nullptr;
  systemts::detail::createSharedResourceLock(lock);
  return *lock;
}

const char* errorName(int e) {
  switch (e) {
    case ENOMEM:
      return "ENOMEM";
    case EINVAL:
      return "EINVAL";
    case ENOENT:
      return "ENOENT";
    default:
      return "Unknown";
  }
}

constexpr locale_t kNoLocale = static_cast<locale_t>(nullptr);

enum : unsigned short {
  kInstalled = 1,    // a thread locale was installed with uselocale
  kToRestore = 2,    // Reset has something to put back
  kLockHeld = 4,     // the fallback holds the global write lock
};

// ---- conventions ----

// Fields of struct lconv in the order of the LConv caches.
constexpr char* lconv::*kStringFields[] = {
    &lconv::decimal_point,     &lconv::thousands_sep,     &lconv::grouping,      &lconv::int_curr_symbol,
    &lconv::currency_symbol,   &lconv::mon_decimal_point, &lconv::mon_thousands_sep, &lconv::mon_grouping,
    &lconv::positive_sign,     &lconv::negative_sign,
};
constexpr nl_item kStringItems[] = {
    RADIXCHAR,      THOUSEP,           GROUPING,          INT_CURR_SYMBOL, CURRENCY_SYMBOL,
    MON_DECIMAL_POINT, MON_THOUSANDS_SEP, MON_GROUPING,   POSITIVE_SIGN,   NEGATIVE_SIGN,
};
constexpr char lconv::*kCharFields[] = {
    &lconv::int_frac_digits,    &lconv::frac_digits,        &lconv::p_cs_precedes,     &lconv::n_cs_precedes,
    &lconv::p_sep_by_space,     &lconv::n_sep_by_space,     &lconv::p_sign_posn,       &lconv::n_sign_posn,
    &lconv::int_p_cs_precedes,  &lconv::int_n_cs_precedes,  &lconv::int_p_sep_by_space, &lconv::int_n_sep_by_space,
    &lconv::int_p_sign_posn,    &lconv::int_n_sign_posn,
};
constexpr nl_item kCharItems[] = {
    INT_FRAC_DIGITS,    FRAC_DIGITS,        P_CS_PRECEDES,     N_CS_PRECEDES,     P_SEP_BY_SPACE,
    N_SEP_BY_SPACE,     P_SIGN_POSN,        N_SIGN_POSN,       INT_P_CS_PRECEDES, INT_N_CS_PRECEDES,
    INT_P_SEP_BY_SPACE, INT_N_SEP_BY_SPACE, INT_P_SIGN_POSN,   INT_N_SIGN_POSN,
};
static_assert(sizeof kStringFields / sizeof kStringFields[0] == sizeof kStringItems / sizeof kStringItems[0]);
static_assert(sizeof kCharFields / sizeof kCharFields[0] == sizeof kCharItems / sizeof kCharItems[0]);

// Fills a struct lconv from a langinfo source, copying the strings into
// `text` (a string that does not fit becomes "").
template <class Langinfo>
void fillRecord(struct lconv& record, char* text, size_t size, Langinfo langinfo) {
  std::memset(&record, 0, sizeof record);
  size_t used = 0;
  for (size_t i = 0; i < sizeof kStringItems / sizeof kStringItems[0]; ++i) {
    const char* value = langinfo(kStringItems[i]);
    const size_t n = value != nullptr ? std::strlen(value) : 0;
    char* slot;
    if (used + n + 1 <= size) {
      slot = text + used;
      std::memcpy(slot, value != nullptr ? value : "", n);
      slot[n] = '\0';
      used += n + 1;
    } else {
      slot = text + size - 1;  // kept as the empty string
      *slot = '\0';
    }
    record.*kStringFields[i] = slot;
  }
  for (size_t i = 0; i < sizeof kCharItems / sizeof kCharItems[0]; ++i) {
    const char* value = langinfo(kCharItems[i]);
    record.*kCharFields[i] = value != nullptr ? value[0] : CHAR_MAX;
  }
}

}  // namespace

// ---- ThreadLC ----

NUVSysCLocale::ThreadLC::ThreadLC(int category, const char* localeName, int* result)
    : _savedName(nullptr), _previous(nullptr), _category(0), _flags(0) {
  int rc = E_FAIL;
  capture();
  if (localeName == nullptr) {
    if (result != nullptr) *result = rc;
    return;
  }
  int err = 0;
  const locale_t current = g_sys.useLocale(kNoLocale);
  if (current == kNoLocale) {
    err = errno;
    systemts::detail::LogNLS(stderr, "[NUVSysCLocale::ThreadLC][ERROR] uselocale((locale_t)0) returned %s\n", errorName(err));
  } else {
    locale_t fresh = kNoLocale;
    if (category >= 0 && category <= 5) {
      const unsigned mask = 1u << category;
      locale_t base = current == LC_GLOBAL_LOCALE ? systemts::detail::NewLocale(LC_ALL_MASK, NUVSysCLocaleEnvironGet(), kNoLocale)
                                                  : systemts::detail::DupLocale(current);
      if (base != kNoLocale) fresh = systemts::detail::NewLocale(static_cast<int>(mask), localeName, base);
      if (fresh == kNoLocale) {
        err = errno;
        if (base != kNoLocale) systemts::detail::FreeLocale(base);
        systemts::detail::LogNLS(stderr, "[NUVSysCLocale::ThreadLC][ERROR] _get_changed_locale(locObj, %u, \"%s\") returned %s\n",
                   mask, localeName, errorName(err));
      }
    } else {
      fresh = systemts::detail::NewLocale(LC_ALL_MASK, localeName, kNoLocale);
      if (fresh == kNoLocale) {
        err = errno;
        systemts::detail::LogNLS(stderr, "[NUVSysCLocale::ThreadLC][ERROR] newlocale(LC_ALL_MASK, \"%s\", (locale_t)0) returned %s\n",
                   localeName, errorName(err));
      }
    }
    if (fresh != kNoLocale) {
      const locale_t before = g_sys.useLocale(fresh);
      if (before == current) {
        _previous = current;
        _category = category;
        _flags = kInstalled | kToRestore;
        if (result != nullptr) *result = 0;
        return;
      }
      err = errno;
      systemts::detail::LogNLS(stderr, "[NUVSysCLocale::ThreadLC][ERROR] uselocale(newLoc) returned %s\n", errorName(err));
      if (before != kNoLocale) g_sys.useLocale(current);
      systemts::detail::FreeLocale(fresh);
    }
  }

  // Fallback: switch the process locale under the global write lock.
  char text[128] = "";
  const char* reason = err != 0 ? strerror_r(err, text, sizeof text) : "";
  systemts::detail::LogNLS(stdout, "[NUVSysCLocale::ThreadLC][WARNING] Failed to set a per-thread C locale with error %s: %s\n",
             errorName(err), reason);
  globalLock().WriteLock();
  _flags |= kLockHeld;
  const char* now = g_sys.setLocale(category, nullptr);
  if (now == nullptr) {
    rc = E_FAIL;
  } else if (std::strcmp(now, localeName) == 0) {
    rc = 1;
    _flags |= kToRestore;
  } else {
    // Without a copy of the current name the switch could not be undone:
    // then nothing is switched.
    const size_t bytes = std::strlen(now) + 1;
    _savedName = static_cast<char*>(g_sys.malloc(bytes));
    _category = category;
    if (_savedName == nullptr) {
      rc = E_FAIL;
    } else {
      std::memcpy(_savedName, now, bytes);
      if (g_sys.setLocale(category, localeName) != nullptr) {
        rc = 0;
        _flags |= kToRestore;
      } else {
        rc = E_INVALIDARG;
      }
    }
  }
  if (rc < 0) {
    globalLock().WriteUnlock();
    _flags &= static_cast<unsigned short>(~kLockHeld);
    std::free(_savedName);
    _savedName = nullptr;
  }
  if (result != nullptr) *result = rc;
}

NUVSysCLocale::ThreadLC::~ThreadLC() { Reset(); }

void NUVSysCLocale::ThreadLC::Reset() {
  if ((_flags & kToRestore) == 0) return;
  if ((_flags & kInstalled) != 0) {
    const locale_t replaced = g_sys.useLocale(static_cast<locale_t>(_previous));
    if (replaced != kNoLocale && replaced != LC_GLOBAL_LOCALE) systemts::detail::FreeLocale(replaced);
  } else {
    if (_savedName != nullptr) g_sys.setLocale(_category, _savedName);
    if ((_flags & kLockHeld) != 0) globalLock().WriteUnlock();
  }
  std::free(_savedName);
  _savedName = nullptr;
  _flags = 0;
}

// ---- process-wide functions ----

bool NUVSysCLocaleIsPerThread() {
  const locale_t l = g_sys.useLocale(kNoLocale);
  return l != kNoLocale && l != LC_GLOBAL_LOCALE;
}

int NUVSysCLocaleSetPerThread(bool wanted) { return NUVSysCLocaleIsPerThread() == wanted ? 0 : -1; }

const char* NUVSysCLocale::SetLocale(int category, const char* name) {
  if (NUVSysCLocaleIsPerThread()) return nullptr;
  capture();
  return g_sys.setLocale(category, name);
}

const char* NUVSysCLocale::GetLocaleBeforeLoad() {
  capture();
  return g_capture;
}

void NUVSysCLocale::InitLocaleFromEnvironment() {
  capture();
  g_sys.setLocale(LC_ALL, "");
}

int NUVSysCLocale::GetLCConv(LConv& lc) {
  capture();
  lc.Clear();
  const locale_t current = g_sys.useLocale(kNoLocale);
  if (current != kNoLocale && current != LC_GLOBAL_LOCALE) {
    fillRecord(lc._raw, lc._rawText, sizeof lc._rawText, [current](nl_item item) { return nl_langinfo_l(item, current); });
    lc._record = &lc._raw;
    return 0;
  }
  systemts::detail::LogNLS(stdout,
             "[NUVSysCLocale::ThreadLC][WARNING] MT-unsafe environment! GetLCConv is taking a global lock - "
             "Locale per-thread: %s | MT-safe localeconv: %s\n",
             "false", "false");
  KELWriteLockGuard guard(globalLock());
  fillRecord(lc._raw, lc._rawText, sizeof lc._rawText, [](nl_item item) { return nl_langinfo(item); });
  lc._ReInitDecimalPoint(&lc._raw);
  for (int i = 1; i < LConv::kStrings; ++i) lc._strings[i] = lc._StoreAsWideChar(lc._raw.*kStringFields[i]);
  for (int i = 0; i < LConv::kChars; ++i) lc._chars[i] = lc._StoreAsWideChar(lc._raw.*kCharFields[i]);
  return 0;
}

// ---- LConv ----

NUVSysCLocale::LConv::LConv() : _pool(), _strings(), _chars(), _poolUsed(0), _record(nullptr), _raw(), _rawText() {}

NUVSysCLocale::LConv::~LConv() { Clear(); }

void NUVSysCLocale::LConv::Clear() {
  const auto release = [this](const wchar_t*& p) {
    if (p != nullptr && (p < _pool || p >= _pool + kPoolSize)) delete[] p;
    p = nullptr;
  };
  for (auto& p : _strings) release(p);
  for (auto& p : _chars) release(p);
  _poolUsed = 0;
  _record = nullptr;
}

const wchar_t* NUVSysCLocale::LConv::store(const wchar_t* text, size_t length) {
  wchar_t* dst;
  if (static_cast<size_t>(kPoolSize - _poolUsed) >= length + 1) {
    dst = _pool + _poolUsed;
    _poolUsed += static_cast<int>(length + 1);
  } else {
    dst = new (std::nothrow) wchar_t[length + 1];
    if (dst == nullptr) return nullptr;
  }
  std::wmemcpy(dst, text, length);
  dst[length] = L'\0';
  return dst;
}

const wchar_t* NUVSysCLocale::LConv::_StoreAsWideChar(const char* text) {
  if (text == nullptr) return nullptr;
  std::mbstate_t state{};
  const char* src = text;
  const size_t n = std::mbsrtowcs(nullptr, &src, 0, &state);
  if (n == static_cast<size_t>(-1)) return nullptr;
  wchar_t small[64];
  wchar_t* wide = n < 64 ? small : new (std::nothrow) wchar_t[n + 1];
  if (wide == nullptr) return nullptr;
  state = std::mbstate_t{};
  src = text;
  std::mbsrtowcs(wide, &src, n + 1, &state);
  const wchar_t* stored = store(wide, n);
  if (wide != small) delete[] wide;
  return stored;
}

const wchar_t* NUVSysCLocale::LConv::_StoreAsWideChar(char c) {
  const wchar_t one = static_cast<wchar_t>(static_cast<unsigned char>(c));
  return store(&one, 1);
}

void NUVSysCLocale::LConv::_ReInitDecimalPoint(const struct lconv* record) {
  const wchar_t* point = record != nullptr ? _StoreAsWideChar(record->decimal_point) : nullptr;
  if (point == nullptr) {
    systemts::detail::LogNLS(stderr, "[LConv::_ReInitDecimalPoint][WARNING] Failed to retrieve the decimal point from localeconv!\n");
    if (kPoolSize - _poolUsed >= 2) {
      wchar_t formatted[32] = L"";
      std::swprintf(formatted, 32, L"%3.1f", 0.0);
      const wchar_t c = formatted[1] != L'\0' ? formatted[1] : L'.';
      point = store(&c, 1);
    }
  }
  _strings[0] = point;
}

const wchar_t* NUVSysCLocale::LConv::string(int index) {
  if (_strings[index] == nullptr && _record != nullptr) {
    if (index == 0) {
      _ReInitDecimalPoint(_record);
    } else {
      _strings[index] = _StoreAsWideChar(_record->*kStringFields[index]);
    }
  }
  return _strings[index];
}

wchar_t NUVSysCLocale::LConv::character(int index) {
  if (_chars[index] == nullptr && _record != nullptr) _chars[index] = _StoreAsWideChar(_record->*kCharFields[index]);
  return _chars[index] != nullptr ? _chars[index][0] : L'\0';
}

const wchar_t* NUVSysCLocale::LConv::decimal_point() { return string(0); }
const wchar_t* NUVSysCLocale::LConv::thousands_sep() { return string(1); }
const wchar_t* NUVSysCLocale::LConv::grouping() { return string(2); }
const wchar_t* NUVSysCLocale::LConv::int_curr_symbol() { return string(3); }
const wchar_t* NUVSysCLocale::LConv::currency_symbol() { return string(4); }
const wchar_t* NUVSysCLocale::LConv::mon_decimal_point() { return string(5); }
const wchar_t* NUVSysCLocale::LConv::mon_thousands_sep() { return string(6); }
const wchar_t* NUVSysCLocale::LConv::mon_grouping() { return string(7); }
const wchar_t* NUVSysCLocale::LConv::positive_sign() { return string(8); }
const wchar_t* NUVSysCLocale::LConv::negative_sign() { return string(9); }
wchar_t NUVSysCLocale::LConv::int_frac_digits() { return character(0); }
wchar_t NUVSysCLocale::LConv::frac_digits() { return character(1); }
wchar_t NUVSysCLocale::LConv::p_cs_precedes() { return character(2); }
wchar_t NUVSysCLocale::LConv::n_cs_precedes() { return character(3); }
wchar_t NUVSysCLocale::LConv::p_sep_by_space() { return character(4); }
wchar_t NUVSysCLocale::LConv::n_sep_by_space() { return character(5); }
wchar_t NUVSysCLocale::LConv::p_sign_posn() { return character(6); }
wchar_t NUVSysCLocale::LConv::n_sign_posn() { return character(7); }
wchar_t NUVSysCLocale::LConv::int_p_cs_precedes() { return character(8); }
wchar_t NUVSysCLocale::LConv::int_n_cs_precedes() { return character(9); }
wchar_t NUVSysCLocale::LConv::int_p_sep_by_space() { return character(10); }
wchar_t NUVSysCLocale::LConv::int_n_sep_by_space() { return character(11); }
wchar_t NUVSysCLocale::LConv::int_p_sign_posn() { return character(12); }
wchar_t NUVSysCLocale::LConv::int_n_sign_posn() { return character(13); }

int NUVSysCLocale::GetLocaleStringFromLangString(const char* entry, char* buffer, int size) {
  if (buffer == nullptr || size < 1) return -1;
  buffer[0] = '\0';
  if (entry == nullptr || *entry == '\0') return -1;
  const std::string codePage = systemts::detail::EnvironmentCodePage();
  const bool plain = std::strcmp(entry, "C") == 0 || std::strcmp(entry, "POSIX") == 0 ||
                     std::strchr(entry, '.') != nullptr;
  const int n = plain ? std::snprintf(buffer, static_cast<size_t>(size), "%s", entry)
                      : std::snprintf(buffer, static_cast<size_t>(size), "%s.%s", entry, codePage.c_str());
  if (n < 0 || n >= size) {
    buffer[0] = '\0';
    return -1;
  }
  return 0;
}
