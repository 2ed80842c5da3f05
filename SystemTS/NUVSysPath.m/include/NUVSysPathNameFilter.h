// NUVSysPathNameFilter.h - a filter that matches a glob against the entry's
// name only (not the directory part), optionally ignoring case.
//
// The pattern uses fnmatch syntax ("*", "?", "[...]"); with FNM_PERIOD-like
// care left to the caller: "*" matches a leading "." too. Case-insensitive
// matching folds ASCII letters only (fnmatch's FNM_CASEFOLD in the C
// locale); other bytes compare exactly.
//
// Its own pattern field holds "*.*" so that the walk does no whole-path
// matching; the name pattern lives in this class.
// Threads: as NUVSysPathFilter.
#ifndef NUVSYSPATHNAMEFILTER_H
#define NUVSYSPATHNAMEFILTER_H

#include <string>

#include "NUVSysPathFilter.h"
#include "SystemTSCommon.h"

class SYSTEMTS_API NUVSysPathNameFilter : public NUVSysPathFilter {
 public:
  // `pattern` as UTF-8 (null: "*").
  explicit NUVSysPathNameFilter(const char* pattern, bool ignoreCase = false);
  ~NUVSysPathNameFilter() override;

  // 1 when the last component of `path` matches.
  int accept(const NUVSysPath& path) override;
  // The same test on a name alone.
  bool matchName(const char* name) const;

 private:
  std::string _namePattern;
  bool _ignoreCase;
};

#endif  // NUVSYSPATHNAMEFILTER_H
