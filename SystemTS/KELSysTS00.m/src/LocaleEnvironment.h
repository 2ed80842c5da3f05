// LocaleEnvironment.h - what the C locale needs to know of the process's
// national-language environment. The national-language core, which sits
// above the C locale, provides it (NUVSysNLSCore.cpp), so the C locale's
// code includes nothing of that core.
#ifndef SYSTEMTS_LOCALEENVIRONMENT_H
#define SYSTEMTS_LOCALEENVIRONMENT_H

#include <string>

namespace systemts::detail {

// The process code page as iconv names it, never empty (detected on first
// need, or as the last change of language set it).
std::string EnvironmentCodePage();

}  // namespace systemts::detail

#endif  // SYSTEMTS_LOCALEENVIRONMENT_H
