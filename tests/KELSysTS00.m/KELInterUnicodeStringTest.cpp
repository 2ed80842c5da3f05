// The string representation: the shared empty string, allocation, the second
// view, the copy-on-write step in its branches, the form changes, Append,
// Pack, Isolate, the hash key, the block pool and the life cycle switches.
// The process code page is UTF-8 here (the test environment sets no locale).
#include "KELInterUnicodeString.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "NUVSysCodePage.h"
#include "NUVSysUCAlgorithm.h"

namespace {

using Rep = KELInterUnicodeString;

Rep* mbcs(const std::string& text) {
  Rep* r = KELInterStringMBCS::Allocate(static_cast<int>(text.size()));
  std::memcpy(r->GetText(), text.data(), text.size());
  return r;
}

Rep* ucs(const std::u16string& text) {
  Rep* r = KELInterStringUCS::Allocate(static_cast<int>(text.size()));
  std::memcpy(r->GetText(), text.data(), 2 * text.size());
  return r;
}

std::u16string units(Rep* r) {
  return std::u16string(reinterpret_cast<const char16_t*>(r->ConvertToUCChar()),
                        static_cast<size_t>(r->GetLengthInChar()));
}

std::string bytes(Rep* r) { return std::string(r->ConvertToChar(), static_cast<size_t>(r->GetLengthInByte())); }

// Turns the pool on for this test's thread and empties it around the test.
struct PoolOn {
  PoolOn() {
    NUVStringPoolFlush();
    NUVStringPoolSetForCurrentThrd(true);
  }
  ~PoolOn() {
    NUVStringPoolFlush();
    NUVStringPoolSetForCurrentThrd(false);
  }
};

TEST(KELInterUnicodeString, EveryEmptyResultIsTheOneEmptyStringAndItsCountNeverMoves) {
  Rep* empty = Rep::_GetEmptyString();
  ASSERT_EQ(empty, Rep::_KELSysEmptyStringPtr);
  EXPECT_FALSE(empty->IsUCS());
  EXPECT_EQ(empty->GetCapacity(), 0);
  EXPECT_EQ(empty->GetPrimaryLength(), 0);
  EXPECT_STREQ(empty->ConvertToChar(), "");
  EXPECT_EQ(empty->ConvertToUCChar()[0], 0);
  Rep* abc = mbcs("abc");
  const std::vector<std::pair<const char*, Rep*>> results = {
      {"MBCS Allocate(0)", KELInterStringMBCS::Allocate(0)},
      {"UCS Allocate(-1)", KELInterStringUCS::Allocate(-1)},
      {"Allocate above 2^30", KELInterStringUCS::Allocate(0x7FFFFFFF)},
      {"CreateString(null, 3)", Rep::CreateString(nullptr, 3)},
      {"CreateString(src, 0)", Rep::CreateString(abc, 0)},
      {"CreateString(cp, 0)", KELInterStringUCS::CreateString('x', 0)},
      {"CreateString too long", KELInterStringUCS::CreateString(0x1F600, 1UL << 40)},
      {"DuplicateString of empty", empty->DuplicateString(5)},
      {"Isolate of empty", empty->Isolate()},
      {"Pack of empty", empty->Pack()},
      {"empty + empty", empty->Append(empty)},
  };
  for (const auto& [label, r] : results) {
    SCOPED_TRACE(label);
    EXPECT_EQ(r, empty);
  }
  for (int i = 0; i < 100; ++i) {
    empty->AddRef();
    EXPECT_EQ(empty->Release(), -1);
  }
  EXPECT_EQ(empty->GetRefCount(), 1);
  EXPECT_EQ(empty->ComputeHashKey(), 0u);
  abc->Release();
}

TEST(KELInterUnicodeString, AllocateSetsTheHeaderFromTheRoundedSize) {
  struct Case {
    bool ucs;
    int n;
    int capacity;  // (round8(32 + unit * (n + 1)) - 32) / unit
  } const cases[] = {{false, 1, 8}, {false, 7, 8}, {false, 8, 16}, {false, 100, 104},
                     {true, 1, 4},  {true, 3, 4},  {true, 4, 8},   {true, 100, 104}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << (c.ucs ? "UCS " : "MBCS ") << c.n);
    Rep* r = c.ucs ? KELInterStringUCS::Allocate(c.n) : KELInterStringMBCS::Allocate(c.n);
    EXPECT_EQ(r->IsUCS(), c.ucs);
    EXPECT_EQ(r->GetPrimaryLength(), c.n);
    EXPECT_EQ(r->GetCapacity(), c.capacity);
    EXPECT_EQ(r->GetRefCount(), 1);
    EXPECT_TRUE(r->IsHashDirty());
    EXPECT_FALSE(r->HasSecondView());
    if (c.ucs) {
      EXPECT_EQ(static_cast<unsigned short*>(r->GetText())[c.n], 0);
    } else {
      EXPECT_EQ(static_cast<char*>(r->GetText())[c.n], 0);
    }
    EXPECT_EQ(Rep::FromText(r->GetText()), r);
    EXPECT_EQ(r->Release(), 0);
  }
}

TEST(KELInterUnicodeString, CreateAndDuplicate) {
  Rep* emoji = KELInterStringUCS::CreateString(0x1F600, 2);
  EXPECT_EQ(units(emoji), (std::u16string{0xD83D, 0xDE00, 0xD83D, 0xDE00}));
  Rep* a = KELInterStringUCS::CreateString('a', 3);
  EXPECT_EQ(units(a), u"aaa");

  Rep* ab = mbcs("ab");
  Rep* abab = Rep::CreateString(ab, 3);
  EXPECT_FALSE(abab->IsUCS());
  EXPECT_EQ(bytes(abab), "ababab");
  Rep* twice = emoji->DuplicateString(2);
  EXPECT_TRUE(twice->IsUCS());
  EXPECT_EQ(twice->GetLengthInChar(), 8);
  EXPECT_EQ(ab->GetRefCount(), 1);  // duplicating takes no reference of the source
  for (Rep* r : {emoji, a, ab, abab, twice}) EXPECT_EQ(r->Release(), 0);
}

TEST(KELInterUnicodeString, SecondViewIsBuiltOnceAndDroppedOnEveryChange) {
  Rep* r = mbcs("h\xC3\xA9llo \xF0\x9F\x98\x80");  // "héllo 😀"
  EXPECT_FALSE(r->HasSecondView());
  EXPECT_EQ(r->GetLengthInChar(), 8);  // the emoji counts 2
  ASSERT_TRUE(r->HasSecondView());
  const unsigned short* view = r->ConvertToUCChar();
  EXPECT_EQ(r->ConvertToUCChar(), view);  // built once
  EXPECT_EQ(units(r), u"h\u00E9llo \U0001F600");
  EXPECT_EQ(r->GetLengthInByte(), 11);

  r = r->Append(r);  // any change drops the view and marks the hash stale
  EXPECT_FALSE(r->HasSecondView());
  EXPECT_TRUE(r->IsHashDirty());
  EXPECT_EQ(units(r), u"h\u00E9llo \U0001F600h\u00E9llo \U0001F600");  // rebuilt from the new text

  Rep* u = ucs(u"caf\u00E9");
  EXPECT_EQ(u->GetLengthInByte(), 5);
  const char* mbView = u->ConvertToChar();
  EXPECT_STREQ(mbView, "caf\xC3\xA9");
  EXPECT_EQ(u->ConvertToChar(), mbView);
  Rep* bang = ucs(u"!");
  u = u->Append(bang);
  EXPECT_FALSE(u->HasSecondView());
  EXPECT_STREQ(u->ConvertToChar(), "caf\xC3\xA9!");
  for (Rep* x : {r, u, bang}) EXPECT_EQ(x->Release(), 0);
}

TEST(KELInterUnicodeString, CopyOnWriteStepInEachBranch) {
  // Unshared and big enough, contents kept: the same block, view kept.
  Rep* r = mbcs("abcdef");  // capacity 8
  r->GetLengthInChar();
  Rep* same = r->_AllocNewStringMBCS(7, true, false);
  EXPECT_EQ(same, r);
  EXPECT_TRUE(r->HasSecondView());
  // Unshared, big enough, contents not kept: same block, view dropped, hash stale.
  r->ComputeHashKey();
  same = r->_AllocNewStringMBCS(7, false, false);
  EXPECT_EQ(same, r);
  EXPECT_FALSE(r->HasSecondView());
  EXPECT_TRUE(r->IsHashDirty());

  // Shared: a private copy of min(length, n) units; the other holder keeps
  // the old block untouched.
  r->AddRef();
  Rep* copy = r->_AllocNewStringMBCS(3, true, false);
  EXPECT_NE(copy, r);
  EXPECT_EQ(r->GetRefCount(), 1);
  EXPECT_EQ(bytes(copy), "abc");
  EXPECT_EQ(bytes(r), "abcdef");
  EXPECT_EQ(copy->GetCapacity(), 8);  // n = 3 rounds up to 8

  // Unshared but too small: grow takes max(n, 1.5 x capacity); without grow
  // the capacity follows n.
  Rep* grown = r->_AllocNewStringMBCS(9, true, true);  // 1.5 x 8 = 12 -> 16
  EXPECT_EQ(bytes(grown), "abcdef");
  EXPECT_EQ(grown->GetCapacity(), 16);
  Rep* exact = grown->_AllocNewStringMBCS(100, true, false);
  EXPECT_EQ(exact->GetCapacity(), 104);
  Rep* big = exact->_AllocNewStringMBCS(200, true, true);  // n beats 1.5 x 104
  EXPECT_EQ(big->GetCapacity(), 208);
  EXPECT_EQ(bytes(big), "abcdef");

  // UCS in code units.
  Rep* u = ucs(u"xyz");  // capacity 4
  u->AddRef();
  Rep* u2 = u->_AllocNewStringUCS(2, true, false);
  EXPECT_NE(u2, u);
  EXPECT_EQ(units(u2), u"xy");
  Rep* u3 = u->_AllocNewStringUCS(4, true, true);  // sole owner now, 4 does not fit: 1.5 x 4 = 6
  EXPECT_EQ(units(u3), u"xyz");
  EXPECT_EQ(u3->GetCapacity(), 8);  // 6 units -> 32 + 14 -> 48 bytes -> 8 units
  for (Rep* x : {copy, big, u2, u3}) EXPECT_EQ(x->Release(), 0);
}

TEST(KELInterUnicodeString, FormChangingVariantsCarryTheTextOver) {
  Rep* m = mbcs("\xC3\xA9t\xC3\xA9");  // "été": 5 bytes, 3 units
  Rep* u = m->_AllocNewStringUCS(3, true, false);
  EXPECT_TRUE(u->IsUCS());
  EXPECT_EQ(units(u), u"\u00E9t\u00E9");
  Rep* back = u->_AllocNewStringMBCS(5, true, false);
  EXPECT_FALSE(back->IsUCS());
  EXPECT_EQ(bytes(back), "\xC3\xA9t\xC3\xA9");
  Rep* cut = back->_AllocNewStringUCS(2, true, false);
  EXPECT_EQ(units(cut), u"\u00E9t");
  Rep* fresh = cut->_AllocNewStringMBCS(4, false, false);  // not kept: Allocate's length
  EXPECT_FALSE(fresh->IsUCS());
  EXPECT_EQ(fresh->GetPrimaryLength(), 4);
  EXPECT_EQ(fresh->Release(), 0);
}

TEST(KELInterUnicodeString, AppendInEveryCombinationOfForms) {
  struct Case {
    const char* label;
    bool leftUcs, rightUcs;
    bool resultUcs;
  } const cases[] = {{"MBCS + MBCS", false, false, false},
                     {"MBCS + UCS", false, true, true},
                     {"UCS + MBCS", true, false, true},
                     {"UCS + UCS", true, true, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    Rep* left = c.leftUcs ? ucs(u"\u00E9a") : mbcs("\xC3\xA9" "a");
    Rep* right = c.rightUcs ? ucs(u"b\U0001F600") : mbcs("b\xF0\x9F\x98\x80");
    left->GetLengthInChar();
    left->GetLengthInByte();  // both views present before the change
    Rep* r = left->Append(right);
    EXPECT_EQ(r->IsUCS(), c.resultUcs);
    EXPECT_EQ(units(r), u"\u00E9ab\U0001F600");
    EXPECT_EQ(right->GetRefCount(), 1);  // the guard reference is given back
    EXPECT_EQ(units(right), u"b\U0001F600");

    Rep* self = r->Append(r);  // a string appended to itself doubles
    EXPECT_EQ(units(self), u"\u00E9ab\U0001F600\u00E9ab\U0001F600");
    EXPECT_EQ(self->GetRefCount(), 1);

    Rep* none = self->Append(Rep::_GetEmptyString());
    EXPECT_EQ(none, self);
    EXPECT_EQ(self->Append(nullptr), self);
    EXPECT_EQ(self->Release(), 0);
    EXPECT_EQ(right->Release(), 0);
  }

  // Appending to a shared block leaves the other holder's text alone, and
  // repeated appends grow by half the capacity at least.
  Rep* base = mbcs("x");
  base->AddRef();
  Rep* y = mbcs("y");
  Rep* grown = base->Append(y);
  EXPECT_NE(grown, base);
  EXPECT_EQ(bytes(base), "x");
  int reallocations = 0;
  for (int i = 0; i < 10000; ++i) {
    Rep* before = grown;
    grown = grown->Append(y);
    reallocations += grown != before;
  }
  EXPECT_EQ(grown->GetPrimaryLength(), 10002);
  EXPECT_LT(reallocations, 25);
  for (Rep* x : {base, y, grown}) EXPECT_EQ(x->Release(), 0);
}

TEST(KELInterUnicodeString, PackAndIsolate) {
  Rep* abc = ucs(u"abc");
  Rep* packed = abc->Pack();
  EXPECT_FALSE(packed->IsUCS());
  EXPECT_EQ(bytes(packed), "abc");
  EXPECT_EQ(packed->Pack(), packed);  // MBCS comes back as it is

  Rep* accent = ucs(u"ab\u00E9");
  EXPECT_EQ(accent->Pack(), accent);
  EXPECT_TRUE(accent->IsUCS());
  Rep* del = ucs(u"a\u007F");  // 127 is still ASCII
  del = del->Pack();
  EXPECT_FALSE(del->IsUCS());

  EXPECT_EQ(accent->Isolate(), accent);  // not shared: unchanged
  accent->AddRef();
  Rep* own = accent->Isolate();
  EXPECT_NE(own, accent);
  EXPECT_EQ(units(own), u"ab\u00E9");
  EXPECT_EQ(accent->GetRefCount(), 1);
  for (Rep* x : {packed, accent, del, own}) EXPECT_EQ(x->Release(), 0);
}

TEST(KELInterUnicodeString, HashKeyIsCachedAndAgreesAcrossForms) {
  const std::u16string text = u"K\u00F6ln \U0001F600";
  Rep* u = ucs(text);
  Rep* m = mbcs("K\xC3\xB6ln \xF0\x9F\x98\x80");
  const unsigned expected =
      NUVSysUCAlgorithm::HashV3FromUCS2(reinterpret_cast<const unsigned short*>(text.data()), text.size(), 0) &
      0x7FFFFFFFu;
  EXPECT_TRUE(u->IsHashDirty());
  EXPECT_EQ(u->ComputeHashKey(), expected);
  EXPECT_FALSE(u->IsHashDirty());
  EXPECT_EQ(m->ComputeHashKey(), expected);
  Rep* dot = mbcs(".");
  m = m->Append(dot);
  EXPECT_TRUE(m->IsHashDirty());
  EXPECT_NE(m->ComputeHashKey(), expected);
  for (Rep* x : {u, m, dot}) EXPECT_EQ(x->Release(), 0);
}

TEST(KELInterUnicodeString, PoolReusesBlocksUpToItsLimit) {
  PoolOn pool;
  EXPECT_FALSE(NUVStringPoolFlush());  // nothing held
  // MBCS Allocate(5): 38 bytes asked, 40 granted, class 4; released stating
  // 32 + 8 = 40, class 4 again.
  std::vector<Rep*> blocks;
  for (int i = 0; i < 257; ++i) blocks.push_back(KELInterStringMBCS::Allocate(5));
  for (Rep* r : blocks) EXPECT_EQ(r->Release(), 0);
  // The first 256 were kept, the 257th went to the system allocator; the pool
  // gives them back last in, first out.
  std::vector<Rep*> again;
  for (int i = 0; i < 256; ++i) again.push_back(KELInterStringMBCS::Allocate(5));
  for (int i = 0; i < 256; ++i) EXPECT_EQ(again[static_cast<size_t>(i)], blocks[static_cast<size_t>(255 - i)]) << i;
  for (Rep* r : again) r->Release();
  EXPECT_TRUE(NUVStringPoolFlush());
  EXPECT_FALSE(NUVStringPoolFlush());

  // A UCS block states its capacity in units: Allocate(5) takes 48 bytes
  // (class 5) but is released as 32 + 8 = 40 bytes, into class 4, where a
  // 40-byte request finds it.
  Rep* u = KELInterStringUCS::Allocate(5);
  EXPECT_EQ(u->GetCapacity(), 8);
  u->Release();
  Rep* m = KELInterStringMBCS::Allocate(5);
  EXPECT_EQ(m, u);
  m->Release();

  // Blocks above 96 bytes never enter the pool; 96 bytes do (class 11).
  NUVStringPoolFlush();
  KELInterStringMBCS::Allocate(65)->Release();  // 98 bytes asked
  EXPECT_FALSE(NUVStringPoolFlush());
  KELInterStringMBCS::Allocate(60)->Release();  // 93 asked, 96 granted and stated
  EXPECT_TRUE(NUVStringPoolFlush());
}

TEST(KELInterUnicodeString, PoolIsOnlyForThreadsWithTheFlag) {
  NUVStringPoolFlush();
  NUVStringPoolSetForCurrentThrd(false);
  KELInterStringMBCS::Allocate(5)->Release();
  EXPECT_FALSE(NUVStringPoolFlush());
}

TEST(KELInterUnicodeStringDeathTest, LifeCycleSwitches) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // NUVStringInit turns the pool on and sets the stage...
  EXPECT_EXIT(
      {
        unsetenv("ReplayPurify");
        NUVStringInit(7);
        KELInterStringMBCS::Allocate(5)->Release();
        std::fprintf(stderr, "<%d %d>", Rep::S_devStage, NUVStringPoolFlush());
        std::exit(0);
      },
      testing::ExitedWithCode(0), "<7 1>");
  // ...except under "ReplayPurify".
  EXPECT_EXIT(
      {
        setenv("ReplayPurify", "", 1);
        NUVStringInit(0);
        KELInterStringMBCS::Allocate(5)->Release();
        std::fprintf(stderr, "<%d %d>", Rep::S_devStage, NUVStringPoolFlush());
        std::exit(0);
      },
      testing::ExitedWithCode(0), "<0 0>");
  // After NUVStringPoolDisable no block is kept.
  EXPECT_EXIT(
      {
        NUVStringPoolSetForCurrentThrd(true);
        NUVStringPoolDisable();
        KELInterStringMBCS::Allocate(5)->Release();
        std::fprintf(stderr, "<%d>", NUVStringPoolFlush());
        std::exit(0);
      },
      testing::ExitedWithCode(0), "<0>");
  // NUVStringDeInit empties and disables the pool and closes the iconv
  // descriptors: EUC-JP then decodes by the identity method, a unit a byte.
  EXPECT_EXIT(
      {
        const NUVSysCodePage eucJp("EUC-JP");
        unsigned short out[8];
        const int before = eucJp.ConvertMBCSToUTF16("\xA4\xA2", 2, out, nullptr);
        NUVStringPoolSetForCurrentThrd(true);
        KELInterStringMBCS::Allocate(5)->Release();
        const int rc = NUVStringDeInit();
        KELInterStringMBCS::Allocate(5)->Release();
        const bool held = NUVStringPoolFlush();
        const int after = eucJp.ConvertMBCSToUTF16("\xA4\xA2", 2, out, nullptr);
        std::fprintf(stderr, "<%d %d %d %d>", rc, held, before, after);
        std::exit(0);
      },
      testing::ExitedWithCode(0), "<0 0 1 2>");
  EXPECT_EXIT(
      {
        NUVDebugBreak(1);
        std::exit(0);
      },
      testing::ExitedWithCode(0), "^NUVDebugBreak\\(1\\)\n$");
}

TEST(KELInterUnicodeStringDeathTest, DevelopmentStageIsReadWhenTheLibraryLoads) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the child runs the static initialisers again
  const struct {
    const char* value;
    const char* expected;
  } cases[] = {{nullptr, "<1>"}, {"FALSE", "<0>"}, {"false", "<1>"}, {"TRUE", "<1>"}};
  for (const auto& c : cases) {
    if (c.value != nullptr) {
      setenv("KELDevelopmentStage", c.value, 1);
    } else {
      unsetenv("KELDevelopmentStage");
    }
    EXPECT_EXIT(
        {
          std::fprintf(stderr, "<%d>", Rep::S_devStage);
          std::exit(0);
        },
        testing::ExitedWithCode(0), c.expected)
        << (c.value ? c.value : "(unset)");
  }
  unsetenv("KELDevelopmentStage");
}

}  // namespace
