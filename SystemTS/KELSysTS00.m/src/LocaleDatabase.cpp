// Locale objects and iconv descriptors made and freed under one lock.
#include "LocaleDatabase.h"

#include <cstring>
#include <mutex>

#include "SysCalls.h"

namespace systemts::detail {

namespace {
std::mutex g_databaseMutex;
}  // namespace

locale_t NewLocale(int mask, const char* name, locale_t base) {
  std::lock_guard<std::mutex> lock(g_databaseMutex);
  return g_sys.newLocale(mask, name, base);
}

locale_t DupLocale(locale_t l) {
  std::lock_guard<std::mutex> lock(g_databaseMutex);
  return g_sys.dupLocale(l);
}

void FreeLocale(locale_t l) {
  std::lock_guard<std::mutex> lock(g_databaseMutex);
  g_sys.freeLocale(l);
}

iconv_t IconvOpen(const char* to, const char* from) {
  std::lock_guard<std::mutex> lock(g_databaseMutex);
  return g_sys.iconvOpen(to, from);
}

void IconvClose(iconv_t cd) {
  std::lock_guard<std::mutex> lock(g_databaseMutex);
  g_sys.iconvClose(cd);
}

char* CopyName(const char* name) {
  const size_t n = std::strlen(name) + 1;
  char* c = static_cast<char*>(g_sys.malloc(n));
  if (c != nullptr) std::memcpy(c, name, n);
  return c;
}

}  // namespace systemts::detail
