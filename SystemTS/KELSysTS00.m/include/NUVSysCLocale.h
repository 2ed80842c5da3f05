// NUVSysCLocale.h - running work under a C locale on one thread without
// disturbing the others, and the numeric and monetary conventions as wide
// strings.
//
// The normal path is per thread and lock-free: ThreadLC gives the calling
// thread its own locale_t with uselocale() and puts the previous one back
// afterwards. When the C library cannot do that, ThreadLC falls back to a
// process-wide setlocale() under one global write lock, which it then holds
// until Reset: other threads needing the fallback wait meanwhile.
//
// The first call of ThreadLC, SetLocale, GetLocaleBeforeLoad,
// InitLocaleFromEnvironment or GetLCConv captures the process's LC_ALL locale
// string as the host program had it (GetLocaleBeforeLoad returns it).
//
// Messages, written through LogNLSCore (NUVSysNLSEnv.h), so only while the
// environment variable "NUVSysNLSCoreTrace" is set, each prefixed with
// "[PID:<pid>]"; <err> is ENOMEM, EINVAL, ENOENT or Unknown:
//   standard error, when the per-thread path fails (ThreadLC):
//     "[NUVSysCLocale::ThreadLC][ERROR] uselocale((locale_t)0) returned <err>"
//     "[NUVSysCLocale::ThreadLC][ERROR] _get_changed_locale(locObj, <mask>,
//      \"<name>\") returned <err>"
//     "[NUVSysCLocale::ThreadLC][ERROR] newlocale(LC_ALL_MASK, \"<name>\",
//      (locale_t)0) returned <err>"
//     "[NUVSysCLocale::ThreadLC][ERROR] uselocale(newLoc) returned <err>"
//   standard output, when ThreadLC takes the fallback:
//     "[NUVSysCLocale::ThreadLC][WARNING] Failed to set a per-thread C locale
//      with error <err>: <strerror text>"
//   standard output, GetLCConv without a per-thread locale:
//     "[NUVSysCLocale::ThreadLC][WARNING] MT-unsafe environment! GetLCConv is
//      taking a global lock - Locale per-thread: false | MT-safe localeconv:
//      false"
//   standard error, LConv::_ReInitDecimalPoint without a decimal point:
//     "[LConv::_ReInitDecimalPoint][WARNING] Failed to retrieve the decimal
//      point from localeconv!"
// (A long line is wrapped here; each is one line, ending in a newline.)
#ifndef NUVSYSCLOCALE_H
#define NUVSYSCLOCALE_H

#include <clocale>
#include <cwchar>

#include "SystemTSCommon.h"

class SYSTEMTS_API NUVSysCLocale {
 public:
  // Switches the calling thread to a locale for the object's lifetime.
  // `category` is LC_CTYPE .. LC_MESSAGES (0 to 5) to change that category
  // only, on top of the thread's current locale (or of the environment's
  // locale, NUVSysCLocaleEnvironGet, when the thread was on the global one);
  // any other value changes every category.
  // *result (when `result` is non-null): 0 switched; 1 the process locale
  // already had that name (fallback only); E_FAIL for a null name, when
  // the current name cannot be read or its copy cannot be allocated (nothing
  // switched); E_INVALIDARG when the process-wide switch is refused (unknown
  // name). On every failure the global lock is released before the
  // constructor returns. Not copyable; use on one thread.
  // Failures of the per-thread path (uselocale or newlocale refusing, out of
  // memory) are not results: they lead to the fallback.
  class SYSTEMTS_API ThreadLC {
   public:
    ThreadLC(int category, const char* localeName, int* result);
    ~ThreadLC();
    ThreadLC(const ThreadLC&) = delete;
    ThreadLC& operator=(const ThreadLC&) = delete;
    // Puts back what the constructor changed (and releases the global lock
    // of the fallback). A second call does nothing.
    void Reset();

   private:
    char* _savedName;   // process locale name to restore (fallback)
    void* _previous;    // the thread's previous locale_t
    int _category;
    unsigned short _flags;
  };

  // The conventions of the current locale as wide strings (see GetLCConv).
  // Strings live as long as the object (or until the next GetLCConv into
  // it). Accessors of the one-character values return the value as a wide
  // character, 0 when nothing was filled. Not for sharing between threads.
  class SYSTEMTS_API LConv {
   public:
    LConv();
    ~LConv();
    LConv(const LConv&) = delete;
    LConv& operator=(const LConv&) = delete;

    const wchar_t* decimal_point();
    const wchar_t* thousands_sep();
    const wchar_t* grouping();
    const wchar_t* int_curr_symbol();
    const wchar_t* currency_symbol();
    const wchar_t* mon_decimal_point();
    const wchar_t* mon_thousands_sep();
    const wchar_t* mon_grouping();
    const wchar_t* positive_sign();
    const wchar_t* negative_sign();
    wchar_t int_frac_digits();
    wchar_t frac_digits();
    wchar_t p_cs_precedes();
    wchar_t n_cs_precedes();
    wchar_t p_sep_by_space();
    wchar_t n_sep_by_space();
    wchar_t p_sign_posn();
    wchar_t n_sign_posn();
    wchar_t int_p_cs_precedes();
    wchar_t int_n_cs_precedes();
    wchar_t int_p_sep_by_space();
    wchar_t int_n_sep_by_space();
    wchar_t int_p_sign_posn();
    wchar_t int_n_sign_posn();

    // Converts with mbsrtowcs (current locale) into the pool while it has
    // room, else onto the heap; null for null input or unconvertible text.
    const wchar_t* _StoreAsWideChar(const char* text);
    // Stores one character as a one-character wide string.
    const wchar_t* _StoreAsWideChar(char c);
    // Sets the decimal point from the record; when that fails, from the
    // wide formatting of 0.0 ("." if even that gives nothing).
    void _ReInitDecimalPoint(const struct lconv* record);
    // Frees what the object holds and forgets every value.
    void Clear();

   private:
    friend class NUVSysCLocale;
    enum { kPoolSize = 512, kStrings = 10, kChars = 14 };
    SYSTEMTS_HIDDEN const wchar_t* string(int index);
    SYSTEMTS_HIDDEN wchar_t character(int index);
    SYSTEMTS_HIDDEN const wchar_t* store(const wchar_t* text, size_t length);

    wchar_t _pool[kPoolSize];
    const wchar_t* _strings[kStrings];  // decimal_point .. negative_sign
    const wchar_t* _chars[kChars];      // int_frac_digits .. int_n_sign_posn
    int _poolUsed;
    struct lconv* _record;              // kept for lazy conversion, else null
    struct lconv _raw;
    char _rawText[256];                 // copies of the raw strings
  };

  // setlocale(category, name) after the pending capture; null without doing
  // anything when the calling thread has its own locale.
  static const char* SetLocale(int category, const char* name);
  // The process's LC_ALL locale string as first captured ("" if none, or
  // when setlocale could not tell it).
  static const char* GetLocaleBeforeLoad();
  // The pending capture, then setlocale(LC_ALL, "").
  static void InitLocaleFromEnvironment();
  // Fills `lc` with the conventions of the calling thread's locale. With a
  // per-thread locale no lock is taken and fields convert on first access;
  // otherwise every field is converted at once under the global write lock
  // (with a WARNING line). Returns 0.
  static int GetLCConv(LConv& lc);
  // Writes the C locale name for a language entry of the national-language
  // core ("fr_FR" -> "fr_FR.<process code page>"; "C", "POSIX" and names that
  // already hold a codeset are written as they are) into `buffer` of `size`
  // bytes. Returns 0, or -1 (with "" written when size allows) for a null or
  // empty entry, a null buffer, or a name that does not fit.
  static int GetLocaleStringFromLangString(const char* entry, char* buffer, int size);
};

// True when the calling thread has its own locale (uselocale((locale_t)0) is
// neither 0 nor LC_GLOBAL_LOCALE).
SYSTEMTS_API bool NUVSysCLocaleIsPerThread();
// Changes nothing: 0 when the thread's state equals `wanted`, else -1.
SYSTEMTS_API int NUVSysCLocaleSetPerThread(bool wanted);
// The C locale name of the national-language environment (see
// NUVSysNLSEnv.h), always one that newlocale accepts ("C" at worst). The
// pointer is the calling thread's own copy, valid until its next call.
SYSTEMTS_API const char* NUVSysCLocaleEnvironGet();

#endif  // NUVSYSCLOCALE_H
