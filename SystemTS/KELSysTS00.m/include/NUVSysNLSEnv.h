// NUVSysNLSEnv.h - the national-language core: the process code page and
// language, detected once from the locale environment, a hook for changes of
// language, and the log writer of the national-language code.
//
// Detection (on first need, once per process):
// - The locale name is the first non-empty of "LC_ALL", "LC_CTYPE" and "LANG"
//   (the POSIX precedence for character handling).
// - Unset, empty, "C" and "POSIX" give code page "UTF-8" and locale entry "C".
// - Otherwise the code page is the codeset of the name (after '.', before
//   '@'), normalised to the name iconv knows ("utf8" -> "UTF-8", "eucJP" ->
//   "EUC-JP", "sjis" -> "SHIFT_JIS", "iso88591" -> "ISO-8859-1", ...); a name
//   without a codeset takes the one the C library reports for that locale,
//   or "UTF-8" when the locale is not installed. The locale entry is the
//   language and territory part ("fr_FR" for "fr_FR.ISO-8859-1@euro").
//
// Threads: every function may be called from any thread; the state is kept
// under one mutex and callbacks run outside it.
#ifndef NUVSYSNLSENV_H
#define NUVSYSNLSENV_H

#include <cstdio>

#include "SystemTSCommon.h"

struct NUVSysNLSEnv {
  char codePage[64];     // iconv name of the process code page, never empty
  char localeEntry[64];  // language and territory, such as "fr_FR"; "C" when none
};

// Copies the detected (or last changed) environment into `env`. Returns 0.
SYSTEMTS_API int GetEnvNLSData(NUVSysNLSEnv& env);

// Registers `callback`, called with the new environment after every change
// of language (NLSCoreChangeLanguage). A function registered twice is called
// once. Returns 0, or -1 for a null callback or when no room is left (up to
// 32 callbacks).
SYSTEMTS_API int NLSCoreRegisterCBOnChange(void (*callback)(const NUVSysNLSEnv&));

// Changes the process's language at run time as if the locale environment
// named `localeName` (same rules as the detection, e.g. "ja_JP.eucJP"), then
// calls every registered callback, in registration order, on the calling
// thread. Changes are serialised: a change made on another thread meanwhile
// waits until this one's callbacks have returned, so the last callback call
// always carries the environment in force. A callback may change the language
// again (on its own thread). Returns 0, or -1 for a null name. The process's
// C locale itself is not touched.
SYSTEMTS_API int NLSCoreChangeLanguage(const char* localeName);

// The largest byte length of one character in the process code page, for
// sizing conversion buffers; never below the truth: 4 for UTF-8, GB18030 and
// EUC-TW,
// 3 for EUC-JP, 2 for SHIFT_JIS and the other double-byte code
// pages, 1 for single-byte ones, 4 for a code page it does not know.
SYSTEMTS_API int NUVGetMultiByteCharMaxSize();

// The national-language log writer. Writes only when the environment
// variable "NUVSysNLSCoreTrace" holds an integer whose low 8 bits are not 0
// (read once): "[PID:<pid>]", the formatted message, one newline (also after
// a message that already ends in one), then flushes `stream`.
SYSTEMTS_API void LogNLSCore(FILE* stream, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

#endif  // NUVSYSNLSENV_H
