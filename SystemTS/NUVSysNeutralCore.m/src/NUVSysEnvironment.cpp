// The settings reader (NUVGetEnvInt), the install path and the string
// replacement used by the expansion.
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "EnvironInternal.h"
#include "NUVSysCodePage.h"
#include "NUVSysEnvironmentManager.h"
#include "NUVSysTSArgs.h"
#include "NUVSysUCAlgorithm.h"
#include "Settings.h"
#include "SysCalls.h"

namespace systemts::detail {
namespace {

constexpr size_t kPathRoom = 4096;  // buffers of the path steps, terminator included

// Text that is not UTF-8 is taken as the process code page and converted.
std::string toUTF8(const std::string& path) {
  const char* p = path.c_str();
  if (NUVSysUCAlgorithm::IsUTF8(p, path.size()) == 0) return path;
  const NUVSysCodePage& cp = NUVSysCodePage::GetEnvConverter();
  std::vector<unsigned short> units(path.size() + 2);
  int n = 0;
  cp.ConvertMBCSToUTF16(path.data(), static_cast<int>(path.size()), units.data(), &n);
  std::string out(4 * static_cast<size_t>(n) + 4, '\0');
  const unsigned short* src = units.data();
  int left = n;
  const unsigned int written =
      NUVSysUCAlgorithm::ConvertUTF16ToUTF8(src, left, out.data(), static_cast<unsigned int>(out.size()));
  out.resize(written == 0xFFFFFFFFu ? 0 : written);
  return out;
}

std::string computeInstallPath() {
  int argc = 0;
  char** argv = nullptr;
  NUVSysGetCmdLineArgs(argc, argv);
  if (argc < 1 || argv == nullptr || argv[0] == nullptr) return std::string();
  const std::string program = argv[0];
  std::string path;
  if (program.find('/') == std::string::npos) {
    const char* env = SearchPathSetting();
    const std::string list = env != nullptr ? std::string(env).substr(0, kPathRoom - 1) : std::string();
    for (size_t b = 0; b < list.size();) {
      size_t e = list.find(':', b);
      if (e == std::string::npos) e = list.size();
      if (e > b) {
        std::string candidate = list.substr(b, e - b);
        if (candidate.back() != '/') candidate += '/';
        candidate += program;
        if (g_sys.access(candidate.c_str(), R_OK) == 0) {
          path = candidate;
          break;
        }
      }
      b = e + 1;
    }
  } else if (program[0] != '/') {
    char cwd[kPathRoom];
    path = g_sys.getcwd(cwd, sizeof cwd) != nullptr ? std::string(cwd) + "/" + program : program;
  } else {
    path = program.substr(0, kPathRoom - 1);
  }
  for (int cut = 0; cut < 3; ++cut) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) break;
    path.resize(slash);
  }
  return toUTF8(path);
}

std::atomic<const char*> g_installPath{nullptr};
std::mutex g_installPathLock;

}  // namespace
}  // namespace systemts::detail

using namespace systemts::detail;

int _NUVGetEnvironmentVariableFromOS(const char* name, KELUnicodeString& out) {
  if (name == nullptr) return 0;
  const char* value = EnvironmentValue(name);
  if (value == nullptr) return 0;
  out = value;
  return 1;
}

int NUVGetEnvInt(const char* name, KELUnicodeString* out) {
  if (name == nullptr) return 0;
  if (const char* value = EnvironmentValue(name)) {
    if (out != nullptr) *out = value;
    return 1;
  }
  if (copyApplicationVariable(name, out)) return 1;
  if (std::strcmp(name, "KELInstallPath") == 0) {
    const char* path = NUVGetMainInstallPath();
    if (out != nullptr) out->BuildFromUTF8(path);
    return 1;
  }
  return 0;
}

const char* NUVGetMainInstallPath() {
  if (const char* path = g_installPath.load(std::memory_order_acquire)) return path;
  std::lock_guard<std::mutex> lock(g_installPathLock);
  if (const char* path = g_installPath.load(std::memory_order_relaxed)) return path;
  const std::string path = computeInstallPath();
  char* copy = new char[path.size() + 1];
  std::memcpy(copy, path.c_str(), path.size() + 1);
  g_installPath.store(copy, std::memory_order_release);
  return copy;
}

int NUVSysGetEnvA(size_t*, char*, size_t, const char*) { return -1; }

const char* NUVSysGetOfficialEnvA(const char*) { return nullptr; }

char* NUVSysEnvironStringReplaceA(char* string, const char* search, const char* replacement) {
  if (string == nullptr || search == nullptr || replacement == nullptr || *search == '\0') return string;
  const size_t searchLen = std::strlen(search);
  const size_t replacementLen = std::strlen(replacement);
  size_t from = 0;
  for (;;) {
    const char* hit = std::strstr(string + from, search);
    if (hit == nullptr) return string;
    const size_t at = static_cast<size_t>(hit - string);
    const size_t len = std::strlen(string);
    char* next = static_cast<char*>(g_sys.malloc(len - searchLen + replacementLen + 1));
    if (next == nullptr) return string;
    std::memcpy(next, string, at);
    std::memcpy(next + at, replacement, replacementLen);
    std::memcpy(next + at + replacementLen, hit + searchLen, len - at - searchLen + 1);
    std::free(string);
    string = next;
    from = at + replacementLen;
  }
}
