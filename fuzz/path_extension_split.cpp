// Extensions and splitting against a model on std::string.
// Input: the path's bytes (up to a 0x00).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "NUVSysPath.h"
#include "NUVSysPathImpl.h"

namespace {
void check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "invariant broken: %s\n", what);
    std::abort();
  }
}

// The text after the last "." of the last component; false when none.
bool modelExtension(const std::string& s, bool relative, std::string& ext) {
  const size_t slash = s.rfind('/');
  if (slash == std::string::npos && !relative) return false;
  const std::string name = slash == std::string::npos ? s : s.substr(slash + 1);
  const size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot + 1 == name.size()) return false;
  ext = name.substr(dot + 1);
  return true;
}

// The bytes before the removed extension; false when it is refused.
bool modelRemove(const std::string& s, std::string& out) {
  if (s.empty() || s.back() == '/') return false;
  const size_t dot = s.find_last_of("./");
  if (dot == std::string::npos || s[dot] == '/' || dot == 0) return false;
  if (s[dot - 1] == '/') return false;
  if (s[dot - 1] == '.' && (dot == 1 || s[dot - 2] == '/')) return false;
  out = s.substr(0, dot);
  return true;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  NUVSysPath p(text.c_str());
  if (!p.IsValid()) return 0;
  const std::string s = p.GetUTF8();
  const NUVSysPathImplInternalData& d = p.GetImpl()->data();

  KELUnicodeString ext;
  std::string want;
  const bool has = modelExtension(s, p.IsRelative(), want);
  check((p.GetExtension(ext) == 0) == has, "extension found as the model says");
  if (has) check(ext.ConvertToUTF8() == KELUnicodeString::FromUTF8(want).ConvertToUTF8(), "extension text");

  NUVSysPath removed(p);
  std::string rest;
  if (modelRemove(s, rest)) {
    NUVSysPath rebuilt(rest.c_str());
    check((removed.RemExtension() == 0) == rebuilt.IsValid(), "removal as the model says");
    if (rebuilt.IsValid()) check(removed == rebuilt, "removal text");
  } else {
    check(removed.RemExtension() == E_FAIL && removed == p, "refused removal changes nothing");
  }

  NUVSysPath added(p);
  if (added.AddExtension(KELUnicodeString::FromUTF8("x")) == 0) {
    check(s.back() != '/' && std::string(added.GetUTF8()) == s + ".x", "added extension text");
    const bool found = modelExtension(s + ".x", added.IsRelative(), want);
    check((added.GetExtension(ext) == 0) == found, "added extension found as the model says");
  } else {
    check(s.back() == '/' || s.size() + 2 >= NUVSysPathImpl::kMaxPath, "extension refused only for a reason");
  }

  NUVSysPath parent("untouched");
  KELUnicodeString name;
  const int rc = p.split(parent, name);
  size_t n = s.size();
  if (n > 0 && s[n - 1] == '/') --n;
  const size_t from = p.IsAbsolute() ? 0 : d.prefixLength;
  size_t slash = std::string::npos;
  for (size_t i = n; i > from; --i)
    if (s[i - 1] == '/') {
      slash = i - 1;
      break;
    }
  if (slash == std::string::npos) {
    check(rc == 1 && parent == "untouched", "no \"/\": result 1, parent untouched");
    check(name.ConvertToUTF8() == KELUnicodeString::FromUTF8(s).ConvertToUTF8(), "the name is the path");
  } else {
    NUVSysPath model(s.substr(0, slash == 0 ? 1 : slash).c_str());
    check(rc == (model.IsValid() ? 0 : E_FAIL), "split result");
    if (rc == 0) {
      check(parent == model, "parent text");
      check(name.ConvertToUTF8() ==
                KELUnicodeString::FromUTF8(s.substr(slash + 1, n - slash - 1)).ConvertToUTF8(),
            "name text");
    }
  }
  return 0;
}
