// Builds a path from random bytes and joins a second piece: the flags match
// the text, lengths stay within their limits, a refused join changes
// nothing, and a joined path is already in its clean form (cleaning it again
// changes nothing). Cleaning plain paths agrees with a model of Python's
// posixpath.normpath (which keeps a leading "//"; we make it "/").
// Input: base bytes, a 0x00 byte, component bytes.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "NUVSysPath.h"
#include "NUVSysPathImpl.h"
#include "PathModels.h"
#include "PathText.h"

namespace {
constexpr uint32_t kTypes = NUVSysPathImpl::kAbsolute | NUVSysPathImpl::kRelative | NUVSysPathImpl::kHttp |
                            NUVSysPathImpl::kHttps | NUVSysPathImpl::kLogical;

void check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "invariant broken: %s\n", what);
    std::abort();
  }
}


void checkConsistent(const NUVSysPath& p) {
  const NUVSysPathImplInternalData& d = p.GetImpl()->data();
  if (!p.IsValid()) {
    check(d.flags == NUVSysPathImpl::kInvalid, "a refused path keeps only the invalid bit");
    check(*p.GetUTF8() == '\0', "a refused path has no text");
    return;
  }
  const uint32_t type = d.flags & kTypes;
  check(type != 0 && (type & (type - 1)) == 0, "exactly one type bit");
  check(std::strlen(d.path) == d.length, "length matches the text");
  const auto detected = systemts::detail::detectPathType(d.path, d.length);
  check(detected.flags == type && detected.prefix == d.prefixLength, "flags match the text");
  const bool web = type & (NUVSysPathImpl::kHttp | NUVSysPathImpl::kHttps);
  if (!web) check(d.length < NUVSysPathImpl::kMaxPath, "length within 1024");
  if (web)
    for (size_t i = d.prefixLength; i < d.length; ++i)
      check(d.path[i] >= 0x20 && d.path[i] <= 0x7D, "web bytes within 0x20..0x7D");
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string in(reinterpret_cast<const char*>(data), size);
  const size_t cut = in.find('\0');
  const std::string base = in.substr(0, cut);
  // The component ends at the next 0x00 too: Append reads it as a C string.
  const std::string component = cut == std::string::npos ? std::string() : in.substr(cut + 1).c_str();

  // Cleaning on its own: the model for plain paths, idempotent for all.
  {
    const auto t = systemts::detail::detectPathType(base.data(), base.size());
    std::string once = base;
    if (!base.empty()) once.resize(systemts::detail::canonicalize(once.data(), once.size(), t.flags, t.prefix));
    if (!base.empty() && (t.flags & (NUVSysPathImpl::kAbsolute | NUVSysPathImpl::kRelative)))
      check(once == systemts::test::normpathModel(base), "cleaning agrees with normpath");
    check(once.size() <= base.size() || once == ".", "cleaning never lengthens");
    std::string twice = once;
    if (!once.empty()) twice.resize(systemts::detail::canonicalize(twice.data(), twice.size(), t.flags, t.prefix));
    check(twice == once, "cleaning is idempotent");
  }

  NUVSysPath p;
  const int rc = p.Set(base.c_str());
  check((rc == 0) == p.IsValid(), "result matches validity");
  checkConsistent(p);
  if (!p.IsValid()) return 0;
  const uint32_t type = p.GetTypeMask() & kTypes;

  NUVSysPath joined(p);
  check(joined == p, "a copy is equal");
  const int jrc = joined.Append(component.c_str());
  checkConsistent(joined);
  if (jrc != 0) {
    check(joined == p, "a refused join leaves the path as it was");
    return 0;
  }
  check((joined.GetTypeMask() & kTypes) == type, "joining keeps the type");
  std::string text = joined.GetUTF8();
  if (component != ".") {
    std::string again = text;
    again.resize(systemts::detail::canonicalize(again.data(), again.size(), type, joined.GetImpl()->data().prefixLength));
    check(again == text, "a joined path is clean");
  }
  NUVSysPath same(joined);
  check(same.Append(".") == 0 && same == joined, "\".\" changes nothing");
  return 0;
}
