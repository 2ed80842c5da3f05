// NLSCore.h - helpers of the national-language core shared inside the
// library.
#ifndef SYSTEMTS_NLSCORE_H
#define SYSTEMTS_NLSCORE_H

#include <iconv.h>
#include <locale.h>

#include <string>

namespace systemts::detail {

// The name iconv knows for a codeset as locale names spell it ("utf8" ->
// "UTF-8", "eucJP" -> "EUC-JP"); unknown names come back as given.
std::string NormalizeCodePageName(const std::string& codeset);

// Longest character of a code page in bytes; 4 for an unknown one.
int MultiByteCharMaxSize(const char* codePage);

// Locale objects and iconv descriptors are made and freed through these.
// The C library guards its locale and converter databases with internal
// locks that race detectors cannot see; doing these calls under one mutex
// of ours makes the ordering visible, so a host checked with
// ThreadSanitizer gets no false reports from the library. They are rare
// and slow anyway (they may load files), never on a conversion path.
locale_t NewLocale(int mask, const char* name, locale_t base);
locale_t DupLocale(locale_t l);
void FreeLocale(locale_t l);
iconv_t IconvOpen(const char* to, const char* from);
void IconvClose(iconv_t cd);

}  // namespace systemts::detail

#endif  // SYSTEMTS_NLSCORE_H
