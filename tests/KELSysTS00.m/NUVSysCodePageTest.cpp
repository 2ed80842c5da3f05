// NUVSysCodePage, NUVSysIConvTSWrap and KELSysTSCodePage: real code pages
// against iconv itself (every byte and unit of the single-byte pages; a corpus
// in EUC-JP, whose iconv loop is the one every multi-byte page takes), the
// replacement unit, resumable conversion call by call (single-byte tables, and
// CP1255 for the iconv loop), threads, the identity fallback. UTF-8 and
// SHIFT_JIS on arbitrary bytes are the fuzz targets'.
#include "NUVSysCodePage.h"

#include <gtest/gtest.h>
#include <iconv.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FaultInjection.h"
#include "IconvReference.h"
#include "KELSysTSCodePage.h"
#include "NUVSysIConvTSWrap.h"
#include "TestSupport.h"

namespace {

using U16 = std::vector<unsigned short>;

U16 ours(const NUVSysCodePage& cp, const std::string& bytes) {
  U16 out(bytes.size() + 2);  // the documented bound of the one-shot form
  int n = -1;
  EXPECT_EQ(cp.ConvertMBCSToUTF16(bytes.data(), static_cast<int>(bytes.size()), out.data(), &n), n);
  out.resize(static_cast<size_t>(n));
  return out;
}

std::string oursFrom16(const NUVSysCodePage& cp, const U16& units) {
  std::string out(4 * units.size() + 1, '\x55');
  int n = -1;
  EXPECT_EQ(cp.ConvertUTF16ToMBCS(units.data(), static_cast<int>(units.size()), &out[0], &n), n);
  EXPECT_EQ(out[static_cast<size_t>(n)], '\0');
  out.resize(static_cast<size_t>(n));
  return out;
}

TEST(NUVSysCodePage, RejectedCharacterBecomes3F00AndUtf8AndIdentityConverters) {
  NUVSysCodePage sjis("SHIFT_JIS");
  const std::string bytes = "A\x81\x20" "B\x82\xA0";  // 0x81 0x20 is no character; 0x82 0xA0 is U+3042
  EXPECT_EQ(ours(sjis, bytes), (U16{0x41, 0x3F00, 0x20, 0x42, 0x3042}));
  EXPECT_EQ(oursFrom16(NUVSysCodePage("ISO-8859-1"), {0x61, 0x20AC, 0x62}), "a?b");  // a refused unit is '?'

  NUVSysCodePage utf8("UTF-8");
  EXPECT_TRUE(utf8.IsValid());
  // A four-byte lead cut off by the end still gives a pair: one unit more
  // than there are bytes, which is why the one-shot buffer needs srcLen + 2.
  EXPECT_EQ(ours(utf8, "a\xF4"), (U16{0x61, 0xDBC0, 0xDC00}));
  for (const char* bad : {"N/A", "NO-SUCH-CODESET-42"}) {
    testing::internal::CaptureStderr();
    NUVSysCodePage id(bad);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(id.IsValid());
    EXPECT_STREQ(id.GetCodePageName(), "Identity");
    // "N/A" says there is no code page: nothing to report.
    EXPECT_EQ(said, std::string(bad) == "N/A" ? std::string()
                                              : std::string("ERROR: SUPPLANG_K2 does not contain a valid code set "
                                                            "for code page: ") + bad + ".\n");
    EXPECT_EQ(ours(id, "a\xE9"), (U16{0x61, 0xE9}));
    EXPECT_EQ(oursFrom16(id, {0x1261, 0x00E9}), "a\xE9");
  }
}

TEST(NUVSysCodePage, TwoWayTests) {
  NUVSysCodePage latin1("ISO-8859-1");
  EXPECT_EQ(latin1.CanConvertMBCSToUTF16(nullptr, 4), 0);
  for (const auto& [units, want] : {std::pair<U16, int>{{0x63, 0xE9}, 0}, {{0x63, 0x20AC}, -1}, {{0x3F, 0x3F}, 0}})
    EXPECT_EQ(latin1.CanConvertUTF16ToMBCS(units.data(), 2), want) << units[1];
  // Every character is judged, not only the first: a bad one after good ones
  // fails the text, wherever it stands.
  const struct { const char* page; std::string text; int want; } kCases[] = {
      {"SHIFT_JIS", "\x82\xA0", 0}, {"SHIFT_JIS", "\x81\x20", -1}, {"SHIFT_JIS", "a\xFF", -1},
      {"SHIFT_JIS", "\xFF", -1},     {"SHIFT_JIS", "ab\x82\xA0", 0}, {"SHIFT_JIS", "a\x82\xA0\xFF", -1},
      {"CP1252", "A\x81", -1},       {"CP1252", "A\x80", 0},         {"ISO-8859-7", "a\xAE", -1},
      {"ISO-8859-7", "a\xE1", 0},    {"EUC-JP", "a\xA0", -1},        {"EUC-JP", "a\xA4\xA2", 0},
      {"ISO-8859-1", "caf\xE9", 0}};
  for (const auto& c : kCases)
    EXPECT_EQ(NUVSysCodePage(c.page).CanConvertMBCSToUTF16(c.text.data(), c.text.size()), c.want)
        << c.page << " " << testing::PrintToString(c.text);
}

// The resumable form at capacities 0 to 4 into exactly dstCap + 1 units on the
// heap (its documented room; ASan sees a write past it). No call writes more
// than dstCap units; a call that writes nothing consumes nothing, and only
// when what is next needs more room. On valid text the pieces put together
// are the one-shot result; on refused bytes only the bounds are checked (a
// refused character at the edge of the room is skipped without replacement).
TEST(NUVSysCodePage, ResumableAtTinyCapacitiesStaysInBounds) {
  const struct { const char* page; std::string valid, refused; } kPages[] = {
      {"UTF-8", "a\xC3\xA9\xF0\x9F\x98\x80" "b\xE2\x82\xAC", "\xFF\xF0\x9F"},
      {"SHIFT_JIS", "a\x82\xA0" "b\x82\xA2", "\xFF" "a\x81\x20\x82"},
      {"GB18030", "a\x95\x32\x82\x36" "b", "\x81\x30\xFF"},
      {"N/A", "a\xE9", ""},
  };  // single-byte pages, exactly per call: SingleBytePagesGiveExactlyWhatIconvGives
  testing::internal::CaptureStderr();  // iconv's notes on cut input
  for (const auto& c : kPages) {
    const NUVSysCodePage cp(c.page);
    for (const std::string* text : {&c.valid, &c.refused}) {
      const bool valid = text == &c.valid;
      for (size_t cap = 0; cap <= 4; ++cap) {
        SCOPED_TRACE(std::string(c.page) + " " + testing::PrintToString(*text) + " cap " + std::to_string(cap));
        const char* p = text->data();
        size_t left = text->size(), room = cap;
        U16 pieces;
        while (p != nullptr && left > 0) {
          std::unique_ptr<unsigned short[]> dst(new unsigned short[room + 1]);
          const char* before = p;
          const size_t got = cp.ConvertMBCSToUTF16(p, left, dst.get(), room);
          ASSERT_LE(got, room);
          if (got == 0 && p == before) {
            ASSERT_TRUE(!valid || room < 2 || std::string(c.page) == "GB18030");  // a pair needs 2
            room = 8;  // the rest with room enough for any character
            continue;
          }
          pieces.insert(pieces.end(), dst.get(), dst.get() + got);
        }
        if (valid) {
          EXPECT_EQ(ours(cp, *text), pieces);
        }
      }
    }
  }
  testing::internal::GetCapturedStderr();
}

TEST(NUVSysCodePage, NextCharacter) {
  NUVSysCodePage sjis("SHIFT_JIS"), utf8("UTF-8");
  const char* p = "\x82\xA0" "A";
  unsigned short u[2];
  char bytes[4];
  EXPECT_TRUE(sjis.GetNextMultiByteCharAsUTF16(p, u) == 1 && u[0] == 0x3042);
  EXPECT_TRUE(sjis.GetNextMultiByteCharAsUTF8(p, bytes) == 1 && bytes[0] == 'A');
  EXPECT_TRUE(sjis.GetNextMultiByteCharAsUTF16(p, u) == 1 && u[0] == 0);  // the NUL
  const char* q = "\xF0\x9F\x98\x80\xE2\x82\xAC";
  unsigned int cp = 0;
  EXPECT_EQ(utf8.GetNextMultiByteCharAsUTF32(q, cp), 1);
  EXPECT_EQ(cp, 0x1F600u);
  EXPECT_EQ(utf8.GetNextMultiByteCharAsUTF8(q, bytes), 3);
  EXPECT_EQ(std::string(bytes, 3), "\xE2\x82\xAC");
  const char* cut = "\xF0\x9F";  // cut by the NUL: nothing past it is read
  EXPECT_EQ(utf8.GetNextMultiByteCharAsUTF16(cut, u), 2);
}

// ---- single-byte code pages: the converter against iconv driven by the
// converter's own loops (the reference), on every byte and every unit ----

// Byte texts that reach every table entry and every path around it: all
// bytes in order, and random mixes (fixed seed) with refused bytes and NULs.
// Units: all of them in order, then each alone (a lone surrogate at the end of
// its text gives '?'). Random mixes of units are the fuzz target's.
std::vector<std::string> byteTexts() {
  std::string all(256, '\0'), noise(5000, '\0');
  for (size_t i = 0; i < 256; ++i) all[i] = static_cast<char>(i);
  std::mt19937 rng(42);
  for (char& c : noise) c = static_cast<char>(rng() % 4 ? rng() % 0x80 : 0x80 + rng() % 0x80);
  return {all, noise, noise.substr(0, 37)};
}

TEST(NUVSysCodePage, SingleBytePagesGiveExactlyWhatIconvGives) {
  // CP1255 composes characters in glibc: it must keep going through iconv,
  // dropping of a held-back last letter included.
  for (const char* page : {"ISO-8859-1", "CP1252", "KOI8-R", "ISO-8859-3", "CP1255"}) {
    SCOPED_TRACE(page);
    NUVSysCodePage cp(page);
    const IconvPair ref(page);
    ASSERT_TRUE(ref.valid() && cp.IsValid());
    for (const std::string& text : byteTexts()) {
      SCOPED_TRACE(text.size());
      EXPECT_EQ(iconvTo16(ref.to16, text), ours(cp, text));
      // Resumable in chunks: every call consumes and writes what the
      // reference does, refused bytes at the edge of the room included; the
      // larger rooms end inside a run of sixteen.
      for (int cap : {1, 2, 3, 4, 5, 16, 17, 35}) {
        const char *rp = text.data(), *op = text.data();
        size_t rLeft = text.size(), oLeft = text.size();
        while (oLeft > 0) {
          U16 got(static_cast<size_t>(cap) + 1);
          got.resize(cp.ConvertMBCSToUTF16(op, oLeft, got.data(), static_cast<size_t>(cap)));
          ASSERT_EQ(iconvTo16(ref.to16, rp, rLeft, cap), got) << "cap " << cap << " at " << text.size() - rLeft;
          ASSERT_EQ(rLeft, oLeft);
        }
        EXPECT_EQ(op, nullptr);
      }
    }
    U16 all(65536);
    for (size_t u = 0; u < all.size(); ++u) all[u] = static_cast<unsigned short>(u);
    EXPECT_EQ(iconvFrom16(ref.from16, all), oursFrom16(cp, all));
    for (unsigned u = 0; u < 0x10000; ++u) {
      const U16 one{static_cast<unsigned short>(u)};
      if (iconvFrom16(ref.from16, one) != oursFrom16(cp, one)) ADD_FAILURE() << "unit 0x" << std::hex << u;
    }
  }
}

// Two threads make a converter's first conversions at once: a single-byte
// page's tables may be made by both (one set wins), an iconv page's
// descriptors are each thread's own. Both threads convert right.
TEST(NUVSysCodePage, TwoThreadsConvertAtOnce) {
  std::string all(256, '\0');
  for (size_t i = 0; i < 256; ++i) all[i] = static_cast<char>(i);
  std::string euc = readCorpus("cjk.euc-jp.txt");
  euc.resize(euc.rfind('\n', 200000) + 1);  // whole lines only
  for (const auto& pageAndText : {std::pair<const char*, std::string>{"KOI8-U", all}, {"EUC-JP", euc}}) {
    const char* page = pageAndText.first;
    const std::string& bytes = pageAndText.second;
    if (bytes.empty()) GTEST_SKIP() << "corpus cjk.euc-jp.txt not found in " << SYSTEMTS_CORPORA_DIR;
    SCOPED_TRACE(page);
    const NUVSysCodePage cp(page);
    const U16 want = iconvTo16(IconvPair(page).to16, bytes);
    bool same[2] = {false, false};
    auto work = [&](int t) {
      const U16 units = ours(cp, bytes);
      same[t] = units == want && oursFrom16(cp, units) == bytes;
    };
    std::thread a(work, 0), b(work, 1);
    a.join();
    b.join();
    EXPECT_TRUE(same[0]);
    EXPECT_TRUE(same[1]);
  }
}

TEST(NUVSysIConvTSWrap, HandlesNameBothDirections) {
  IConvDesc_t h = 1, r = 0, again = 0;
  ASSERT_EQ(NUVSysIConvTSWrap::Open("UTF-16LE", "X-HANDLE-TEST", h), 0);
  EXPECT_EQ(h % 2, 0u);
  ASSERT_EQ(NUVSysIConvTSWrap::Open("X-HANDLE-TEST", "UTF-16LE", r), 0);
  EXPECT_EQ(r, h + 1);
  ASSERT_EQ(NUVSysIConvTSWrap::Open("UTF-16LE", "X-HANDLE-TEST", again), 0);
  EXPECT_EQ(again, h);
  EXPECT_EQ(NUVSysIConvTSWrap::Open(nullptr, "X", again), E_FAIL);
  EXPECT_EQ(NUVSysIConvTSWrap::GetIConvDesc(h), reinterpret_cast<iconv_t>(-1));  // iconv does not know it
  EXPECT_EQ(NUVSysIConvTSWrap::GetIConvDesc(0x7FFFFFF0u), reinterpret_cast<iconv_t>(-1));
}

TEST(NUVSysCodePage, EnvironmentConverterFollowsTheLanguage) {
  const NUVSysCodePage& env = NUVSysCodePage::GetEnvConverter();
  EXPECT_EQ(&env, &NUVSysCodePage::GetEnvConverter());
  ASSERT_EQ(NLSCoreChangeLanguage("ja_JP.eucJP"), 0);
  EXPECT_STREQ(env.GetCodePageName(), "EUC-JP");
  unsigned short u[4];
  int n = 0;
  KELSysTSCodePage::ConvertStrToUcs("\xa4\xa2", 2, u, &n);
  EXPECT_EQ(n, 1);
  EXPECT_EQ(u[0], 0x3042);
  ASSERT_EQ(NLSCoreChangeLanguage("C"), 0);
  EXPECT_STREQ(env.GetCodePageName(), "UTF-8");
}

TEST(NUVSysIConvTSWrapDeathTest, AfterTeardownConvertersFallBackToIdentity) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        // The one unit one byte gives, and the one byte the euro sign gives.
        const auto unit = [](const NUVSysCodePage& cp, const char* b) {
          unsigned short u[4];
          return cp.ConvertMBCSToUTF16(b, static_cast<int>(std::strlen(b)), u, nullptr) == 1 ? u[0] : 0xFFFF;
        };
        const auto euro = [](const NUVSysCodePage& cp) {
          const unsigned short e = 0x20AC;
          char b[4];
          return cp.ConvertUTF16ToMBCS(&e, 1, b, nullptr) == 1 ? b[0] : '\0';
        };
        // Convert first, so that the single-byte tables exist: they must not
        // outlive the descriptors they stand for.
        const NUVSysCodePage latin1("ISO-8859-1");
        const NUVSysCodePage cp1252("CP1252");
        const NUVSysCodePage sjis("SHIFT_JIS");
        const bool before = unit(cp1252, "\x80") == 0x20AC && euro(cp1252) == '\x80';
        // Threads that converted and ended closed their descriptors; the
        // teardown must not close them again (ASan sees a double close).
        bool threadsOk = true;
        for (int i = 0; i < 8; ++i) std::thread([&] { threadsOk = threadsOk && unit(sjis, "\x82\xA0") == 0x3042; }).join();
        NUVSysIConvTSWrap::sDeinitIConvTS(0);
        IConvDesc_t h = 0;
        const bool refused = NUVSysIConvTSWrap::Open("UTF-16LE", "ISO-8859-1", h) == E_FAIL;
        const bool identity = unit(latin1, "\xE9") == 0xE9 && unit(cp1252, "\x80") == 0x80 && euro(cp1252) == '\xAC';
        std::exit(before && threadsOk && refused && identity ? 3 : 1);
      },
      testing::ExitedWithCode(3), "");
}


// ---- failures of the operating system ----

using systemts::detail::SysCalls;
using IconvOpen = Fault<&SysCalls::iconvOpen>;
using Malloc = Fault<&SysCalls::malloc>;
const iconv_t kNoCd = reinterpret_cast<iconv_t>(-1);

// Descriptors are opened per thread, on a thread's first use of a pair: the
// faults below are met on a thread of their own.

TEST(NUVSysCodePageFaults, DescriptorsThatCannotBeOpenedMeanIdentityUntilTheyCan) {
  const NUVSysCodePage greek("ISO-8859-7");
  ASSERT_TRUE(greek.IsValid());
  const U16 alpha = {0x03B1}, widened = {0x00E1};
  ASSERT_EQ(alpha, ours(greek, "\xE1"));
  // Calls 1 and 2 open the two directions of the pair. EINVAL says iconv does
  // not know the pair: that is remembered for the thread.
  const struct { int err; long nth; bool recovers; } kCases[] = {
      {EMFILE, 1, true}, {ENFILE, 2, true}, {ENOMEM, 1, true}, {EINVAL, 2, false}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << "errno " << c.err << " on open " << c.nth);
    IconvOpen f(c.err, kNoCd, c.nth);
    std::thread([&] {
      EXPECT_EQ(widened, ours(greek, "\xE1"));
      EXPECT_EQ("?", oursFrom16(greek, U16{0x3F}).substr(0, 1));
      f.heal();
      EXPECT_EQ(c.recovers ? alpha : widened, ours(greek, "\xE1"));
    }).join();
    EXPECT_EQ(1, f.failed());
  }
  // A converter built while iconv cannot open its pair is an identity one.
  IconvOpen f(EMFILE, kNoCd, 1, IconvOpen::kAlways);
  std::thread([&] {
    testing::internal::CaptureStderr();
    const NUVSysCodePage built("ISO-8859-7");
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(built.IsValid());
    EXPECT_STREQ("Identity", built.GetCodePageName());
    EXPECT_EQ(widened, ours(built, "\xE1"));
    EXPECT_EQ("ERROR: SUPPLANG_K2 does not contain a valid code set for code page: ISO-8859-7.\n", said);
  }).join();
}

// The iconv loops on a multi-byte code page: a first call that fails
// without converting anything.
TEST(NUVSysCodePageFaults, IconvFailuresInTheConversionLoops) {
  const NUVSysCodePage eucjp("EUC-JP");
  const std::string text = "a\xA4\xA2" "b";  // a, HIRAGANA A, b
  const U16 units = {0x61, 0x3042, 0x62};
  ASSERT_EQ(units, ours(eucjp, text));  // the converter is warmed up on this thread
  ASSERT_EQ(text, oursFrom16(eucjp, units));
  const U16 replaced = {0x3F00, 0x3042, 0x62};  // the first character skipped and replaced
  // From UTF-16 every failure is a refused unit: '?', and on after it.
  const std::string questioned = "?\xA4\xA2" "b";
  const struct { int err; const char* message; U16 to16; } kCases[] = {
      {EILSEQ, "", replaced},
      {EINVAL, "iconv EINVAL error: input buffer was truncated.\n", replaced},
      {EBADF, "iconv errno is: 9\n", replaced},
      {E2BIG, "", {}},  // no room: the conversion stops
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.err);
    {
      Fault<&SysCalls::iconv> f(c.err, static_cast<size_t>(-1));
      testing::internal::CaptureStderr();
      EXPECT_EQ(c.to16, ours(eucjp, text));
      EXPECT_EQ(c.message, testing::internal::GetCapturedStderr());
    }
    {
      Fault<&SysCalls::iconv> f(c.err, static_cast<size_t>(-1));
      EXPECT_EQ(questioned, oursFrom16(eucjp, units));
    }
    EXPECT_EQ(units, ours(eucjp, text));
  }
}

// A single-byte page's tables are made from iconv on its first use. A call
// failing meanwhile may cost the tables (conversions then go through iconv)
// but never gives a wrong result, then or later.
TEST(NUVSysCodePageFaults, TablesMadeWhileIconvFailsNeverGiveWrongResults) {
  // Each page is new to this process. Calls 1, 3, ... probe the bytes one by
  // one (each followed by a reset, 2, 4, ...); 513 and 514 convert them all
  // at once; from about 517 on, odd calls probe the units of the encoder's
  // blocks.
  const struct { const char* page; long nth; } kCases[] = {
      {"ISO-8859-5", 1}, {"CP1251", 2}, {"KOI8-U", 301}, {"CP866", 513},
      {"ISO-8859-4", 514}, {"CP1250", 701}, {"ISO-8859-10", 1401}};
  std::string bytes(256, '\0');
  for (size_t b = 0; b < bytes.size(); ++b) bytes[b] = static_cast<char>(b);
  U16 units(0x600);
  for (size_t u = 0; u < units.size(); ++u) units[u] = static_cast<unsigned short>(u);
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.page);
    const IconvPair ref(c.page);
    ASSERT_TRUE(ref.valid());
    const NUVSysCodePage cp(c.page);
    {
      Fault<&SysCalls::iconv> f(EBADF, static_cast<size_t>(-1), c.nth);
      testing::internal::CaptureStderr();  // the iconv loop reports the failure if it meets it
      ours(cp, bytes);
      oursFrom16(cp, units);
      testing::internal::GetCapturedStderr();
      EXPECT_EQ(1, f.failed());
    }
    EXPECT_EQ(iconvTo16(ref.to16, bytes), ours(cp, bytes));
    EXPECT_EQ(iconvFrom16(ref.from16, units), oursFrom16(cp, units));
  }
}

TEST(NUVSysCodePageFaults, ANameThatCannotBeCopiedIsNoName) {
  for (const char* name : {"UTF-8", static_cast<const char*>(nullptr)}) {
    SCOPED_TRACE(name != nullptr ? name : "(null)");
    Malloc f(ENOMEM, nullptr);
    const NUVSysCodePage cp(name);
    EXPECT_EQ(nullptr, cp.GetCodePageName());
    EXPECT_EQ((U16{0xE9}), ours(cp, name != nullptr ? "\xC3\xA9" : "\xE9"));  // it converts all the same
  }
}

TEST(NUVSysIConvTSWrapFaults, RegistrationAndDescriptorsWithoutMemory) {
  // Open: the pair, then the copies of the two names.
  for (long nth : {1, 2, 3}) {
    SCOPED_TRACE(nth);
    const std::string from = "ISO-8859-" + std::to_string(12 + nth);  // a pair no other test registers
    IConvDesc_t desc = 12345;
    {
      Malloc f(ENOMEM, nullptr, nth);
      EXPECT_EQ(E_FAIL, NUVSysIConvTSWrap::Open("UCS-2LE", from.c_str(), desc));
      EXPECT_EQ(12345u, desc);
    }
    ASSERT_EQ(S_OK, NUVSysIConvTSWrap::Open("UCS-2LE", from.c_str(), desc));
    IConvDesc_t again = 0;
    ASSERT_EQ(S_OK, NUVSysIConvTSWrap::Open("UCS-2LE", from.c_str(), again));
    EXPECT_EQ(desc, again);  // registered once
  }
  // A thread's first use: its record, then the copies of the two names.
  IConvDesc_t desc = 0;
  ASSERT_EQ(S_OK, NUVSysIConvTSWrap::Open("UTF-16LE", "KOI8-R", desc));
  for (long nth : {1, 2, 3}) {
    SCOPED_TRACE(nth);
    Malloc f(ENOMEM, nullptr, nth);
    std::thread([&] {
      EXPECT_EQ(kNoCd, NUVSysIConvTSWrap::GetIConvDesc(desc));
      EXPECT_NE(kNoCd, NUVSysIConvTSWrap::GetIConvDesc(desc));  // tried again
      EXPECT_NE(kNoCd, NUVSysIConvTSWrap::GetIConvDesc(desc + 1));
    }).join();
  }
}

}  // namespace
