// NUVSysDirectoryWalker.h - a depth-first walk of a whole directory tree.
//
//   NUVSysDirectoryWalker w;
//   if (w.Open(root) == 0)
//     while (w.Next() == 0) use(w.GetCurrentPathUTF8(), w.IsDirectory());
//
// Order: a directory is reported before its entries (pre-order); entries in
// readdir order; "." and ".." never. Each entry's type comes from readdir's
// d_type, so no stat is made per entry; only file systems that leave d_type
// unknown cost an lstat for those entries.
//
// Symbolic links are reported as links and not followed, unless the walker
// was opened with kFollowLinks; then a link to a directory is entered, except
// when that directory is already open higher up in the walk (a loop), which
// is reported as a link and not entered.
//
// A directory that cannot be opened (removed during the walk, no
// permission) is still reported as an entry, its contents are skipped, and
// the walk goes on: GetSkippedCount counts such directories and
// GetLastSkippedError gives the last one's converted errno. A readdir that
// fails ends that directory's listing the same way.
//
// Results: Open: 0, E_FAIL for an unbuilt path, or opendir's converted
// errno for the root. Next: 0 positioned on an entry,
// SYSTEMTS_E_NO_MORE_ENTRIES at the end, E_FAIL when not open.
// Threads: one walker per thread.
#ifndef NUVSYSDIRECTORYWALKER_H
#define NUVSYSDIRECTORYWALKER_H

#include <cstddef>

#include "NUVSysPath.h"
#include "SystemTSCommon.h"

class SYSTEMTS_API NUVSysDirectoryWalker {
 public:
  enum Options { kFollowLinks = 1 };

  NUVSysDirectoryWalker();
  ~NUVSysDirectoryWalker();
  NUVSysDirectoryWalker(const NUVSysDirectoryWalker&) = delete;
  NUVSysDirectoryWalker& operator=(const NUVSysDirectoryWalker&) = delete;

  int Open(const NUVSysPath& root, int options = 0);
  int Next();
  // Does not enter the directory just reported.
  void SkipCurrentDirectory();
  void Close();

  // The current entry: root joined with the entry's relative path (UTF-8,
  // valid until Next), its name, depth (1 for the root's own entries).
  const char* GetCurrentPathUTF8() const;
  size_t GetCurrentPathLength() const;
  const char* GetCurrentName() const;
  int GetDepth() const;
  bool IsDirectory() const;
  bool IsSymbolicLink() const;
  NUVSysPath GetCurrentPath() const;

  long GetSkippedCount() const;
  int GetLastSkippedError() const;

 private:
  struct State;
  State* _state;
};

#endif  // NUVSYSDIRECTORYWALKER_H
