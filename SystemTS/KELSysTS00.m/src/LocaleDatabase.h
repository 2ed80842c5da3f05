// LocaleDatabase.h - locale objects and iconv descriptors made and freed
// under one lock of the library. Below both the C locale and the
// national-language core, which use it.
#ifndef SYSTEMTS_LOCALEDATABASE_H
#define SYSTEMTS_LOCALEDATABASE_H

#include <iconv.h>
#include <locale.h>

namespace systemts::detail {

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

// What iconv_open returns on failure, and what the library's converters hold
// when they have no descriptor.
inline const iconv_t kNoDescriptor = reinterpret_cast<iconv_t>(-1);

// A copy of a locale or code-page name in memory from the library's malloc
// (free it with std::free); null when out of memory.
char* CopyName(const char* name);

}  // namespace systemts::detail

#endif  // SYSTEMTS_LOCALEDATABASE_H
