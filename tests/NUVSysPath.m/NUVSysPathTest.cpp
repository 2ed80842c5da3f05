#include "NUVSysPath.h"

#include <gtest/gtest.h>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "FaultInjection.h"
#include "NUVSysPathImpl.h"
#include "PathModels.h"
#include "PathText.h"
#include "TestSupport.h"

using systemts::detail::SysCalls;
using systemts::test::g_plainReaddir;
using systemts::test::normpathModel;
using systemts::test::readdirWithoutType;

namespace {
constexpr int kNotFound = static_cast<int>(0x80070002u);

std::string utf8(const KELUnicodeString& s) { return s.ConvertToUTF8(); }


struct TempDir {
  std::string path;
  TempDir() {
    char name[] = "/tmp/nuvsyspath_XXXXXX";
    path = ::mkdtemp(name);
  }
  ~TempDir() { NUVSysPath(path.c_str()).Remove(1); }
};
}  // namespace

TEST(NUVSysPath, TypeDetectionAndChecks) {
  struct Case { std::string text; int rc; uint32_t type; const char* stored; };
  const std::string web1025 = "http://h/" + std::string(1025 - 9, 'a');
  const Case kCases[] = {
      {"/", 0, NUVSysPathImpl::kAbsolute, "/"},
      {"a/", 0, NUVSysPathImpl::kRelative, "a"},
      {"a//", 0, NUVSysPathImpl::kRelative, "a/"},  // one final "/" only
      {"/usr/lib/", 0, NUVSysPathImpl::kAbsolute, "/usr/lib"},
      {"http://", E_FAIL, NUVSysPathImpl::kInvalid, ""},
      {"https://", E_FAIL, NUVSysPathImpl::kInvalid, ""},
      {"http://h/~user", E_FAIL, NUVSysPathImpl::kInvalid, ""},  // kept: 0x7E refused
      {"http://h/}", 0, NUVSysPathImpl::kHttp, "http://h/}"},
      {"https://h/x/", 0, NUVSysPathImpl::kHttps, "https://h/x"},
      {"http:/h", 0, NUVSysPathImpl::kRelative, "http:/h"},
      {std::string("\x01\x02\\N/a", 6), 0, NUVSysPathImpl::kLogical, "\x01\x02\\N/a"},
      {std::string("\x01\x02\\", 3), E_FAIL, NUVSysPathImpl::kInvalid, ""},
      {"", E_FAIL, NUVSysPathImpl::kInvalid, ""},
      {std::string(1024, 'a'), 0, NUVSysPathImpl::kRelative, nullptr},
      {std::string(1025, 'a'), E_FAIL, NUVSysPathImpl::kInvalid, ""},
      {"/" + std::string(1024, 'a'), E_FAIL, NUVSysPathImpl::kInvalid, ""},
      {web1025, 0, NUVSysPathImpl::kHttp, nullptr},
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
}

TEST(NUVSysPath, EveryByteAfterAWebPrefix) {
  for (int b = 1; b < 256; ++b) {
    SCOPED_TRACE(b);
    for (const char* prefix : {"http://h/", "https://h/"}) {
      std::string text = std::string(prefix) + static_cast<char>(b) + "x";
      const bool ok = b >= 0x20 && b <= 0x7D;
      NUVSysPath p(text.c_str());
      EXPECT_EQ(ok, p.IsValid());
      // The same byte in a plain path is always taken.
      EXPECT_TRUE(NUVSysPath((std::string("/d/") + static_cast<char>(b)).c_str()).IsValid());
    }
  }
}

TEST(NUVSysPath, BuildFromUtf16AndStringsAgree) {
  const KELUnicodeString text = KELUnicodeString::FromUTF8("/d\xC3\xA9j\xC3\xA0/\xE6\x97\xA5/");
  NUVSysPath a(text), b(text.ConvertToUCChar()), c("/d\xC3\xA9j\xC3\xA0/\xE6\x97\xA5");
  KELSysTSUnicodeString ts(text);
  NUVSysPath d(ts);
  EXPECT_TRUE(a == c);
  EXPECT_TRUE(b == c);
  EXPECT_TRUE(d == c);
  EXPECT_TRUE("/d\xC3\xA9j\xC3\xA0/\xE6\x97\xA5" == a);
  EXPECT_FALSE(text.ConvertToUCChar() == a);  // the final "/" was dropped when building
  EXPECT_TRUE(c.GetAsString().ConvertToUCChar() == a);
  NUVSysPath moved(std::move(a));
  EXPECT_FALSE(a.IsValid());
  EXPECT_TRUE(moved == c);
}

TEST(NUVSysPath, Joining) {
  struct Case { const char* base; const char* component; int rc; const char* result; };
  const Case kCases[] = {
      {"a", ".", 0, "a"},          {"a", "b/", 0, "a/b"},       {"a", "/b/", 0, "a/b"},
      {"/", "b", 0, "/b"},         {"a", "", 0, "a"},           {"a", "..", 0, "."},
      {"/a", "../..", 0, "/"},     {"a", "../..", 0, ".."},     {"a//b", "c", 0, "a/b/c"},
      {"http://h", "x", 0, "http://h/x"},                       {"http://h/a", "../../b", 0, "http://h/b"},
      {"https://h//a", "./b", 0, "https://h/a/b"},              {"a", "~", 0, "a/~"},
      {"http://h", "~", E_FAIL, "http://h"},                    {"a", "b/../c//d", 0, "a/c/d"},
      {"http://h//a", "~", E_FAIL, "http://h//a"},  // refused: the uncleaned text is kept whole
      {"x", "../\x01\x02\\N", E_FAIL, "x"},      // would turn into a logical name
      {"x", "../http://h", 0, "http:/h"},          // still relative text
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(std::string(c.base) + " + " + c.component);
    NUVSysPath p(c.base);
    EXPECT_EQ(c.rc, p.Append(c.component));
    EXPECT_STREQ(c.result, p.GetUTF8());
  }
  NUVSysPath p("a");
  EXPECT_EQ(E_FAIL, p.Append(std::string(1025, 'x').c_str()));
  EXPECT_EQ(0, p.Append(std::string(1022, 'x').c_str()));          // 1024 bytes in all
  EXPECT_EQ(E_FAIL, p.Append("y"));                                // 1026: refused, unchanged
  EXPECT_EQ(1024u, std::string(p.GetUTF8()).size());
  EXPECT_EQ(E_FAIL, NUVSysPath().Append("x"));
  NUVSysPath self(("d" + std::string(80, 'x')).c_str());  // joined to itself, past the buffer's first size
  EXPECT_EQ(0, self.Append(self));
  EXPECT_EQ("d" + std::string(80, 'x') + "/d" + std::string(80, 'x'), std::string(self.GetUTF8()));
  int rc = -1;
  EXPECT_TRUE(NUVSysPath("/a").Add(KELUnicodeString::FromUTF8("b"), &rc) == "/a/b");
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
    EXPECT_EQ(normpathModel(text), buf);
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
    if (c.getRc == 0) {
      EXPECT_EQ(c.ext, utf8(ext));
    }
    EXPECT_EQ(c.remRc, p.RemExtension());
    EXPECT_STREQ(c.removed, p.GetUTF8());
  }
  NUVSysPath p("a/b");
  EXPECT_EQ(0, p.AddExtension(KELUnicodeString::FromUTF8("txt")));
  EXPECT_EQ(0, p.AddExtension(KELUnicodeString::FromUTF8(".gz")));
  EXPECT_TRUE(p == "a/b.txt.gz");
  EXPECT_EQ(E_FAIL, p.RemExtension(KELUnicodeString::FromUTF8("txt")));
  EXPECT_EQ(0, p.RemExtension(KELUnicodeString::FromUTF8("gz")));
  EXPECT_EQ(0, p.RemExtension(KELUnicodeString::FromUTF8(".txt")));
  EXPECT_TRUE(p == "a/b");
  EXPECT_EQ(E_FAIL, NUVSysPath("/").AddExtension(KELUnicodeString::FromUTF8("x")));
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
    NUVSysPath p(c.path), parent("untouched");
    KELUnicodeString name;
    EXPECT_EQ(c.rc, p.split(parent, name));
    EXPECT_STREQ(c.parent, parent.GetUTF8());
    EXPECT_EQ(c.name, utf8(name));
    // A parent that holds nothing yet gets the same answers, and stays
    // empty when there is no parent to give.
    NUVSysPath fresh;
    KELUnicodeString again;
    EXPECT_EQ(c.rc, p.split(fresh, again));
    EXPECT_EQ(c.name, utf8(again));
    if (c.rc == 0) {
      EXPECT_STREQ(c.parent, fresh.GetUTF8());
      EXPECT_EQ(NUVSysPath(c.parent).GetTypeMask(), fresh.GetTypeMask());
    } else {
      EXPECT_FALSE(fresh.IsValid());
      EXPECT_STREQ("", fresh.GetUTF8());
    }
  }
  NUVSysPath parent;
  KELUnicodeString base, ext;
  EXPECT_EQ(0, NUVSysPath("/d/f.tar.gz").split(parent, base, ext));
  EXPECT_EQ("f.tar", utf8(base));
  EXPECT_EQ("gz", utf8(ext));
  EXPECT_EQ(0, NUVSysPath("/d/.rc").split(parent, base, ext));
  EXPECT_EQ(".rc", utf8(base));
  EXPECT_TRUE(ext.IsNull() || ext.GetLengthInChar() == 0);
  EXPECT_EQ(E_FAIL, NUVSysPath().split(parent, base));
  EXPECT_TRUE(NUVSysPath("/a/b").GetParent() == "/a");
  EXPECT_EQ("b", utf8(NUVSysPath("/a/b").GetName()));
}

TEST(NUVSysPath, StatusCacheIsRefreshedOnlyWhenAsked) {
  TempDir dir;
  NUVSysPath file((dir.path + "/f").c_str());
  EXPECT_FALSE(file.Exists(1));
  FILE* f = std::fopen(file.GetUTF8(), "w");
  ASSERT_NE(nullptr, f);
  std::fclose(f);
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
  struct stat64 st;
  EXPECT_EQ(kNotFound, file.Stat(st, 1));
}

TEST(NUVSysPath, FileSystemChanges) {
  TempDir dir;
  NUVSysPath deep((dir.path + "/x/y/z").c_str());
  EXPECT_EQ(0, deep.MakeDir());
  EXPECT_EQ(0, deep.MakeDir());
  EXPECT_TRUE(deep.IsDirectory(1));
  NUVSysPath file((dir.path + "/x/y/z/f").c_str());
  FILE* f = std::fopen(file.GetUTF8(), "w");
  std::fclose(f);
  EXPECT_EQ(0, file.SetTimes(1000, 2000));
  time_t a = 0, m = 0;
  EXPECT_EQ(0, file.GetTimes(a, m));
  EXPECT_EQ(1000, a);
  EXPECT_EQ(2000, m);
  EXPECT_EQ(0, file.Chmod(0600));
  NUVSysPath moved((dir.path + "/moved").c_str());
  EXPECT_EQ(0, file.Move(moved));
  EXPECT_TRUE(moved.IsFile(1));
  // A link out of the tree is removed as a link; its target survives.
  NUVSysPath outside((dir.path + "/outside").c_str());
  ASSERT_EQ(0, outside.MakeDir());
  ASSERT_EQ(0, ::symlink(outside.GetUTF8(), (dir.path + "/x/y/link").c_str()));
  NUVSysPath x((dir.path + "/x").c_str());
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
  NUVSysPath made;
  int fd = -1;
  ASSERT_EQ(0, NUVSysPath::CreateTempFile(made, fd, std::string(300, 'p').c_str()));
  EXPECT_GE(fd, 0);
  EXPECT_TRUE(made.IsFile(1));
  EXPECT_EQ(std::string("/tmp/_").size() + 6, std::string(made.GetUTF8()).size());  // prefix too long: left out
  ::close(fd);
  EXPECT_EQ(0, made.Remove());
}

TEST(NUVSysPathFaults, TemporaryNameFailuresAreConverted) {
  NUVSysPath name;
  {
    Fault<&SysCalls::mktemp> f(EINVAL, nullptr);
    EXPECT_EQ(static_cast<int>(0x80070016u), NUVSysPath::GetTempFilePath(name, "job"));
  }
  int fd = 0;
  Fault<&SysCalls::mkstemp> f(EACCES, -1);
  EXPECT_EQ(static_cast<int>(0x8007000Du), NUVSysPath::CreateTempFile(name, fd));
  EXPECT_EQ(-1, fd);
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
  setEnv("NUVSysPathTestRoot", dir.path.c_str());
  NUVSysPath logical(std::string("\x01\x02\\NUVSysPathTestRoot/sub").c_str());
  ASSERT_TRUE(logical.IsValid());
  EXPECT_EQ(0, logical.MakeDir());
  EXPECT_TRUE(NUVSysPath((dir.path + "/sub").c_str()).IsDirectory(1));
  const NUVSysPath copied(logical);  // the resolved name comes along
  ASSERT_NE(nullptr, copied.GetImpl()->fsPath());
  EXPECT_STREQ(logical.GetImpl()->fsPath(), copied.GetImpl()->fsPath());
  EXPECT_NE(logical.GetImpl()->fsPath(), copied.GetImpl()->fsPath()) << "a copy owns its own text";
  EXPECT_EQ(logical.GetTypeMask(), copied.GetTypeMask());
  const NUVSysPath refused("http://");  // a failed path's copy keeps its flags
  EXPECT_EQ(refused.GetTypeMask(), NUVSysPath(refused).GetTypeMask());
  EXPECT_FALSE(NUVSysPath(refused).IsValid());
  setEnv("NUVSysPathTestRoot", nullptr);
  NUVSysPath unset(std::string("\x01\x02\\NUVSysPathTestRoot/sub").c_str());
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
  EXPECT_STREQ("/tmp", NUVSysPathImplGetTemporaryDirectoryPathA());
  EXPECT_EQ(NUVSysPathImplGetTemporaryDirectoryPathA(), NUVSysPathImplGetTemporaryDirectoryPathA());
  const unsigned short src[] = {'a', '\\', '\\', '\\', 'b', '\\', 0};
  unsigned short out[8];
  int len = -1;
  EXPECT_EQ(0, StripMultileBackSlash(out, src, len));
  EXPECT_EQ(4, len);
  EXPECT_EQ(std::u16string(u"a\\b\\"), std::u16string(reinterpret_cast<char16_t*>(out)));
  for (int e : {0, 1, 2, 13, 0xFFFF}) EXPECT_EQ(SystemTSResultFromErrno(e), NUVConvertError(e, 7));
  EXPECT_EQ(static_cast<int>(0x80040002u), NUVConvertError(2, 4));
}


TEST(NUVSysPathFaults, FileSystemCallFailuresAreConverted) {
  constexpr int kEIO = static_cast<int>(0x80070005u), kEACCES = static_cast<int>(0x8007000Du),
                kEBUSY = static_cast<int>(0x80070010u), kEEXIST = static_cast<int>(0x80070011u);
  TempDir dir;
  const std::string root = dir.path;
  auto makeFile = [](const std::string& p) {
    FILE* f = std::fopen(p.c_str(), "w");
    if (f) std::fclose(f);
  };
  // A small tree under root/t for each case: t/f, t/s/g.
  auto makeTree = [&] {
    ::mkdir((root + "/t").c_str(), 0755);
    ::mkdir((root + "/t/s").c_str(), 0755);
    makeFile(root + "/t/f");
    makeFile(root + "/t/s/g");
  };
  auto removeT = [&](int recursive) { return NUVSysPath((root + "/t").c_str()).Remove(recursive); };
  auto file = [&] { return NUVSysPath((root + "/t/f").c_str()); };
  struct stat64 st;
  struct Case { const char* label; std::function<int()> run; int expected; };
  const Case kCases[] = {
      {"stat64", [&] { Fault<&SysCalls::stat64> f(EIO, -1); return file().Stat(st, 1); }, kEIO},
      {"access read", [&] { Fault<&SysCalls::access> f(EACCES, -1); return int(file().CanRead()); }, 0},
      {"access write", [&] { Fault<&SysCalls::access> f(EACCES, -1); return int(file().CanWrite()); }, 0},
      {"utime", [&] { Fault<&SysCalls::utime> f(EACCES, -1); return file().SetTimes(1, 2); }, kEACCES},
      {"chmod", [&] { Fault<&SysCalls::chmod> f(EACCES, -1); return file().Chmod(0600); }, kEACCES},
      {"rename", [&] { Fault<&SysCalls::rename> f(EACCES, -1); return file().Move(NUVSysPath("/tmp/x")); },
       kEACCES},
      {"lstat64 of the removed path", [&] { Fault<&SysCalls::lstat64> f(EIO, -1); return removeT(1); }, kEIO},
      {"unlink of a file",
       [&] { Fault<&SysCalls::unlink> f(EBUSY, -1); return file().Remove(); }, kEBUSY},
      {"stat64 before unlink",  // a file that cannot be looked at is not removed as one
       [&] { Fault<&SysCalls::stat64> f(EIO, -1); return file().Remove(); }, E_FAIL},
      {"rmdir", [&] { Fault<&SysCalls::rmdir> f(EBUSY, -1); return NUVSysPath((root + "/t/s").c_str()).Remove(1); },
       kEBUSY},
      {"rmdir, not recursive", [&] {
         ::unlink((root + "/t/s/g").c_str());
         Fault<&SysCalls::rmdir> f(EBUSY, -1);
         return NUVSysPath((root + "/t/s").c_str()).Remove(0);
       }, kEBUSY},
      {"opendir in the tree", [&] { Fault<&SysCalls::opendir> f(EACCES, nullptr, /*nth=*/2); return removeT(1); },
       kEACCES},
      {"readdir in the tree", [&] { Fault<&SysCalls::readdir> f(EIO, nullptr); return removeT(1); }, kEIO},
      {"unlink in the tree", [&] { Fault<&SysCalls::unlink> f(EBUSY, -1); return removeT(1); }, kEBUSY},
      {"lstat64 of an entry of unknown type", [&] {
         g_plainReaddir = systemts::detail::g_sys.readdir;
         systemts::detail::g_sys.readdir = readdirWithoutType;
         int rc;
         {
           Fault<&SysCalls::lstat64> f(EIO, -1, /*nth=*/2);
           rc = removeT(1);
         }
         systemts::detail::g_sys.readdir = g_plainReaddir;
         return rc;
       }, kEIO},
      {"mkdir", [&] { Fault<&SysCalls::mkdir> f(EACCES, -1); return NUVSysPath((root + "/n").c_str()).MakeDir(); },
       kEACCES},
      {"mkdir of a parent", [&] {
         Fault<&SysCalls::mkdir> f(EACCES, -1, /*nth=*/2, Fault<&SysCalls::mkdir>::kAlways);
         return NUVSysPath((root + "/n/m").c_str()).MakeDir();
       }, kEACCES},
      {"exists, but not as a directory", [&] {
         Fault<&SysCalls::mkdir> f(EEXIST, -1, 1, Fault<&SysCalls::mkdir>::kAlways);
         return NUVSysPath((root + "/n").c_str()).MakeDir();
       }, kEEXIST},
      {"mkdir after its parents", [&] {
         long calls;
         {
           Fault<&SysCalls::mkdir> count;
           NUVSysPath((root + "/p/q").c_str()).MakeDir();
           calls = count.calls();
         }
         NUVSysPath((root + "/p").c_str()).Remove(1);
         Fault<&SysCalls::mkdir> f(EACCES, -1, /*nth=*/calls);
         return NUVSysPath((root + "/p/q").c_str()).MakeDir();
       }, kEACCES},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.label);
    makeTree();
    EXPECT_EQ(c.expected, c.run());
    NUVSysPath((root + "/t").c_str()).Remove(1);
  }
  // With the readdir above and no failure, the tree still goes: entries of
  // unknown type are looked at with lstat, and directories among them entered.
  makeTree();
  g_plainReaddir = systemts::detail::g_sys.readdir;
  systemts::detail::g_sys.readdir = readdirWithoutType;
  EXPECT_EQ(0, removeT(1));
  systemts::detail::g_sys.readdir = g_plainReaddir;
  EXPECT_FALSE(NUVSysPath((root + "/t").c_str()).Exists(1));
}
