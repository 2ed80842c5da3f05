// The string representation: the shared empty string, allocation, the second
// view and the cached hash, growth on Append, the form changes, Pack,
// Isolate, the block pool and the life cycle switches. Copy-on-write and
// Append across the forms are checked through KELUnicodeString's change
// table; how the development stage is read, by KELString's death test.
// The process code page is UTF-8 here (the test environment sets no locale).
#include "KELInterUnicodeString.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "FaultInjection.h"
#include "NUVSysCodePage.h"
#include "TestSupport.h"

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

TEST(KELInterUnicodeString, EveryEmptyResultIsTheOneEmptyStringAndItsCountNeverMoves) {
  Rep* empty = Rep::_GetEmptyString();
  ASSERT_EQ(empty, Rep::_KELSysEmptyStringPtr);
  const std::vector<std::pair<const char*, Rep*>> results = {
      {"MBCS Allocate(0)", KELInterStringMBCS::Allocate(0)},
      {"UCS Allocate(-1)", KELInterStringUCS::Allocate(-1)},
      {"Allocate above 2^30", KELInterStringUCS::Allocate(0x7FFFFFFF)},
      {"CreateString(null, 3)", Rep::CreateString(nullptr, 3)},
      {"CreateString too long", KELInterStringUCS::CreateString(0x1F600, 1UL << 40)},
      {"DuplicateString of empty", empty->DuplicateString(5)},
      {"Isolate of empty", empty->Isolate()},
      {"Pack of empty", empty->Pack()},
      {"empty + empty", empty->Append(empty)},
  };
  for (const auto& [label, r] : results) EXPECT_EQ(r, empty) << label;
  for (int i = 0; i < 100; ++i) {
    empty->AddRef();
    EXPECT_EQ(empty->Release(), -1);
  }
  EXPECT_EQ(empty->GetRefCount(), 1);
  EXPECT_EQ(empty->ComputeHashKey(), 0u);
  EXPECT_STREQ(empty->ConvertToChar(), "");
}

// A fresh block: its length, a NUL after the text, no second view, the hash
// to compute (its capacity is pinned by the growth and pool tests). The view
// is built once, the hash cached. Dropping the view and the hash on a change
// is checked through the public API (every change of KELUnicodeString); the
// value of the hash, against the algorithm, by the fuzz target
// ustring_utf8_conversions.
TEST(KELInterUnicodeString, FreshBlockThenSecondViewAndHashBuiltOnce) {
  Rep* r = mbcs("h\xC3\xA9llo \xF0\x9F\x98\x80");  // "héllo 😀"
  EXPECT_EQ(r->GetPrimaryLength(), 11);
  EXPECT_TRUE(r->IsHashDirty() && !r->HasSecondView());  // a fresh block
  EXPECT_EQ('\0', static_cast<char*>(r->GetText())[11]);
  EXPECT_EQ(r->GetLengthInChar(), 8);  // the emoji counts 2
  ASSERT_TRUE(r->HasSecondView());
  const unsigned short* view = r->ConvertToUCChar();
  EXPECT_EQ(r->ConvertToUCChar(), view);
  EXPECT_EQ(units(r), u"h\u00E9llo \U0001F600");
  EXPECT_EQ(r->GetLengthInByte(), 11);

  Rep* u = ucs(u"caf\u00E9");
  EXPECT_EQ(u'\0', static_cast<char16_t*>(u->GetText())[4]);
  EXPECT_EQ(u->GetLengthInByte(), 5);
  const char* mbView = u->ConvertToChar();
  EXPECT_STREQ(mbView, "caf\xC3\xA9");
  EXPECT_EQ(u->ConvertToChar(), mbView);
  const unsigned key = u->ComputeHashKey();
  EXPECT_FALSE(u->IsHashDirty());
  EXPECT_EQ(u->ComputeHashKey(), key);
  for (Rep* x : {r, u}) EXPECT_EQ(x->Release(), 0);
}

// An unshared block too small for an append grows to max(length,
// 1.5 x capacity), in 8-byte steps; one that fits is kept. (A shared block
// gets a private copy, and a change drops the view and the hash: every
// change in KELUnicodeString's change table; KELString grows exactly.)
TEST(KELInterUnicodeString, AppendGrowsByHalfTheCapacityAtLeast) {
  const struct { bool ucs; int add, capacity; } cases[] = {
      {false, 3, 104},    // 100 bytes (capacity 104) + 3: fits
      {false, 5, 160},    // 105 bytes: 1.5 x 104 = 156 -> 160, not 112
      {false, 300, 408},  // 400 bytes beat 1.5 x 104
      {true, 5, 160}};    // UCS: 156 units -> 346 bytes -> 352 -> 160, not 108
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.ucs << " + " << c.add);
    Rep* r = c.ucs ? ucs(std::u16string(100, u'a')) : mbcs(std::string(100, 'a'));
    Rep* more = mbcs(std::string(static_cast<size_t>(c.add), 'q'));
    r = r->Append(more);
    EXPECT_EQ(r->GetCapacity(), c.capacity);
    EXPECT_EQ(units(r), std::u16string(100, u'a') + std::u16string(static_cast<size_t>(c.add), u'q'));
    EXPECT_EQ(more->GetRefCount(), 1);  // the guard reference is given back
    EXPECT_EQ(r->Append(Rep::_GetEmptyString()), r);
    EXPECT_EQ(r->Append(nullptr), r);
    for (Rep* x : {r, more}) EXPECT_EQ(x->Release(), 0);
  }
}

// The form-changing variants carry the text over; duplicating keeps the form.
TEST(KELInterUnicodeString, FormChangesAndDuplicates) {
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
  Rep* emoji = KELInterStringUCS::CreateString(0x1F600, 1);
  Rep* twice = emoji->DuplicateString(3);
  EXPECT_TRUE(twice->IsUCS());
  EXPECT_EQ(units(twice), u"\U0001F600\U0001F600\U0001F600");
  for (Rep* x : {fresh, emoji, twice}) EXPECT_EQ(x->Release(), 0);
}

TEST(KELInterUnicodeString, PackAndIsolate) {
  Rep* abc = ucs(u"abc");
  Rep* packed = abc->Pack();
  EXPECT_FALSE(packed->IsUCS());
  EXPECT_EQ(bytes(packed), "abc");
  EXPECT_EQ(packed->Pack(), packed);  // MBCS comes back as it is

  Rep* accent = ucs(u"ab\u00E9");
  EXPECT_EQ(accent->Pack(), accent);  // not ASCII: stays UCS
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

TEST(KELInterUnicodeString, PoolReusesBlocksUpToItsLimit) {
  NUVStringPoolFlush();
  KELInterStringMBCS::Allocate(5)->Release();  // the pool is off for this thread
  EXPECT_FALSE(NUVStringPoolFlush());
  NUVStringPoolSetForCurrentThrd(true);
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
  NUVStringPoolSetForCurrentThrd(false);
}

TEST(KELInterUnicodeStringDeathTest, LifeCycleSwitches) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // NUVStringInit turns the pool on and sets the stage, except under
  // "ReplayPurify".
  for (const char* purify : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_EXIT(runThenExit([&] {
                  setEnv("ReplayPurify", purify);
                  NUVStringInit(purify ? 0 : 7);
                  KELInterStringMBCS::Allocate(5)->Release();
                  std::fprintf(stderr, "<%d %d>", Rep::S_devStage, NUVStringPoolFlush());
                }),
                testing::ExitedWithCode(0), purify ? "<0 0>" : "<7 1>");
  }
  // NUVStringDeInit empties and disables the pool (NUVStringPoolDisable: no
  // block is kept after it) and closes the iconv descriptors: EUC-JP then
  // decodes by the identity method, a unit a byte.
  EXPECT_EXIT(runThenExit([] {
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
              }),
              testing::ExitedWithCode(0), "<0 0 1 2>");
}

// ---- failures of the operating system ----

// A second view that cannot be allocated is reported and left unbuilt; the
// next request builds it.
TEST(KELInterUnicodeStringFaults, ASecondViewWithoutMemory) {
  using Malloc = Fault<&systemts::detail::SysCalls::malloc>;
  const std::string text(5000, 'v');  // longer than the pooled blocks
  const std::u16string wide(text.begin(), text.end());
  for (Rep* r : {mbcs(text), ucs(wide)}) {
    SCOPED_TRACE(r->IsUCS() ? "UTF-16 block" : "multi-byte block");
    {
      Malloc f(ENOMEM, nullptr);
      testing::internal::CaptureStderr();
      r->IsUCS() ? r->_UpdateCharView() : r->_UpdateUnicodeView();
      EXPECT_EQ("NUVDebugBreak(1)\n", testing::internal::GetCapturedStderr());
      EXPECT_FALSE(r->HasSecondView());
    }
    EXPECT_EQ(wide, units(r));
    EXPECT_EQ(text, bytes(r));
    EXPECT_TRUE(r->HasSecondView());
    EXPECT_EQ(0, r->Release());
  }
}

}  // namespace
