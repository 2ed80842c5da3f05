#include "NUVSysPath.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <random>
#include <string>

#include "FaultInjection.h"
#include "NUVSysPathImpl.h"
#include "PathModels.h"
#include "PathText.h"
#include "TestSupport.h"

using systemts::detail::g_sys;
using systemts::detail::SysCalls;
namespace st = systemts::test;

namespace {
constexpr int kNotFound = static_cast<int>(0x80070002u);

std::string utf8(const KELUnicodeString& s) { return s.ConvertToUTF8(); }
KELUnicodeString u(const char* s) { return KELUnicodeString::FromUTF8(s); }
NUVSysPath at(const std::string& s) { return NUVSysPath(s.c_str()); }
void touch(const std::string& path) {
  if (FILE* f = std::fopen(path.c_str(), "w")) std::fclose(f);
}

// `fn`'s result, run with a readdir that hides each entry's type.
int untyped(const std::function<int()>& fn) {
  st::g_plainReaddir = g_sys.readdir;
  g_sys.readdir = st::readdirWithoutType;
  const int rc = fn();
  g_sys.readdir = st::g_plainReaddir;
  return rc;
}

struct TempDir {
  char name[23] = "/tmp/nuvsyspath_XXXXXX";
  const std::string path = ::mkdtemp(name);
  ~TempDir() { at(path).Remove(1); }
  NUVSysPath in(const char* rel) const { return at(path + "/" + rel); }
};
}  // namespace

TEST(NUVSysPath, BuildingDetectsTheTypeAndChecksTheText) {
  using I = NUVSysPathImpl;
  struct Case { std::string text; int rc; uint32_t type; const char* stored; };
  const std::string web1025 = "http://h/" + std::string(1025 - 9, 'a');
  const Case kCases[] = {
      {"/", 0, I::kAbsolute, "/"},  {"a/", 0, I::kRelative, "a"},
      {"a//", 0, I::kRelative, "a/"},  // one final "/" only
      {"/usr/lib/", 0, I::kAbsolute, "/usr/lib"}, {"http://", E_FAIL, I::kInvalid, ""},
      {"https://", E_FAIL, I::kInvalid, ""},      {"http://h/~user", E_FAIL, I::kInvalid, ""},  // kept: 0x7E refused
      {"http://h/}", 0, I::kHttp, "http://h/}"},  {"https://h/x/", 0, I::kHttps, "https://h/x"},
      {"http:/h", 0, I::kRelative, "http:/h"},    {std::string("\x01\x02\\N/a", 6), 0, I::kLogical, "\x01\x02\\N/a"},
      {std::string("\x01\x02\\", 3), E_FAIL, I::kInvalid, ""}, {"", E_FAIL, I::kInvalid, ""},
      {std::string(1024, 'a'), 0, I::kRelative, nullptr},       {std::string(1025, 'a'), E_FAIL, I::kInvalid, ""},
      {"/" + std::string(1024, 'a'), E_FAIL, I::kInvalid, ""},  {web1025, 0, I::kHttp, nullptr},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.text.substr(0, 40));
    NUVSysPath p;
    EXPECT_EQ(c.rc, p.Set(c.text.c_str()));
    EXPECT_EQ(c.type, p.GetTypeMask());
    EXPECT_EQ(c.rc == 0, p.IsValid());
    EXPECT_EQ(c.stored ? std::string(c.stored) : c.text, std::string(p.GetUTF8()));
  }
  EXPECT_EQ(E_FAIL, NUVSysPath().Set(static_cast<const char*>(nullptr)));
  // Every byte after a web prefix; the same byte in a plain path is always taken.
  for (int b = 1; b < 256; ++b) {
    SCOPED_TRACE(b);
    const std::string one(1, static_cast<char>(b));
    EXPECT_EQ(b >= 0x20 && b <= 0x7D, at("http://h/" + one + "x").IsValid());
    EXPECT_EQ(b >= 0x20 && b <= 0x7D, at("https://h/" + one + "x").IsValid());
    EXPECT_TRUE(at("/d/" + one).IsValid());
  }
  // From UTF-16 and the string classes: the same path.
  const char* kText = "/d\xC3\xA9j\xC3\xA0/\xE6\x97\xA5";
  const KELUnicodeString text = u("/d\xC3\xA9j\xC3\xA0/\xE6\x97\xA5/");
  KELSysTSUnicodeString ts(text);
  NUVSysPath a(text), b(text.ConvertToUCChar()), c(kText), d(ts);
  for (const NUVSysPath* p : {&a, &b, &d}) EXPECT_TRUE(*p == c);
  EXPECT_TRUE(kText == a);
  EXPECT_FALSE(text.ConvertToUCChar() == a);  // the final "/" was dropped when building
  EXPECT_TRUE(c.GetAsString().ConvertToUCChar() == a);
  NUVSysPath moved(std::move(a));
  EXPECT_FALSE(a.IsValid());
  EXPECT_TRUE(moved == c);
}

TEST(NUVSysPath, Joining) {
  struct Case { std::string base, component; int rc; std::string result; };
  const std::string x1022(1022, 'x'), d80 = "d" + std::string(80, 'x');
  const Case kCases[] = {
      {"a", ".", 0, "a"},      {"a", "b/", 0, "a/b"},     {"a", "/b/", 0, "a/b"},   {"/", "b", 0, "/b"},
      {"a", "", 0, "a"},       {"a", "..", 0, "."},       {"/a", "../..", 0, "/"},  {"a", "../..", 0, ".."},
      {"a//b", "c", 0, "a/b/c"}, {"http://h", "x", 0, "http://h/x"}, {"http://h/a", "../../b", 0, "http://h/b"},
      {"https://h//a", "./b", 0, "https://h/a/b"}, {"a", "~", 0, "a/~"}, {"http://h", "~", E_FAIL, "http://h"},
      {"a", "b/../c//d", 0, "a/c/d"},
      {"http://h//a", "~", E_FAIL, "http://h//a"},  // refused: the uncleaned text is kept whole
      {"x", "../\x01\x02\\N", E_FAIL, "x"},          // would turn into a logical name
      {"x", "../http://h", 0, "http:/h"},            // still relative text
      {"a", std::string(1025, 'x'), E_FAIL, "a"},  {"a", x1022, 0, "a/" + x1022},  // 1024 bytes in all
      {"a/" + x1022, "y", E_FAIL, "a/" + x1022},                                   // 1026: refused, unchanged
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE((c.base + " + " + c.component).substr(0, 60));
    NUVSysPath p = at(c.base);
    EXPECT_EQ(c.rc, p.Append(c.component.c_str()));
    EXPECT_EQ(c.result, p.GetUTF8());
  }
  EXPECT_EQ(E_FAIL, NUVSysPath().Append("x"));
  NUVSysPath self = at(d80);  // joined to itself, past the buffer's first size
  EXPECT_EQ(0, self.Append(self));
  EXPECT_EQ(d80 + "/" + d80, self.GetUTF8());
  int rc = -1;
  EXPECT_TRUE(NUVSysPath("/a").Add(u("b"), &rc) == "/a/b");
  EXPECT_EQ(0, rc);
}

TEST(NUVSysPath, CleaningAgreesWithNormpath) {
  std::mt19937 rng(19);
  const char* pieces[] = {"a", "b", ".", "..", "/", "//", "c.d"};
  for (int n = 0; n < 3000; ++n) {
    std::string text;
    const int k = 1 + static_cast<int>(rng() % 8);
    for (int i = 0; i < k; ++i) text += pieces[rng() % 7];
    SCOPED_TRACE(text);
    std::string buf = text;
    const auto type = systemts::detail::detectPathType(buf.data(), buf.size());
    buf.resize(systemts::detail::canonicalize(buf.data(), buf.size(), type.flags, type.prefix));
    EXPECT_EQ(st::normpathModel(text), buf);
    std::string again = buf;
    again.resize(systemts::detail::canonicalize(again.data(), again.size(), type.flags, type.prefix));
    EXPECT_EQ(buf, again);
  }
}

TEST(NUVSysPath, Extensions) {
  struct Case { const char* path; int getRc; const char* ext; int remRc; const char* removed; };
  const Case kCases[] = {
      {"file.tar.gz", 0, "gz", 0, "file.tar"}, {"dir.x/file", E_FAIL, "", E_FAIL, "dir.x/file"},
      {".profile", 0, "profile", E_FAIL, ".profile"}, {"/d/.profile", 0, "profile", E_FAIL, "/d/.profile"},
      {"a/..", E_FAIL, "", E_FAIL, "a/.."},   {"..", E_FAIL, "", E_FAIL, ".."},
      {"file.", E_FAIL, "", 0, "file"},       {"a..b", 0, "b", 0, "a."},
      {"/x.y", 0, "y", 0, "/x"},             {"http://h.com", 0, "com", 0, "http://h"},
      {"noext", E_FAIL, "", E_FAIL, "noext"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.path);
    NUVSysPath p(c.path);
    KELUnicodeString ext;
    EXPECT_EQ(c.getRc, p.GetExtension(ext));
    EXPECT_EQ(c.ext, utf8(ext));
    EXPECT_EQ(c.remRc, p.RemExtension());
    EXPECT_STREQ(c.removed, p.GetUTF8());
  }
  NUVSysPath p("a/b");
  EXPECT_EQ(0, p.AddExtension(u("txt")));
  EXPECT_EQ(0, p.AddExtension(u(".gz")));
  EXPECT_TRUE(p == "a/b.txt.gz");
  EXPECT_EQ(E_FAIL, p.RemExtension(u("txt")));
  EXPECT_EQ(0, p.RemExtension(u("gz")));
  EXPECT_EQ(0, p.RemExtension(u(".txt")));
  EXPECT_TRUE(p == "a/b");
  EXPECT_EQ(E_FAIL, NUVSysPath("/").AddExtension(u("x")));
}

TEST(NUVSysPath, Splitting) {
  struct Case { const char* path; int rc; const char* parent; const char* name; };
  const Case kCases[] = {
      {"/file", 0, "/", "file"},       {"file", 1, "untouched", "file"},   {"/a/b/c", 0, "/a/b", "c"},
      {"a/b", 0, "a", "b"},            {"http://h", 1, "untouched", "http://h"},
      {"http://h/x", 0, "http://h", "x"}, {"/", 1, "untouched", "/"},
      {"http://h/", 1, "untouched", "http://h"},  // built without its final "/"
      {"http:///x", E_FAIL, "untouched", ""},     // the parent "http://" is refused
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.path);
    // A parent that holds a path and one that holds nothing yet get the same
    // answers; the second stays empty when there is no parent to give.
    NUVSysPath p(c.path), parent("untouched"), fresh;
    KELUnicodeString name, again;
    EXPECT_EQ(c.rc, p.split(parent, name));
    EXPECT_STREQ(c.parent, parent.GetUTF8());
    EXPECT_EQ(c.name, utf8(name));
    EXPECT_EQ(c.rc, p.split(fresh, again));
    EXPECT_EQ(c.name, utf8(again));
    EXPECT_EQ(c.rc == 0, fresh.IsValid());
    EXPECT_STREQ(c.rc == 0 ? c.parent : "", fresh.GetUTF8());
    EXPECT_EQ((c.rc == 0 ? NUVSysPath(c.parent) : NUVSysPath()).GetTypeMask(), fresh.GetTypeMask());
  }
  NUVSysPath parent;
  KELUnicodeString base, ext;
  for (const auto& [path, want] : {std::pair("/d/f.tar.gz", "f.tar|gz"), std::pair("/d/.rc", ".rc|")}) {
    EXPECT_EQ(0, NUVSysPath(path).split(parent, base, ext));
    EXPECT_EQ(want, utf8(base) + "|" + utf8(ext));
  }
  EXPECT_EQ(E_FAIL, NUVSysPath().split(parent, base));
  EXPECT_TRUE(NUVSysPath("/a/b").GetParent() == "/a");
  EXPECT_EQ("b", utf8(NUVSysPath("/a/b").GetName()));
}

TEST(NUVSysPath, FileSystemChangesAndTheStatusCache) {
  TempDir dir;
  NUVSysPath file = dir.in("f");
  EXPECT_FALSE(file.Exists(1));
  touch(file.GetUTF8());
  {
    Fault<&SysCalls::stat64> stats;  // counts only
    EXPECT_TRUE(file.IsFile(1));
    EXPECT_TRUE(file.IsFile(0));
    EXPECT_FALSE(file.IsDirectory(0));
    EXPECT_EQ(1, stats.calls());
    NUVSysPath copy(file);  // a copy carries the record and answers from it
    EXPECT_TRUE(copy.IsFile(0));
    EXPECT_EQ(1, stats.calls());
    ASSERT_EQ(0, ::unlink(file.GetUTF8()));
    EXPECT_TRUE(file.IsFile(0)) << "intended: the cached record answers";
    EXPECT_FALSE(file.IsFile(1));
    EXPECT_EQ(2, stats.calls());
  }
  struct stat64 st;
  EXPECT_EQ(kNotFound, file.Stat(st, 1));

  NUVSysPath deep = dir.in("x/y/z");
  EXPECT_EQ(0, deep.MakeDir());
  EXPECT_EQ(0, deep.MakeDir());
  EXPECT_TRUE(deep.IsDirectory(1));
  file = dir.in("x/y/z/f");
  touch(file.GetUTF8());
  EXPECT_EQ(0, file.SetTimes(1000, 2000));
  time_t a = 0, m = 0;
  EXPECT_EQ(0, file.GetTimes(a, m));
  EXPECT_EQ(std::make_pair(time_t{1000}, time_t{2000}), std::make_pair(a, m));
  EXPECT_EQ(0, file.Chmod(0600));
  NUVSysPath moved = dir.in("moved");
  EXPECT_EQ(0, file.Move(moved));
  EXPECT_TRUE(moved.IsFile(1));
  // A link out of the tree is removed as a link; its target survives.
  NUVSysPath outside = dir.in("outside");
  ASSERT_EQ(0, outside.MakeDir());
  ASSERT_EQ(0, ::symlink(outside.GetUTF8(), (dir.path + "/x/y/link").c_str()));
  NUVSysPath x = dir.in("x");
  EXPECT_NE(0, x.Remove(0));  // not empty
  EXPECT_EQ(0, x.Remove(1));
  EXPECT_FALSE(x.Exists(1));
  EXPECT_TRUE(outside.IsDirectory(1));
  EXPECT_EQ(0, moved.Remove());
  EXPECT_EQ(kNotFound, moved.Remove());
}

TEST(NUVSysPath, TemporaryNamesAndFiles) {
  NUVSysPath name;
  ASSERT_EQ(0, NUVSysPath::GetTempFilePath(name, "job"));
  const std::string text = name.GetUTF8();
  ASSERT_EQ(std::string("/tmp/job_").size() + 6, text.size());
  EXPECT_EQ("/tmp/job_", text.substr(0, 9));
  EXPECT_EQ(std::string::npos, text.find("XXXXXX"));
  int fd = -1;
  ASSERT_EQ(0, NUVSysPath::CreateTempFile(name, fd, std::string(300, 'p').c_str()));
  EXPECT_GE(fd, 0);
  EXPECT_TRUE(name.IsFile(1));
  EXPECT_EQ(std::string("/tmp/_").size() + 6, std::string(name.GetUTF8()).size());  // prefix too long: left out
  ::close(fd);
  EXPECT_EQ(0, name.Remove());
}

TEST(NUVSysPath, WebAddressesAndLogicalNames) {
  struct Case { const char* text; bool readable; };
  const Case kCases[] = {
      {"http://h", true},        {"https://u@h:8080/p?q#f", true}, {"http://[::1]:80/", true},
      {"http://h:/", false},     {"http://h:65536", false},        {"http://@/x", false},
      {"http://h/%zz", false},   {"http:///x", false},             {"http://h/%7E", true},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.text);
    NUVSysPath p(c.text);
    ASSERT_TRUE(p.IsValid());
    EXPECT_EQ(c.readable, p.CanRead());
    EXPECT_FALSE(p.CanWrite());
  }
  TempDir dir;
  const char* kLogical = "\x01\x02\\NUVSysPathTestRoot/sub";
  setEnv("NUVSysPathTestRoot", dir.path.c_str());
  NUVSysPath logical(kLogical);
  ASSERT_TRUE(logical.IsValid());
  EXPECT_EQ(0, logical.MakeDir());
  EXPECT_TRUE(dir.in("sub").IsDirectory(1));
  const NUVSysPath copied(logical);  // the resolved name comes along
  ASSERT_NE(nullptr, copied.GetImpl()->fsPath());
  EXPECT_STREQ(logical.GetImpl()->fsPath(), copied.GetImpl()->fsPath());
  EXPECT_NE(logical.GetImpl()->fsPath(), copied.GetImpl()->fsPath()) << "a copy owns its own text";
  EXPECT_EQ(logical.GetTypeMask(), copied.GetTypeMask());
  const NUVSysPath refused("http://");  // a failed path's copy keeps its flags
  EXPECT_EQ(refused.GetTypeMask(), NUVSysPath(refused).GetTypeMask());
  EXPECT_FALSE(NUVSysPath(refused).IsValid());
  setEnv("NUVSysPathTestRoot", nullptr);
  NUVSysPath unset(kLogical);
  EXPECT_TRUE(unset.IsValid());
  EXPECT_FALSE(unset.Exists(1));
  EXPECT_EQ(E_FAIL, unset.MakeDir());
}

TEST(NUVSysPath, DirectoryCachesAndUtilities) {
  char* slot = nullptr;
  struct Case { const char* in; const char* out; };
  const Case kSlots[] = {{"/a/b///", "/a/b"}, {"///", "/"}, {"/a/b", "/a/b"}, {"a/", "a"}};
  for (const Case& c : kSlots) {
    SCOPED_TRACE(c.in);
    EXPECT_EQ(0, NUVSysPathImplSetDirectoryPathA(&slot, c.in));
    EXPECT_STREQ(c.out, slot);
  }
  std::free(slot);
  const unsigned short src[] = {'a', '\\', '\\', '\\', 'b', '\\', 0};
  unsigned short out[8];
  int len = -1;
  EXPECT_EQ(0, StripMultileBackSlash(out, src, len));
  EXPECT_EQ(4, len);
  EXPECT_EQ(std::u16string(u"a\\b\\"), std::u16string(reinterpret_cast<char16_t*>(out)));
  for (int e : {0, 1, 2, 13, 0xFFFF}) EXPECT_EQ(SystemTSResultFromErrno(e), NUVConvertError(e, 7));
  EXPECT_EQ(static_cast<int>(0x80040002u), NUVConvertError(2, 4));
}

TEST(NUVSysPathFaults, CallFailuresAreConverted) {
  constexpr int kEIO = static_cast<int>(0x80070005u), kEACCES = static_cast<int>(0x8007000Du),
                kEBUSY = static_cast<int>(0x80070010u), kEEXIST = static_cast<int>(0x80070011u);
  constexpr long kAlways = Fault<&SysCalls::mkdir>::kAlways;
  TempDir dir;
  // A small tree for each case: t/f, t/s/g.
  auto makeTree = [&] {
    for (const char* d : {"t", "t/s"}) ::mkdir((dir.path + "/" + d).c_str(), 0755);
    for (const char* f : {"t/f", "t/s/g"}) touch(dir.path + "/" + f);
  };
  auto removeT = [&] { return dir.in("t").Remove(1); };
  auto file = [&] { return dir.in("t/f"); };
  NUVSysPath name;
  int fd = 0;
  struct stat64 st;
  struct Case { const char* label; std::function<int()> run; int expected; };
  const Case kCases[] = {
      {"mktemp", [&] { Fault<&SysCalls::mktemp> f(EINVAL, nullptr); return NUVSysPath::GetTempFilePath(name, "job"); },
       static_cast<int>(0x80070016u)},
      {"mkstemp", [&] { Fault<&SysCalls::mkstemp> f(EACCES, -1); return NUVSysPath::CreateTempFile(name, fd); },
       kEACCES},
      {"stat64", [&] { Fault<&SysCalls::stat64> f(EIO, -1); return file().Stat(st, 1); }, kEIO},
      {"access read", [&] { Fault<&SysCalls::access> f(EACCES, -1); return int(file().CanRead()); }, 0},
      {"access write", [&] { Fault<&SysCalls::access> f(EACCES, -1); return int(file().CanWrite()); }, 0},
      {"utime", [&] { Fault<&SysCalls::utime> f(EACCES, -1); return file().SetTimes(1, 2); }, kEACCES},
      {"chmod", [&] { Fault<&SysCalls::chmod> f(EACCES, -1); return file().Chmod(0600); }, kEACCES},
      {"rename", [&] { Fault<&SysCalls::rename> f(EACCES, -1); return file().Move(NUVSysPath("/tmp/x")); }, kEACCES},
      {"lstat64 of the removed path", [&] { Fault<&SysCalls::lstat64> f(EIO, -1); return removeT(); }, kEIO},
      {"unlink of a file", [&] { Fault<&SysCalls::unlink> f(EBUSY, -1); return file().Remove(); }, kEBUSY},
      // A file that cannot be looked at is not removed as one.
      {"stat64 before unlink", [&] { Fault<&SysCalls::stat64> f(EIO, -1); return file().Remove(); }, E_FAIL},
      {"rmdir", [&] { Fault<&SysCalls::rmdir> f(EBUSY, -1); return dir.in("t/s").Remove(1); }, kEBUSY},
      {"rmdir, not recursive", [&] {
         ::unlink((dir.path + "/t/s/g").c_str());
         Fault<&SysCalls::rmdir> f(EBUSY, -1);
         return dir.in("t/s").Remove(0);
       }, kEBUSY},
      {"opendir in the tree", [&] { Fault<&SysCalls::opendir> f(EACCES, nullptr, /*nth=*/2); return removeT(); },
       kEACCES},
      {"readdir in the tree", [&] { Fault<&SysCalls::readdir> f(EIO, nullptr); return removeT(); }, kEIO},
      {"unlink in the tree", [&] { Fault<&SysCalls::unlink> f(EBUSY, -1); return removeT(); }, kEBUSY},
      {"lstat64 of an entry of unknown type",
       [&] { Fault<&SysCalls::lstat64> f(EIO, -1, /*nth=*/2); return untyped(removeT); }, kEIO},
      {"mkdir", [&] { Fault<&SysCalls::mkdir> f(EACCES, -1); return dir.in("n").MakeDir(); }, kEACCES},
      {"mkdir of a parent", [&] { Fault<&SysCalls::mkdir> f(EACCES, -1, 2, kAlways); return dir.in("n/m").MakeDir(); },
       kEACCES},
      {"exists, but not as a directory",
       [&] { Fault<&SysCalls::mkdir> f(EEXIST, -1, 1, kAlways); return dir.in("n").MakeDir(); }, kEEXIST},
      {"mkdir after its parents", [&] {
         const long calls = [&] { Fault<&SysCalls::mkdir> count; dir.in("p/q").MakeDir(); return count.calls(); }();
         dir.in("p").Remove(1);
         Fault<&SysCalls::mkdir> f(EACCES, -1, /*nth=*/calls);
         return dir.in("p/q").MakeDir();
       }, kEACCES},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.label);
    makeTree();
    EXPECT_EQ(c.expected, c.run());
    removeT();
  }
  EXPECT_EQ(-1, fd);  // from the failed mkstemp
  // With that readdir and no failure, the tree still goes: entries of unknown
  // type are looked at with lstat, and directories among them entered.
  makeTree();
  EXPECT_EQ(0, untyped(removeT));
  EXPECT_FALSE(dir.in("t").Exists(1));
}
