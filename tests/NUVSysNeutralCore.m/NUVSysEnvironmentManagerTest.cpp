// The environment manager: precedence, the one-array look-up, registration
// and expansion of tags (with their log lines), argument suites, and the
// string replacement. Random lines against a model are the fuzz targets'.
#include "NUVSysEnvironmentManager.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "FaultInjection.h"
#include "NUVSysTrace.h"

namespace {

using systemts::detail::SysCalls;
using Lines = std::vector<std::string>;

// A manager whose arrays are filled from lists of lines: 0 official,
// 1 static, 2 dynamic.
struct Filled {
  NUVSysEnvironmentManager m;
  void fill(int which, const Lines& lines) {
    const int n = static_cast<int>(lines.size());
    ASSERT_EQ(0, which == 0 ? m.BuildOfficialEnviron(n) : which == 1 ? m.BuildStaticEnviron(n) : m.BuildDynamicEnviron(n));
    char** a = which == 0 ? m.GetOfficialEnviron() : which == 1 ? m.GetStaticEnviron() : m.GetDynamicEnviron();
    for (int i = 0; i < n; ++i) ASSERT_EQ(0, m.BuildEnvironString(&a[i], lines[i].c_str()));
  }
  std::string get(const char* name) {
    const char* v = m.GetEnv(name);
    return v ? v : "<null>";
  }
};

// The information lines of the trace "LifeCycle" written while `f` ran.
template <class F>
Lines logged(F f) {
  EXPECT_EQ(0, NUVSysTraceConfigure__("--name LifeCycle --level info --sink memory"));
  const size_t before = NUVSysTraceReadMemory__(nullptr, 0);
  f();
  std::string all(NUVSysTraceReadMemory__(nullptr, 0) + 1, '\0');
  all.resize(NUVSysTraceReadMemory__(all.data(), all.size()));
  EXPECT_EQ(0, NUVSysTraceConfigure__(nullptr));
  Lines lines;
  for (size_t at = before, end; at < all.size(); at = end + 1) {
    if ((end = all.find('\n', at)) == std::string::npos) end = all.size();
    const size_t msg = all.find("LifeCycle INFO: ", at);
    if (msg < end) lines.push_back(all.substr(msg + 16, end - msg - 16));
  }
  return lines;
}

TEST(NUVSysEnvironmentManager, PrecedenceTableOfficialStaticDynamic) {
  Filled f;
  f.fill(2, {"A=dyn", "D=dyn"});
  f.fill(1, {"A=sta", "S=sta", "D=sta"});
  f.fill(0, {"A=off", "O=off"});
  for (auto [name, want] : {std::pair{"A", "off"}, {"S", "sta"}, {"D", "sta"}, {"O", "off"}}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(want, f.get(name));
  }
  // The table goes over all three arrays.
  ASSERT_EQ(0, f.m.PutEnvInTable("A", "tab"));
  ASSERT_EQ(0, f.m.PutEnvInTable("D", "tab"));
  EXPECT_EQ("tab", f.get("A"));
  EXPECT_EQ("tab", f.get("D"));
  EXPECT_STREQ("off", f.m.GetOfficialEnv("A"));
  EXPECT_EQ(nullptr, f.m.GetOfficialEnv("S"));
  EXPECT_EQ(0, f.m.ReplaceEnvInTable("A", "tab2"));
  EXPECT_EQ("tab2", f.get("A"));
  EXPECT_EQ(-1, f.m.ReplaceEnvInTable("absent", "x"));
}

TEST(NUVSysEnvironmentManager, OneArrayLookUpRule) {
  Filled f;
  f.fill(2, {"AB=1", "NOEQUALS", "=empty", "a=lower", "A=first", "A=second", "B==x", "C="});
  const std::pair<const char*, const char*> kCases[] = {{"A", "first"}, {"AB", "1"}, {"a", "lower"},
      {"NOEQUALS", "<null>"}, {"", "<null>"}, {"B", "=x"}, {"C", ""}, {"ABC", "<null>"}};
  for (auto [name, want] : kCases) {
    SCOPED_TRACE(name);
    EXPECT_EQ(want, f.get(name));
  }
  EXPECT_EQ(nullptr, f.m.GetEnv(nullptr));
  // The value points into the stored line, not at a copy.
  EXPECT_EQ(f.m.GetDynamicEnviron()[4] + 2, f.m.GetEnv("A"));
}

TEST(NUVSysEnvironmentManager, ExpansionExamples) {
  const struct { Lines official, dynamic; const char* name; const char* want; } kCases[] = {
      {{"ROOT=/data"}, {"LIB=${ROOT}/lib:${ROOT}/x"}, "LIB", "/data/lib:/data/x"},
      {{"ROOT=/data"}, {"LIB=${UNSET}/lib"}, "LIB", "${UNSET}/lib"},
      // The value holds the tag it replaces: inserted once, never again.
      {{"P=${P}:/bin"}, {"Q=${P}"}, "Q", "${P}:/bin"},
      // A value that lives in a line the same tag replaces stays intact.
      {{"A=v${A}w"}, {}, "A", "vv${A}ww"},
      // Two tags in one line, each replaced once; the second registration
      // of the line is skipped after the first replacement (ASan watches).
      {{"X=${Y}y", "Y=1"}, {"L=${X}-${Y}"}, "L", "1y-1"},
      {{"X=${Y}y", "Y=1"}, {"L=${Y}-${X}"}, "L", "1-1y"},
      {{"E="}, {"L=a${E}b${E}c"}, "L", "abc"},
      {{}, {"L=${}"}, "L", "${}"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.want);
    Filled f;
    f.fill(0, c.official);
    f.fill(2, c.dynamic);
    EXPECT_EQ(0, f.m.ExpandAllEnvironStrings());
    EXPECT_EQ(c.want, f.get(c.name));
  }
  // A registered line freed by rebuilding its array is skipped.
  Filled f;
  f.fill(0, {"R=/r"});
  f.fill(2, {"A=${R}"});
  f.fill(2, {"B=${R}x"});
  EXPECT_EQ(0, f.m.ExpandAllEnvironStrings());
  EXPECT_EQ("/rx", f.get("B"));
  EXPECT_EQ("<null>", f.get("A"));
}

TEST(NUVSysEnvironmentManager, RegistrationAndExpansionLogLines) {
  const Lines lines = logged([] {
    Filled f;
    f.fill(0, {"ROOT=/d"});
    f.fill(2, {"LIB=${ROOT}/l"});
    f.m.ExpandAllEnvironStrings();
  });
  EXPECT_EQ((Lines{"l_pTag=='${ROOT}', ipStringAddr=='LIB=${ROOT}/l'",
                   "l_pExpandableStr=='${ROOT}', l_pTagAsString=='ROOT'", "\tl_pEnvSet='/d'",
                   "*l_pEnvLine=='LIB=/d/l'"}),
            lines);
}

// Tags up to 8192 bytes are registered whole, longer ones cut to 8191;
// only tags up to 8191 bytes are expanded.
TEST(NUVSysEnvironmentManager, LongTags) {
  for (size_t len : {8191u, 8192u, 8193u}) {
    SCOPED_TRACE(len);
    const std::string name(len - 3, 'N'), tag = "${" + name + "}";
    std::string got;
    const Lines log = logged([&] {
      Filled f;
      f.fill(2, {"L=" + tag});
      ASSERT_EQ(0, f.m.PutEnvInTable(name.c_str(), "v"));
      f.m.ExpandAllEnvironStrings();
      got = f.get("L");
    });
    ASSERT_FALSE(log.empty());
    EXPECT_EQ("l_pTag=='" + (len >= 8193 ? tag.substr(0, 8191) : tag) + "', ipStringAddr=='L=" + tag + "'", log[0]);
    EXPECT_EQ(len == 8191 ? "v" : tag, got);
  }
  // Intended: the cut tag names the name without its last two bytes, and is
  // expanded when that shorter name is set (its first 8191 bytes replaced).
  Filled f;
  const std::string name(8190, 'N');
  f.fill(2, {"L=${" + name + "}"});
  ASSERT_EQ(0, f.m.PutEnvInTable(name.substr(0, 8188).c_str(), "v"));
  f.m.ExpandAllEnvironStrings();
  EXPECT_EQ("vN}", f.get("L"));
}

TEST(NUVSysEnvironmentManager, BuildingSlots) {
  NUVSysEnvironmentManager m;
  EXPECT_EQ(-1, m.BuildDynamicEnviron(-1));
  ASSERT_EQ(0, m.BuildDynamicEnviron(3));
  char** a = m.GetDynamicEnviron();
  EXPECT_EQ(nullptr, a[3]);
  ASSERT_EQ(0, m.BuildEnvironString(&a[0], "A=1"));
  EXPECT_EQ(-1, m.BuildEnvironString(&a[0], L"A=2", 3));  // wide text: always fails, slot emptied
  EXPECT_EQ(-1, m.BuildEnvironString(&a[1], nullptr));  // null text: slot null, registration fails
  EXPECT_TRUE(a[0] == nullptr && a[1] == nullptr);
  EXPECT_EQ(-1, m.BuildEnvironString(nullptr, "A=1"));
  EXPECT_EQ(0, m.BuildArgumentString(&a[2], "B=${NOT_A_TAG"));  // no registration, returns
  EXPECT_STREQ("B=${NOT_A_TAG", a[2]);
  EXPECT_EQ(-1, m.BuildEnvironExpandableString(nullptr));
  EXPECT_EQ(0, m.ExpandAllEnvironStrings());  // nothing registered
  // Rebuilding the static array keeps the old lines readable, unused.
  ASSERT_EQ(0, m.BuildStaticEnviron(1));
  ASSERT_EQ(0, m.BuildEnvironString(&m.GetStaticEnviron()[0], "S=old"));
  const char* old = m.GetEnv("S");
  ASSERT_EQ(0, m.BuildStaticEnviron(1));
  EXPECT_EQ(nullptr, m.GetEnv("S"));
  EXPECT_STREQ("old", old);
}

TEST(NUVSysEnvironmentManager, ArgumentSuites) {
  NUVSysEnvironmentManager m;
  EXPECT_EQ(nullptr, m.GetMainFirst());
  char a0[] = "prog", a1[] = "-x";
  char* argv[] = {a0, a1, nullptr};
  EXPECT_EQ(-1, m.AddMain(nullptr, 1));
  EXPECT_EQ(-1, m.AddMain(argv, 0));
  ASSERT_EQ(0, m.AddMain(argv, 2));
  ASSERT_EQ(0, m.AddMain("tool \"a b\" c"));
  const NUVSysEnvironArgumentSuite* s = m.GetMainFirst();
  ASSERT_NE(nullptr, s);
  EXPECT_NE(a0, s->argv[0]);  // a copy
  EXPECT_STREQ("prog", s->current);
  EXPECT_EQ(std::make_tuple(2, s->argv[0], static_cast<char*>(nullptr), -1),
            std::make_tuple(s->count, s->first, s->argv[2], s->position));
  ASSERT_NE(nullptr, s = m.GetMainNext());
  ASSERT_EQ(3, s->count);
  EXPECT_STREQ("a b", s->argv[1]);
  EXPECT_EQ(nullptr, m.GetMainNext());
  EXPECT_EQ(0, m.AddMain(static_cast<const char*>(nullptr)));
  EXPECT_EQ(nullptr, m.GetMainFirst());
  char** out = nullptr;
  EXPECT_EQ(-1, m.BuildArgumentArrayA(0, &out));
  ASSERT_EQ(0, m.BuildArgumentArrayA(2, &out));
  EXPECT_TRUE(out[0] == nullptr && out[1] == nullptr && out[2] == nullptr);
  std::free(out);
}

TEST(NUVSysEnvironStringReplaceA, Cases) {
  const struct { const char *text, *search, *replacement, *want; } kCases[] = {
      {"a${X}b${X}", "${X}", "1", "a1b1"},
      {"${X}", "${X}", "${X}${X}", "${X}${X}"},  // brought-in text is not rescanned
      {"aaa", "aa", "b", "ba"}, {"none", "${X}", "1", "none"}, {"abc", "", "1", "abc"}, {"xx", "x", "", ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    char* s = strdup(c.text);
    char* r = NUVSysEnvironStringReplaceA(s, c.search, c.replacement);
    EXPECT_STREQ(c.want, r);
    EXPECT_TRUE(std::strcmp(c.text, c.want) != 0 || s == r);  // unchanged: the same string
    std::free(r);
  }
  char* s = strdup("x");
  EXPECT_EQ(s, NUVSysEnvironStringReplaceA(s, nullptr, "y"));
  EXPECT_EQ(s, NUVSysEnvironStringReplaceA(s, "x", nullptr));
  std::free(s);
  EXPECT_EQ(nullptr, NUVSysEnvironStringReplaceA(nullptr, "x", "y"));
}

TEST(NUVSysEnvironmentManagerFaults, AllocationFailures) {
  // Runs `f` with the nth malloc from now failing.
  const auto mallocFails = [](long nth, auto f) {
    Fault<&SysCalls::malloc> fault(ENOMEM, nullptr, nth);
    f();
  };
  NUVSysEnvironmentManager m;
  {
    Fault<&SysCalls::calloc> f(ENOMEM, nullptr, 1, Fault<&SysCalls::calloc>::kAlways);
    EXPECT_EQ(-1, m.BuildDynamicEnviron(2));
    EXPECT_EQ(nullptr, m.GetDynamicEnviron());
    EXPECT_EQ(-1, m.BuildOfficialEnviron(2));
  }
  ASSERT_EQ(0, m.BuildOfficialEnviron(1));
  ASSERT_EQ(0, m.BuildDynamicEnviron(1));
  char** slot = &m.GetDynamicEnviron()[0];
  mallocFails(1, [&] { EXPECT_EQ(-1, m.BuildEnvironString(slot, "A=${R}")); });  // the line copy
  EXPECT_EQ(nullptr, *slot);
  ASSERT_EQ(0, m.BuildEnvironString(&m.GetOfficialEnviron()[0], "R=1"));
  mallocFails(2, [&] { EXPECT_EQ(-1, m.BuildEnvironString(slot, "A=${R}")); });  // the tag copy
  ASSERT_EQ(0, m.BuildEnvironString(slot, "A=${R}${R}"));
  mallocFails(1, [&] { EXPECT_EQ(-1, m.ExpandAllEnvironStrings()); });  // the line copy
  EXPECT_STREQ("A=${R}${R}", *slot);
  // The replacement's own allocation fails: the line keeps its text.
  mallocFails(2, [&] { EXPECT_EQ(0, m.ExpandAllEnvironStrings()); });
  EXPECT_STREQ("A=${R}${R}", *slot);
  // Expansion is done once: the registered line has been replaced.
  EXPECT_EQ(0, m.ExpandAllEnvironStrings());
  EXPECT_STREQ("A=${R}${R}", *slot);
  ASSERT_EQ(0, m.BuildEnvironString(slot, "A=${R}${R}"));
  EXPECT_EQ(0, m.ExpandAllEnvironStrings());
  EXPECT_STREQ("A=11", *slot);
  char* s = strdup("a-b-c");
  mallocFails(2, [&] { s = NUVSysEnvironStringReplaceA(s, "-", "+"); });
  EXPECT_STREQ("a+b-c", s);  // replaced so far, nothing lost
  std::free(s);
}

}  // namespace
