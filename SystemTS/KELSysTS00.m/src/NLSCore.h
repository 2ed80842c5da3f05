// NLSCore.h - helpers of the national-language core shared inside the
// library (the locale and converter database calls are in LocaleDatabase.h).
#ifndef SYSTEMTS_NLSCORE_H
#define SYSTEMTS_NLSCORE_H

#include <string>

namespace systemts::detail {

// The name iconv knows for a codeset as locale names spell it ("utf8" ->
// "UTF-8", "eucJP" -> "EUC-JP"); unknown names come back as given.
std::string NormalizeCodePageName(const std::string& codeset);

// Longest character of a code page in bytes; 4 for an unknown one.
int MultiByteCharMaxSize(const char* codePage);

}  // namespace systemts::detail

#endif  // SYSTEMTS_NLSCORE_H
