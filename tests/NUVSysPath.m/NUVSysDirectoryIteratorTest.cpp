#include "NUVSysDirectoryIterator.h"

#include <gtest/gtest.h>
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

using systemts::detail::g_sys;
using systemts::detail::SysCalls;
namespace st = systemts::test;

namespace {
constexpr int kEIO = static_cast<int>(0x80070005u);

// Makes a directory for a path ending in "/", else an empty file.
void make(const std::string& path) {
  if (path.back() == '/') {
    ::mkdir(path.c_str(), 0755);
  } else if (FILE* f = std::fopen(path.c_str(), "w")) {
    std::fclose(f);
  }
}

// A fresh directory holding `entries`, made in the order given.
struct Tree {
  char name[32] = "/tmp/nuvsysdir_XXXXXX";
  const std::string root = ::mkdtemp(name);
  NUVSysPath dir{root.c_str()};
  Tree(std::initializer_list<std::string> entries) {
    for (const std::string& e : entries) make(root + "/" + e);
  }
  ~Tree() { dir.Remove(1); }
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

// Walks the whole tree, with readdir hiding entry types when `untyped`:
// relative path -> (depth, directory).
std::map<std::string, std::pair<int, bool>> walk(const Tree& t, int options = 0, bool untyped = false) {
  std::map<std::string, std::pair<int, bool>> seen;
  st::g_plainReaddir = g_sys.readdir;
  if (untyped) g_sys.readdir = st::readdirWithoutType;
  NUVSysDirectoryWalker w;
  EXPECT_EQ(0, w.Open(t.dir, options));
  int rc;
  while ((rc = w.Next()) == 0 && seen.size() < 100) {
    const std::string p = w.GetCurrentPathUTF8();
    seen[p.substr(t.root.size() + 1)] = {w.GetDepth(), w.IsDirectory()};
    EXPECT_EQ(std::string(w.GetCurrentName()), p.substr(p.rfind('/') + 1));
  }
  g_sys.readdir = st::g_plainReaddir;
  EXPECT_EQ(SYSTEMTS_E_NO_MORE_ENTRIES, rc);
  EXPECT_EQ(0, w.GetSkippedCount());
  return seen;
}
}  // namespace

TEST(NUVSysDirectoryIterator, FiltersEmptyDirectoriesAndCopies) {
  Tree t{"a.inp", "b.inp", "c.out", "noext", ".hidden", "D.INP", "sub.inp/"};
  NUVSysPathFilter all;  // "*.*": no matching, not even "holds a dot"
  NUVSysPathFilter inp(KELUnicodeString::FromUTF8("*.inp"));
  OnlyFilesFilter files;
  files.SetPattern(KELUnicodeString::FromUTF8("*.inp"));
  NUVSysPathNameFilter upper("*.inp", /*ignoreCase=*/true);
  // The whole path is matched: a pattern naming the directory too still works.
  NUVSysPathFilter full(KELUnicodeString::FromUTF8((t.root + "/a.*").c_str()));
  NUVSysPathFilter none(KELUnicodeString::FromUTF8("*.zip"));
  struct Case { const char* label; NUVSysPathFilter* filter; std::multiset<std::string> expected; };
  const Case kCases[] = {
      {"none", nullptr, {"a.inp", "b.inp", "c.out", "noext", ".hidden", "D.INP", "sub.inp"}},
      {"*.*", &all, {"a.inp", "b.inp", "c.out", "noext", ".hidden", "D.INP", "sub.inp"}},
      {"*.inp", &inp, {"a.inp", "b.inp", "sub.inp"}},
      {"accept", &files, {"a.inp", "b.inp"}},
      {"name, no case", &upper, {"a.inp", "b.inp", "D.INP", "sub.inp"}},
      {"full path", &full, {"a.inp"}},
      {"nothing accepted", &none, {}},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.label);
    int rc = -1;
    EXPECT_EQ(c.expected, names(t.dir, c.filter, &rc));
    EXPECT_EQ(c.expected.empty() ? 1 : 0, rc);  // 1 from Init: no entry
  }
  // An empty directory equals the end at once.
  const NUVSysPath empty((t.root + "/sub.inp").c_str());
  int rc = -1;
  NUVSysDirectoryIterator it = empty.Begin(&rc);
  EXPECT_EQ(1, rc);
  EXPECT_TRUE(it == empty.End());
  EXPECT_EQ(SYSTEMTS_E_NO_MORE_ENTRIES, it.next());
  NUVSysPath path;
  EXPECT_EQ(E_FAIL, it.GetCurrentPath(path));
  // Not a directory, and no path at all.
  EXPECT_EQ(E_FAIL, NUVSysPath((t.root + "/a.inp").c_str()).GetDirectoryIterator(it));
  EXPECT_EQ(E_FAIL, NUVSysPath().GetDirectoryIterator(it));
  // A copy walks on by itself.
  it = t.dir.Begin();
  ++it;
  NUVSysDirectoryIterator copy(it);
  EXPECT_STREQ(it.GetCurrentNameUTF8(), copy.GetCurrentNameUTF8());
  std::set<std::string> rest1, rest2;
  for (++it; it != t.dir.End(); ++it) rest1.insert(it.GetCurrentNameUTF8());
  for (++copy; copy != t.dir.End(); ++copy) rest2.insert(copy.GetCurrentNameUTF8());
  EXPECT_EQ(rest1, rest2);
  EXPECT_EQ(5u, rest1.size());
}

TEST(NUVSysDirectoryIterator, EntriesRemovedDuringTheWalk) {
  Tree t{};
  std::set<std::string> made;
  for (int i = 0; i < 200; ++i) made.insert("f" + std::to_string(i));
  for (const std::string& n : made) make(t.root + "/" + n);
  std::multiset<std::string> seen;
  int rc = 0;
  NUVSysDirectoryIterator it = t.dir.Begin(&rc);
  ASSERT_EQ(0, rc);
  for (; it != t.dir.End(); ++it) {
    seen.insert(it.GetCurrentNameUTF8());
    if (seen.size() == 1) {
      for (const std::string& n : made)
        if (n != *seen.begin()) ::unlink((t.root + "/" + n).c_str());
      make(t.root + "/late");
    }
  }
  EXPECT_EQ(SYSTEMTS_E_NO_MORE_ENTRIES, it.next());
  EXPECT_GE(seen.size(), 1u);
  for (const std::string& n : seen) {
    EXPECT_EQ(1u, seen.count(n)) << n;
    EXPECT_TRUE(made.count(n) || n == "late") << n;
  }
}

TEST(NUVSysDirectoryIteratorFaults, FailuresEqualTheEnd) {
  Tree t{"a", "b"};
  {
    Fault<&SysCalls::opendir> f(EACCES, nullptr);
    int rc = 0;
    NUVSysDirectoryIterator it = t.dir.Begin(&rc);
    EXPECT_EQ(static_cast<int>(0x8007000Du), rc);
    EXPECT_TRUE(it == t.dir.End());
    EXPECT_EQ(E_FAIL, it.next());
  }
  {
    Fault<&SysCalls::readdir> f(EIO, nullptr, /*nth=*/2, Fault<&SysCalls::readdir>::kAlways);
    NUVSysDirectoryIterator it;
    // "." and ".." may come first; whichever call fails, the result is EIO.
    int rc = it.Init(t.dir);
    while (rc == 0) rc = it.next();
    EXPECT_EQ(kEIO, rc);
    EXPECT_TRUE(it == t.dir.End());
    EXPECT_EQ(E_FAIL, it.next());
    KELUnicodeString name;
    EXPECT_EQ(E_FAIL, it.GetCurrentName(name));
  }
  // A copy that cannot open the directory again is failed; the original walks on.
  NUVSysDirectoryIterator it = t.dir.Begin();
  ASSERT_TRUE(it != t.dir.End());
  Fault<&SysCalls::opendir> f(EMFILE, nullptr);
  NUVSysDirectoryIterator copy(it);
  EXPECT_TRUE(copy == t.dir.End());
  EXPECT_EQ(E_FAIL, copy.next());
  EXPECT_EQ(nullptr, copy.GetCurrentNameUTF8());
  EXPECT_NE(nullptr, it.GetCurrentNameUTF8());
}

TEST(NUVSysDirectoryWalker, SymbolicLinkLoopAndUntypedEntries) {
  Tree t{"a/", "a/b/", "a/b/f"};
  ASSERT_EQ(0, ::symlink("..", (t.root + "/a/b/up").c_str()));
  ASSERT_EQ(0, ::symlink(t.root.c_str(), (t.root + "/a/root").c_str()));
  // Both links point at directories already open: reported, never entered.
  // Entries of unknown type are looked at with lstat: the same walk.
  // Followed, the links count as directories.
  for (const bool follow : {false, true}) {
    SCOPED_TRACE(follow);
    const std::map<std::string, std::pair<int, bool>> expected = {
        {"a", {1, true}}, {"a/b", {2, true}}, {"a/b/f", {3, false}}, {"a/b/up", {3, follow}}, {"a/root", {2, follow}}};
    const int options = follow ? int(NUVSysDirectoryWalker::kFollowLinks) : 0;
    EXPECT_EQ(expected, walk(t, options));
    EXPECT_EQ(expected, walk(t, options, /*untyped=*/true));
  }
}

TEST(NUVSysDirectoryWalkerFaults, FailuresSkipOrFlattenNotFatal) {
  Tree t{"a/", "a/f", "b/", "b/f", "c/", "c/f", "g"};
  {
    // A subdirectory that vanished: skipped, the walk goes on.
    NUVSysDirectoryWalker w;
    ASSERT_EQ(0, w.Open(t.dir));
    Fault<&SysCalls::opendir> f(ENOENT, nullptr, /*nth=*/2);  // the second subdirectory
    int files = 0, dirs = 0;
    while (w.Next() == 0) (w.IsDirectory() ? dirs : files)++;
    EXPECT_EQ(3, dirs);
    EXPECT_EQ(3, files);
    EXPECT_EQ(1, w.GetSkippedCount());
    EXPECT_EQ(static_cast<int>(0x80070002u), w.GetLastSkippedError());
  }
  {
    // The root's listing fails at once: nothing reported, counted as skipped.
    NUVSysDirectoryWalker w;
    ASSERT_EQ(0, w.Open(t.dir));
    Fault<&SysCalls::readdir> f(EIO, nullptr);
    EXPECT_EQ(SYSTEMTS_E_NO_MORE_ENTRIES, w.Next());
    EXPECT_EQ(1, w.GetSkippedCount());
    EXPECT_EQ(kEIO, w.GetLastSkippedError());
  }
  // When lstat fails on an entry of unknown type, the entry is still
  // reported, as neither directory nor link, and not entered.
  Fault<&SysCalls::lstat64> f(EIO, -1, 1, Fault<&SysCalls::lstat64>::kAlways);
  const std::map<std::string, std::pair<int, bool>> expected = {
      {"a", {1, false}}, {"b", {1, false}}, {"c", {1, false}}, {"g", {1, false}}};
  EXPECT_EQ(expected, walk(t, 0, /*untyped=*/true));
}
