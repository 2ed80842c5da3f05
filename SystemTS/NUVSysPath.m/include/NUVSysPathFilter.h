// NUVSysPathFilter.h - decides which entries a directory walk reports.
//
// The base filter accepts every path. A walk given a filter whose pattern is
// not "*.*" first matches the pattern against the whole current path
// (directory joined with the entry name) with fnmatch and no flags, so a
// leading "*" also spans the directory part: "*.inp" reports every entry
// whose name ends in ".inp". Then, when a derived class overrides accept, the
// walk asks it too. A default-constructed filter has the pattern "*.*",
// which does no matching at all (not even "a name holding a dot").
//
// Threads: a filter may serve several walks on several threads as long as
// nobody changes its pattern meanwhile; accept of a derived class must be
// safe to call that way too.
#ifndef NUVSYSPATHFILTER_H
#define NUVSYSPATHFILTER_H

#include "KELUnicodeString.h"
#include "SystemTSCommon.h"

class NUVSysPath;

class SYSTEMTS_API NUVSysPathFilter {
 public:
  // The pattern (first data member, public, as callers set it directly).
  KELUnicodeString _pattern;

  NUVSysPathFilter();
  explicit NUVSysPathFilter(const KELUnicodeString& pattern) : _pattern(pattern) {}
  virtual ~NUVSysPathFilter();

  void SetPattern(const KELUnicodeString& pattern) { _pattern = pattern; }
  const KELUnicodeString& GetPattern() const { return _pattern; }

  // 1 to report `path`, 0 to skip it. The base answers 1.
  virtual int accept(const NUVSysPath& path);
};

#endif  // NUVSYSPATHFILTER_H
