#include "NUVSysDirectoryIterator.h"

#include <gtest/gtest.h>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>

#include "FaultInjection.h"
#include "PathModels.h"
#include "NUVSysDirectoryWalker.h"
#include "NUVSysPathFilter.h"
#include "NUVSysPathNameFilter.h"

using systemts::detail::SysCalls;

namespace {
struct Tree {
  std::string root;
  Tree() {
    char name[] = "/tmp/nuvsysdir_XXXXXX";
    root = ::mkdtemp(name);
  }
  ~Tree() { NUVSysPath(root.c_str()).Remove(1); }
  void file(const std::string& rel) {
    FILE* f = std::fopen((root + "/" + rel).c_str(), "w");
    if (f) std::fclose(f);
  }
  void dir(const std::string& rel) { ::mkdir((root + "/" + rel).c_str(), 0755); }
};

// The names a walk reports, each with how often.
std::multiset<std::string> names(const NUVSysPath& dir, NUVSysPathFilter* filter, int* initRc = nullptr) {
  std::multiset<std::string> seen;
  int rc = 0;
  for (NUVSysDirectoryIterator it = dir.Begin(&rc, filter); it != dir.End(); ++it) {
    KELUnicodeString name;
    EXPECT_EQ(0, it.GetCurrentName(name));
    seen.insert(name.ConvertToUTF8());
    NUVSysPath path;
    EXPECT_EQ(0, it.GetCurrentPath(path));
    EXPECT_TRUE(path == (std::string(dir.GetUTF8()) + "/" + name.ConvertToUTF8()).c_str());
  }
  if (initRc) *initRc = rc;
  return seen;
}

class OnlyFilesFilter : public NUVSysPathFilter {
 public:
  int accept(const NUVSysPath& path) override { return path.IsFile(1) ? 1 : 0; }
};
}  // namespace

TEST(NUVSysDirectoryIterator, EmptyDirectoryEqualsEndAtOnce) {
  Tree t;
  NUVSysPath dir(t.root.c_str());
  int rc = -1;
  NUVSysDirectoryIterator it = dir.Begin(&rc);
  EXPECT_EQ(1, rc);
  EXPECT_TRUE(it == dir.End());
  EXPECT_EQ(SYSTEMTS_E_NO_MORE_ENTRIES, it.next());
  NUVSysPath path;
  EXPECT_EQ(E_FAIL, it.GetCurrentPath(path));
  // Not a directory, and no path at all.
  t.file("f");
  EXPECT_EQ(E_FAIL, NUVSysPath((t.root + "/f").c_str()).GetDirectoryIterator(it));
  EXPECT_EQ(E_FAIL, NUVSysPath().GetDirectoryIterator(it));
}

TEST(NUVSysDirectoryIterator, FiltersAndDotEntries) {
  Tree t;
  for (const char* f : {"a.inp", "b.inp", "c.out", "noext", ".hidden", "D.INP"}) t.file(f);
  t.dir("sub.inp");
  NUVSysPath dir(t.root.c_str());
  NUVSysPathFilter all;  // "*.*": no matching, not even "holds a dot"
  NUVSysPathFilter inp(KELUnicodeString::FromUTF8("*.inp"));
  OnlyFilesFilter files;
  files.SetPattern(KELUnicodeString::FromUTF8("*.inp"));
  NUVSysPathNameFilter upper("*.inp", /*ignoreCase=*/true);
  struct Case { const char* label; NUVSysPathFilter* filter; std::multiset<std::string> expected; };
  const Case kCases[] = {
      {"none", nullptr, {"a.inp", "b.inp", "c.out", "noext", ".hidden", "D.INP", "sub.inp"}},
      {"*.*", &all, {"a.inp", "b.inp", "c.out", "noext", ".hidden", "D.INP", "sub.inp"}},
      {"*.inp", &inp, {"a.inp", "b.inp", "sub.inp"}},
      {"accept", &files, {"a.inp", "b.inp"}},
      {"name, no case", &upper, {"a.inp", "b.inp", "D.INP", "sub.inp"}},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(c.expected, names(dir, c.filter));
  }
  // The whole path is matched: a pattern naming the directory too still works.
  NUVSysPathFilter full(KELUnicodeString::FromUTF8((t.root + "/a.*").c_str()));
  EXPECT_EQ(std::multiset<std::string>{"a.inp"}, names(dir, &full));
  // No accepted entry: 1 from Init.
  NUVSysPathFilter none(KELUnicodeString::FromUTF8("*.zip"));
  int rc = 0;
  EXPECT_TRUE(names(dir, &none, &rc).empty());
  EXPECT_EQ(1, rc);
}

TEST(NUVSysDirectoryIterator, EntriesRemovedDuringTheWalk) {
  Tree t;
  std::set<std::string> made;
  for (int i = 0; i < 200; ++i) {
    made.insert("f" + std::to_string(i));
    t.file("f" + std::to_string(i));
  }
  NUVSysPath dir(t.root.c_str());
  std::multiset<std::string> seen;
  int rc = 0;
  NUVSysDirectoryIterator it = dir.Begin(&rc);
  ASSERT_EQ(0, rc);
  for (; it != dir.End(); ++it) {
    seen.insert(it.GetCurrentNameUTF8());
    if (seen.size() == 1) {
      for (const std::string& n : made)
        if (n != *seen.begin()) ::unlink((t.root + "/" + n).c_str());
      t.file("late");
    }
  }
  EXPECT_EQ(SYSTEMTS_E_NO_MORE_ENTRIES, it.next());
  EXPECT_GE(seen.size(), 1u);
  for (const std::string& n : seen) {
    EXPECT_EQ(1u, seen.count(n)) << n;
    EXPECT_TRUE(made.count(n) || n == "late") << n;
  }
}

TEST(NUVSysDirectoryIterator, CopiesWalkOnByThemselves) {
  Tree t;
  for (const char* f : {"a", "b", "c", "d"}) t.file(f);
  NUVSysPath dir(t.root.c_str());
  NUVSysDirectoryIterator it = dir.Begin();
  ++it;
  NUVSysDirectoryIterator copy(it);
  EXPECT_STREQ(it.GetCurrentNameUTF8(), copy.GetCurrentNameUTF8());
  std::set<std::string> rest1, rest2;
  for (++it; it != dir.End(); ++it) rest1.insert(it.GetCurrentNameUTF8());
  for (++copy; copy != dir.End(); ++copy) rest2.insert(copy.GetCurrentNameUTF8());
  EXPECT_EQ(rest1, rest2);
  EXPECT_EQ(2u, rest1.size());
}

TEST(NUVSysDirectoryIteratorFaults, FailuresEqualTheEnd) {
  Tree t;
  t.file("a");
  t.file("b");
  NUVSysPath dir(t.root.c_str());
  {
    Fault<&SysCalls::opendir> f(EACCES, nullptr);
    int rc = 0;
    NUVSysDirectoryIterator it = dir.Begin(&rc);
    EXPECT_EQ(static_cast<int>(0x8007000Du), rc);
    EXPECT_TRUE(it == dir.End());
    EXPECT_EQ(E_FAIL, it.next());
  }
  {
    Fault<&SysCalls::readdir> f(EIO, nullptr, /*nth=*/2, Fault<&SysCalls::readdir>::kAlways);
    NUVSysDirectoryIterator it;
    // "." and ".." may come first; whichever call fails, the result is EIO.
    int rc = it.Init(dir);
    while (rc == 0) rc = it.next();
    EXPECT_EQ(static_cast<int>(0x80070005u), rc);
    EXPECT_TRUE(it == dir.End());
    EXPECT_EQ(E_FAIL, it.next());
    KELUnicodeString name;
    EXPECT_EQ(E_FAIL, it.GetCurrentName(name));
  }
}

TEST(NUVSysDirectoryWalker, SymbolicLinkLoop) {
  Tree t;
  t.dir("a");
  t.dir("a/b");
  t.file("a/b/f");
  ASSERT_EQ(0, ::symlink("..", (t.root + "/a/b/up").c_str()));
  ASSERT_EQ(0, ::symlink(t.root.c_str(), (t.root + "/a/root").c_str()));
  for (int options : {0, int(NUVSysDirectoryWalker::kFollowLinks)}) {
    SCOPED_TRACE(options);
    NUVSysDirectoryWalker w;
    ASSERT_EQ(0, w.Open(NUVSysPath(t.root.c_str()), options));
    std::map<std::string, int> seen;  // relative path -> depth
    int rc;
    while ((rc = w.Next()) == 0) {
      const std::string p = w.GetCurrentPathUTF8();
      ASSERT_LT(seen.size(), 100u) << "the walk went round the loop";
      seen[p.substr(t.root.size() + 1)] = w.GetDepth();
      EXPECT_EQ(std::string(w.GetCurrentName()), p.substr(p.rfind('/') + 1));
    }
    EXPECT_EQ(SYSTEMTS_E_NO_MORE_ENTRIES, rc);
    // Both links point at directories already open: reported, never entered.
    const std::map<std::string, int> expected = {
        {"a", 1}, {"a/b", 2}, {"a/b/f", 3}, {"a/b/up", 3}, {"a/root", 2}};
    EXPECT_EQ(expected, seen);
    EXPECT_EQ(0, w.GetSkippedCount());
  }
}

TEST(NUVSysDirectoryWalkerFaults, VanishedDirectoryIsSkippedNotFatal) {
  Tree t;
  for (const char* d : {"a", "b", "c"}) {
    t.dir(d);
    t.file(std::string(d) + "/f");
  }
  NUVSysDirectoryWalker w;
  ASSERT_EQ(0, w.Open(NUVSysPath(t.root.c_str())));
  Fault<&SysCalls::opendir> f(ENOENT, nullptr, /*nth=*/2);  // the second subdirectory
  int files = 0, dirs = 0;
  while (w.Next() == 0) (w.IsDirectory() ? dirs : files)++;
  EXPECT_EQ(3, dirs);
  EXPECT_EQ(2, files);
  EXPECT_EQ(1, w.GetSkippedCount());
  EXPECT_EQ(static_cast<int>(0x80070002u), w.GetLastSkippedError());
}

TEST(NUVSysDirectoryIteratorFaults, CopyThatCannotReopenIsFailed) {
  Tree t;
  for (const char* f : {"a", "b"}) t.file(f);
  NUVSysPath dir(t.root.c_str());
  NUVSysDirectoryIterator it = dir.Begin();
  ASSERT_TRUE(it != dir.End());
  Fault<&SysCalls::opendir> f(EMFILE, nullptr);
  NUVSysDirectoryIterator copy(it);
  EXPECT_TRUE(copy == dir.End());
  EXPECT_EQ(E_FAIL, copy.next());
  EXPECT_EQ(nullptr, copy.GetCurrentNameUTF8());
  EXPECT_NE(nullptr, it.GetCurrentNameUTF8());  // the original walks on
}

using systemts::test::g_plainReaddir;
using systemts::test::readdirWithoutType;

TEST(NUVSysDirectoryWalkerFaults, ReaddirAndLstatFailures) {
  Tree t;
  t.dir("a");
  t.file("a/f");
  t.file("g");
  {
    // The root's listing fails at once: nothing reported, counted as skipped.
    NUVSysDirectoryWalker w;
    ASSERT_EQ(0, w.Open(NUVSysPath(t.root.c_str())));
    Fault<&SysCalls::readdir> f(EIO, nullptr);
    EXPECT_EQ(SYSTEMTS_E_NO_MORE_ENTRIES, w.Next());
    EXPECT_EQ(1, w.GetSkippedCount());
    EXPECT_EQ(static_cast<int>(0x80070005u), w.GetLastSkippedError());
  }
  // Entries of unknown type are looked at with lstat; when that fails the
  // entry is still reported, as neither directory nor link, and not entered.
  g_plainReaddir = systemts::detail::g_sys.readdir;
  systemts::detail::g_sys.readdir = readdirWithoutType;
  for (bool failing : {false, true}) {
    SCOPED_TRACE(failing);
    Fault<&SysCalls::lstat64> f(EIO, -1, 1, failing ? Fault<&SysCalls::lstat64>::kAlways : 0);
    NUVSysDirectoryWalker w;
    ASSERT_EQ(0, w.Open(NUVSysPath(t.root.c_str())));
    std::map<std::string, bool> seen;  // name -> directory
    while (w.Next() == 0) seen[w.GetCurrentName()] = w.IsDirectory();
    const std::map<std::string, bool> expected =
        failing ? std::map<std::string, bool>{{"a", false}, {"g", false}}
                : std::map<std::string, bool>{{"a", true}, {"f", false}, {"g", false}};
    EXPECT_EQ(expected, seen);
  }
  systemts::detail::g_sys.readdir = g_plainReaddir;
}
