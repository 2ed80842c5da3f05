// NUVSysEnvironStringReplaceA against a model: every occurrence replaced left
// to right, the scan resuming after the inserted text; the string passed in
// comes back itself when nothing is replaced.
//
// Input: text, search and replacement, separated by 0 bytes (missing pieces
// are empty).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "NUVSysEnvironmentManager.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

std::string model(std::string text, const std::string& search, const std::string& replacement) {
  if (search.empty()) return text;
  for (size_t at = text.find(search); at != std::string::npos; at = text.find(search, at)) {
    text.replace(at, search.size(), replacement);
    at += replacement.size();
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string pieces[3];
  int k = 0;
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      if (++k == 3) break;
    } else {
      pieces[k] += static_cast<char>(data[i]);
    }
  }
  char* text = static_cast<char*>(std::malloc(pieces[0].size() + 1));
  std::memcpy(text, pieces[0].c_str(), pieces[0].size() + 1);
  char* got = NUVSysEnvironStringReplaceA(text, pieces[1].c_str(), pieces[2].c_str());
  const std::string want = model(pieces[0], pieces[1], pieces[2]);
  check(got != nullptr && want == got);
  if (want == pieces[0] && (pieces[1].empty() || pieces[0].find(pieces[1]) == std::string::npos)) check(got == text);
  std::free(got);
  return 0;
}
