// PathModels.h - references the path tests and the path fuzz target check
// the library against, and a readdir replacement for the table of OS calls.
#ifndef SYSTEMTS_TESTS_PATHMODELS_H
#define SYSTEMTS_TESTS_PATHMODELS_H

#include <dirent.h>

#include <string>
#include <vector>

namespace systemts::test {

// Python's posixpath.normpath, except that a leading "//" becomes "/".
inline std::string normpathModel(const std::string& path) {
  const bool rooted = !path.empty() && path[0] == '/';
  std::vector<std::string> out;
  size_t i = 0;
  while (i <= path.size()) {
    size_t j = path.find('/', i);
    if (j == std::string::npos) j = path.size();
    std::string c = path.substr(i, j - i);
    i = j + 1;
    if (c.empty() || c == ".") continue;
    if (c != ".." || (!rooted && out.empty()) || (!out.empty() && out.back() == "..")) {
      out.push_back(c);
    } else if (!out.empty()) {
      out.pop_back();
    }
  }
  std::string r = rooted ? "/" : "";
  for (size_t k = 0; k < out.size(); ++k) r += (k ? "/" : "") + out[k];
  return r.empty() ? "." : r;
}

// readdir that hides each entry's type, as some file systems do, so that the
// callers have to lstat the entry themselves. Set g_plainReaddir to the real
// entry before installing it.
inline struct dirent* (*g_plainReaddir)(DIR*) = nullptr;
inline struct dirent* readdirWithoutType(DIR* d) {
  struct dirent* e = g_plainReaddir(d);
  if (e != nullptr) e->d_type = DT_UNKNOWN;
  return e;
}

}  // namespace systemts::test

#endif  // SYSTEMTS_TESTS_PATHMODELS_H
