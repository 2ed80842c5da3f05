// The environment variables the library reads, in one place.
#include "Settings.h"

#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace systemts::detail {

const char* EnvironmentValue(const char* name) { return std::getenv(name); }

bool NLSCoreTraceSetting() {
  const char* v = EnvironmentValue("NUVSysNLSCoreTrace");
  return v != nullptr && (std::strtol(v, nullptr, 10) & 0xFF) != 0;
}

bool StringWarningsSuppressedSetting() { return EnvironmentValue("KELStringWarningSuppress") != nullptr; }

bool ReplayPurifySetting() { return EnvironmentValue("ReplayPurify") != nullptr; }

int DevelopmentStageSetting() {
  const char* v = EnvironmentValue("KELDevelopmentStage");
  return v != nullptr && std::strcmp(v, "FALSE") == 0 ? 0 : 1;
}

bool IconvVerboseSetting() { return EnvironmentValue("ADL_ODT_IN") != nullptr; }

const char* LocaleNameSetting() {
  for (const char* var : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* v = EnvironmentValue(var);
    if (v != nullptr && *v != '\0') return v;
  }
  return nullptr;
}

const char* SearchPathSetting() { return EnvironmentValue("PATH"); }

const char* TraceSetting(const char* name) {
  const char* v = EnvironmentValue(name);
  return v != nullptr && *v != '\0' ? v : nullptr;
}

}  // namespace systemts::detail
