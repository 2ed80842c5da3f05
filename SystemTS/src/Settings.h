// Settings.h - every environment variable the library reads, read here and
// nowhere else.
//
// Each function reads the process environment when it is called; a caller
// that reads a setting once (at load, or on first need) keeps the value
// itself, so when each setting takes effect is the caller's documented rule.
// Not exported.
#ifndef SYSTEMTS_SETTINGS_H
#define SYSTEMTS_SETTINGS_H

namespace systemts::detail {

// The value of the variable `name`, null when it is unset. The one reader of
// the environment: the settings below, and the library's functions whose
// caller names the variable.
const char* EnvironmentValue(const char* name);

// "NUVSysNLSCoreTrace": true when it holds an integer whose low 8 bits are
// not 0 (the national-language log is then written).
bool NLSCoreTraceSetting();
// "KELStringWarningSuppress": true when set, to any value (the strings'
// printable-character warnings are then not written).
bool StringWarningsSuppressedSetting();
// "ReplayPurify": true when set, to any value (the string block pool then
// stays off).
bool ReplayPurifySetting();
// "KELDevelopmentStage": 0 when it is "FALSE", else 1 (unset included).
int DevelopmentStageSetting();
// "ADL_ODT_IN": true when set, to any value (the iconv wrapper then says on
// standard output when conversions stop being supported).
bool IconvVerboseSetting();
// The locale name of the environment: the first non-empty of "LC_ALL",
// "LC_CTYPE" and "LANG" (the POSIX precedence for character handling); null
// when none is.
const char* LocaleNameSetting();
// "PATH", null when unset.
const char* SearchPathSetting();
// One of the trace's variables ("KELTemp", "TMPDIR", "KELTraceLevel",
// "KELTraceSink", "KELTraceDir", "KELTraceSize", "KELTraceCount",
// "KELTraceRing", "KELTraDecDir"): its value, null when unset or empty.
const char* TraceSetting(const char* name);

}  // namespace systemts::detail

#endif  // SYSTEMTS_SETTINGS_H
