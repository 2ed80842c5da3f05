// NUVSysDirectoryIterator.h - walks the entries of one directory, in the
// order readdir gives them, optionally through a NUVSysPathFilter.
//
//   int rc;
//   const NUVSysDirectoryIterator end = dir.End();
//   for (NUVSysDirectoryIterator it = dir.Begin(&rc); it != end; ++it)
//     use(*it);  // the directory joined with the entry's name
//
// (End() makes a new iterator, with an allocation, at every call: in a loop
// over many entries make it once, as above.)
//
// "." and ".." are never reported. Entries added or removed during the walk
// may or may not be reported (readdir's rule); an entry is never reported
// twice and the walk never fails because of them.
//
// Results: Init (through NUVSysPath::GetDirectoryIterator or Begin): E_FAIL
// for a null path or one that is not a directory; 0 without change when the
// same directory and filter are already being walked and positioned; 1 when
// the directory holds no accepted entry; else 0, or opendir's errno
// converted (0x80070000 | errno). next / ++: 0; SYSTEMTS_E_NO_MORE_ENTRIES
// (0x80070012) at the end; E_FAIL in the failed state; readdir's errno
// converted, which puts the iterator in the failed state. GetCurrentPath and
// GetCurrentName: 0, or E_FAIL when not positioned on an entry.
//
// Comparison: two iterators are equal when they walk the same path object
// and their states match, a failed iterator counting as at the end; so a
// walk that fails stops a loop written against End().
//
// Copies: a copy walks on by itself from the same place (its own stream,
// opened again and moved to the original's position); when that cannot be
// done the copy is in the failed state.
//
// Threads: one iterator per thread. The walked path and the filter are
// borrowed and must outlive the iterator and stay unchanged.
#ifndef NUVSYSDIRECTORYITERATOR_H
#define NUVSYSDIRECTORYITERATOR_H

#include "KELSysTSUnicodeString.h"
#include "KELUnicodeString.h"
#include "NUVSysPath.h"
#include "SystemTSCommon.h"

class NUVSysDirectoryIteratorImpl;
class NUVSysPathFilter;

class SYSTEMTS_API NUVSysDirectoryIterator {
 public:
  // At the end of no directory.
  NUVSysDirectoryIterator();
  NUVSysDirectoryIterator(const NUVSysDirectoryIterator& other);
  NUVSysDirectoryIterator& operator=(const NUVSysDirectoryIterator& other);
  ~NUVSysDirectoryIterator();

  // Starts a walk (results above).
  int Init(const NUVSysPath& directory, NUVSysPathFilter* filter = nullptr);
  int next();
  NUVSysDirectoryIterator& operator++();
  // The current path; an empty path when not positioned on an entry.
  const NUVSysPath& operator*() const;
  int GetCurrentPath(NUVSysPath& path) const;
  int GetCurrentName(KELUnicodeString& name) const;
  int GetCurrentName(KELSysTSUnicodeString& name) const;
  // The current entry's name as read (UTF-8), null when not positioned.
  const char* GetCurrentNameUTF8() const;

  bool operator==(const NUVSysDirectoryIterator& other) const;
  bool operator!=(const NUVSysDirectoryIterator& other) const { return !(*this == other); }

  // Closes the stream; the iterator is at the end.
  void Close();

  NUVSysDirectoryIteratorImpl* GetImpl() const { return _impl; }

 private:
  NUVSysDirectoryIteratorImpl* _impl;
};

#endif  // NUVSYSDIRECTORYITERATOR_H
