// Behaviour of the public UTF transforms and hashes that callers rely on,
// including the lenient and boundary cases kept for compatibility. The direct
// transforms against the classic ones and chunked conversion on arbitrary
// input are the fuzz targets utf8_to_utf16 and utf16_to_utf8's; validation
// against a reference validator is utf8_validate's.
#include "NUVSysUCAlgorithm.h"
#include "NUVSysCodePage.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using U16 = std::vector<unsigned short>;
using Alg = NUVSysUCAlgorithm;

// Text that mixes everything real and broken input holds: ASCII runs long
// enough for the vector paths, two-, three- and four-byte characters, a
// surrogate, overlong and five-byte forms, stray continuation bytes, invalid
// leads, sequences cut short. Its prefixes end in every place.
std::string mixedUtf8() {
  std::string s(40, 'a');
  for (const char* piece : {"\xC3\xA9\xC3\xBC", "\xE6\x97\xA5\xE6\x9C\xAC", "\xF0\x9F\x98\x80", "\xED\xA0\x80",
                            "\xC0\x80", "\x80\xBF\xFF", "\xF8\x88\x80\x80\x80", "\xE2\x82", "\xF0\x9F", "\xC3",
                            "\xEF\xBF\xBD"}) {
    s = s + piece + "hello, world";
  }
  for (int i = 0; i < 12; ++i) s += "\xE3\x83\x95";  // a run of three-byte characters
  return s + std::string(40, 'z') + "\xF0\x9F\x98\x80\xE2";
}

U16 ours8to16(const std::string& s) {
  U16 out(s.size() + 2);
  out.resize(static_cast<size_t>(Alg::unchecked::utf8to16(s.data(), s.data() + s.size(), out.data()) - out.data()));
  return out;
}

std::string ours16to8(const U16& u) {
  std::string out(3 * u.size() + 4, '\0');
  out.resize(static_cast<size_t>(Alg::unchecked::utf16to8(u.data(), u.data() + u.size(), &out[0]) - out.data()));
  return out;
}

// On every prefix of the mixed text: going through code points gives what the
// direct transforms give, and every form of the V3 hash gives h = h * 37 + unit
// over the UTF-16 units.
TEST(NUVSysUCAlgorithm, MixedTextAgreesAcrossForms) {
  using U = Alg::unchecked;
  EXPECT_EQ(3687u, Alg::HashV3FromMBCSOptimistic("ab", 2, 0, nullptr));  // the environment's page
  EXPECT_EQ(42u, Alg::HashV3FromMBCS(nullptr, 5, 42, nullptr));
  // An explicit UTF-8 page: the environment's depends on the tests' locale.
  const NUVSysCodePage utf8("UTF-8");
  const std::string text = mixedUtf8();
  for (size_t n = 0; n <= text.size(); ++n) {
    SCOPED_TRACE(n);
    const std::string s = text.substr(0, n);
    const U16 u = ours8to16(s);
    unsigned seed = static_cast<unsigned>(n * 2654435761u), want = seed;
    for (unsigned short x : u) want = want * 37u + x;
    ASSERT_EQ(want, Alg::HashV3FromUCS2(u.data(), u.size(), seed));
    ASSERT_EQ(want, Alg::HashV3FromUTF8(s.data(), s.size(), seed));
    ASSERT_EQ(want, Alg::HashV3FromMBCS(s.data(), s.size(), seed, &utf8));
    ASSERT_EQ(want, Alg::HashV3FromMBCSOptimistic(s.data(), s.size(), seed, &utf8));
    std::vector<unsigned> cps(s.size() + 2);
    U16 viaCps(2 * s.size() + 2);
    unsigned* cend = U::utf8to32(s.data(), s.data() + s.size(), cps.data());
    viaCps.resize(static_cast<size_t>(U::utf32to16(cps.data(), cend, viaCps.data()) - viaCps.data()));
    ASSERT_EQ(u, viaCps);
    // Reversed, the units hold lone surrogates of both kinds, pairs, and
    // often a high surrogate last.
    const U16 w(u.rbegin(), u.rend());
    std::string viaCps8(4 * w.size() + 4, '\0');
    cend = U::utf16to32(w.data(), w.data() + w.size(), cps.data());
    viaCps8.resize(static_cast<size_t>(U::utf32to8(cps.data(), cend, &viaCps8[0]) - viaCps8.data()));
    ASSERT_EQ(ours16to8(w), viaCps8);
  }
}

TEST(NUVSysUCAlgorithm, LenientDecodingSurrogateArithmeticAndLegacyStatuses) {
  const struct { const char* bytes; U16 units; } kCases[] = {
      {"\xFF", {0x00FF}},                 // invalid lead passes through
      {"\x80\xBF", {0x0080, 0x00BF}},     // stray continuation bytes too
      {"\xC3\x41", {0x00C1}},             // continuation not checked: (0xC3<<6 & 0x7FF) + 1
      {"\xED\xA0\x80", {0xD800}},         // a surrogate code point is just decoded
      {"\xF7\xBF\xBF\xBF", {0xDFBF, 0xDFFF}},  // above U+10FFFF: wrapped pair
      {"\xE2\x82", {0x2080}},             // cut by the end: missing byte reads as zero
  };
  for (const auto& c : kCases) EXPECT_EQ(c.units, ours8to16(c.bytes)) << c.bytes;
  // A high surrogate swallows whatever follows; a lone low one is a code point.
  unsigned cp[2];
  const unsigned short pair[] = {0xD83D, 0x0041};
  ASSERT_EQ(cp + 1, Alg::unchecked::utf16to32(pair, pair + 2, cp));
  EXPECT_EQ((0xD83Du << 10) + 0x41u - 0x35FDC00u, cp[0]);
  EXPECT_EQ("\xED\xB0\x80", ours16to8({0xDC00}));
  // A high surrogate at the very end pairs with a zero unit and stops there.
  EXPECT_EQ(ours16to8({0xD83D, 0}), ours16to8({0xD83D}));

  // The legacy decoder: its statuses and what it writes.
  const struct { std::string bytes; int status, n; U16 units; } cases[] = {
      {"\xF0\x9F\x98\x80", 0, 1, {'?'}},  // beyond the BMP
      {"\xE2", -2, 0, {}},                 // cut
      {"ab\xF0\x9F", -2, 2, {'a', 'b'}},
      {"\xC3", 0, 1, {(0xC3u << 6) - 0x3080u}},  // a two-byte lead last reads the terminating NUL
      {"a\xC3\xA9\xE2\x82\xAC", 0, 3, {'a', 0xE9, 0x20AC}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.bytes);
    U16 out(16);
    int n = -7;
    EXPECT_EQ(c.status, Alg::ConvertUTF8ToUCS2Legacy(c.bytes.c_str(), c.bytes.size(), out.data(), &n));
    EXPECT_EQ(c.n, n);
    EXPECT_EQ(c.units, U16(out.begin(), out.begin() + static_cast<long>(c.units.size())));
  }
  int n = -7;
  EXPECT_EQ(-1, Alg::ConvertUTF8ToUCS2Legacy("abc", 3, nullptr, &n));
  EXPECT_EQ(-7, n);  // untouched on -1
}

// One call of the bounded converters: what it returns and writes, and where
// it leaves the source (consumed = bytes or units; -1 = pointer null).
TEST(NUVSysUCAlgorithm, BoundedConversionResults) {
  struct Case { const char* label; std::string in; int len; unsigned cap; bool count;
                unsigned result; int consumed; int lenAfter; U16 units; };
  const std::string smile = "A\xF0\x9F\x98\x80";
  const Case k8[] = {
      {"negative length", "abc", -1, 8, false, 0xFFFFFFFFu, 0, -1, {}},
      {"empty", "abc", 0, 8, false, 0, -1, 0, {}},
      {"pair does not fit: given back", smile, 5, 2, false, 1, 1, 4, {'A'}},
      {"pair fits", smile.substr(1), 4, 2, false, 2, -1, 0, {0xD83D, 0xDE00}},
      {"counting consumes", smile + "\xC3\xA9", 7, 0, true, 4, -1, 0, {}},
      {"cut sequence counts as consumed", "ab\xE2\x82", 4, 8, false, 3, -1, 0, {'a', 'b', 0x2080}},
  };
  for (const Case& c : k8) {
    SCOPED_TRACE(c.label);
    const char* p = c.in.data();
    int len = c.len;
    U16 out(8, 0);
    EXPECT_EQ(c.result, Alg::ConvertUTF8ToUTF16(p, len, c.count ? nullptr : out.data(), c.cap));
    EXPECT_EQ(c.consumed < 0 ? nullptr : c.in.data() + c.consumed, p);
    EXPECT_EQ(c.lenAfter < 0 ? c.len : c.lenAfter, len);
    if (!c.count) {
      EXPECT_EQ(c.units, U16(out.begin(), out.begin() + static_cast<long>(c.units.size())));
    }
  }
  const char* none = nullptr;
  int len = 3;
  EXPECT_EQ(0xFFFFFFFFu, Alg::ConvertUTF8ToUTF16(none, len, nullptr, 8));
  // UTF-16 to UTF-8 (the last character goes in only whole) is the fuzz target's.

  // The 64-bit-length forms write the length back.
  const char* p = "xyz";
  unsigned long ulen = 3;
  unsigned short buf[4];
  EXPECT_EQ(3u, Alg::ConvertUTF8ToUCS2(p, ulen, buf, 4));
  EXPECT_EQ(0ul, ulen);
}

// Drives a bounded converter over `in` with room for exactly `cap` items on
// the heap (new[], so that ASan sees a write one past it), call after call.
// Every call stays within `cap` and either makes progress or refuses with
// nothing written and nothing consumed, which it may only do when all that is
// left needs more than `cap`; the rest then goes through with ample room. The
// pieces put together must be the one-shot conversion.
template <typename In, typename Out, typename Convert>
::testing::AssertionResult chunkedWithin(const std::vector<In>& in, unsigned cap, Convert convert) {
  static const In kNone{};
  const In* const begin = in.empty() ? &kNone : in.data();  // a real pointer, also for no input
  const In* p = begin;
  int left = static_cast<int>(in.size());
  std::vector<Out> whole(4 * in.size() + 4), pieces;
  const In* wp = begin;
  int wleft = left;
  whole.resize(convert(wp, wleft, whole.data(), static_cast<unsigned>(whole.size())));
  while (p != nullptr && left > 0) {
    std::unique_ptr<Out[]> room(new Out[cap]);
    const In* before = p;
    const int leftBefore = left;
    const unsigned got = convert(p, left, room.get(), cap);
    if (got > cap) return ::testing::AssertionFailure() << got << " items at room " << cap;
    if (got == 0) {
      if (p != before || left != leftBefore) return ::testing::AssertionFailure() << "consumed without writing";
      const In* q = p;
      int l = left;
      const unsigned need = convert(q, l, nullptr, 0);
      if (need <= cap) return ::testing::AssertionFailure() << "refused " << need << " items at room " << cap;
      cap = 8;  // the rest with room enough for any character
      continue;
    }
    pieces.insert(pieces.end(), room.get(), room.get() + got);
  }
  if (pieces != whole) return ::testing::AssertionFailure() << "pieces differ from the one-shot result";
  return ::testing::AssertionSuccess();
}

// Capacities 0 to 4, below and at one character's worst case: nothing is
// written past the room; a call whose whole result fits keeps it; any other
// refuses as "more room" (0, source untouched).
TEST(NUVSysUCAlgorithm, TinyCapacitiesStayInBounds) {
  const std::string kTexts[] = {"", "a", "ab", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "a\xF0\x9F\x98\x80" "b",
                                "\xE2\x82\xAC\xC3\xA9z", "\xE2\x82", "\xFF\x80", mixedUtf8().substr(36, 30)};
  for (const std::string& text : kTexts) {
    const std::vector<char> bytes(text.begin(), text.end());
    const U16 units = ours8to16(text);
    for (unsigned cap = 0; cap <= 4; ++cap) {
      SCOPED_TRACE(testing::PrintToString(text) + " cap " + std::to_string(cap));
      EXPECT_TRUE((chunkedWithin<char, unsigned short>(bytes, cap, Alg::ConvertUTF8ToUTF16)));
      EXPECT_TRUE((chunkedWithin<unsigned short, char>(units, cap, Alg::ConvertUTF16ToUTF8)));
    }
  }
}

TEST(NUVSysUCAlgorithm, ValidationAndCharacterLength) {
  const struct { std::string bytes; int isUtf8; } kCases[] = {
      {"", 0}, {"plain", 0}, {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", 0},
      // Overlong NUL, surrogate, above U+10FFFF, cut, missing continuation.
      {std::string("\xC0\x80", 2), -1}, {"\xED\xA0\x80", -1}, {"\xF4\x90\x80\x80", -1}, {"\xE2\x82", -1},
      {"\xE2\x28\xA1", -1}, {"\x80", -1}, {"\xF8\x88\x80\x80\x80", -1},
      {std::string(100, 'a') + "\xFF", -1},  // after a long ASCII run
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.bytes);
    const char* p = c.bytes.data();
    EXPECT_EQ(c.isUtf8, Alg::IsUTF8(p, c.bytes.size()));
    EXPECT_EQ(c.bytes.data(), p);
  }
  const struct { const char* text; unsigned long len; int want; } kLens[] = {
      {"\xE2\x82\xAC", 3, 3}, {"\xE2\x82\xAC", 2, -1}, {"\xF0\x9F\x98\x80z", 5, 4}, {"z", 1, 1},
      {"", 1, 0}, {nullptr, 4, -1}, {"\xC0\x80", 2, -1}};
  for (const auto& c : kLens) EXPECT_EQ(c.want, Alg::CharUTF8Len(c.text, c.len)) << (c.text ? c.text : "null");
}

TEST(NUVSysUCAlgorithm, V2HashesKeepTheirAsymmetries) {
  const unsigned short none[1] = {0}, ab[] = {'a', 'b'};
  EXPECT_EQ(1u, Alg::HashV2UCS2(none, 0));
  EXPECT_EQ(1u, Alg::HashV2UCS2(none, 1));  // zero accumulator gives 1
  EXPECT_EQ(3687u, Alg::HashV2UCS2(ab, 2));
  EXPECT_EQ(0u, Alg::HashV2MBCS("", 0));
  EXPECT_EQ(0u, Alg::HashV2MBCS("\0", 1));
  EXPECT_EQ(0x7FFFFF80u, Alg::HashV2MBCS("\x80", 1));  // signed bytes

  // From 400 items on, only every (n >> 6)-th item counts.
  U16 big(1000, 'x');
  std::string bigBytes(1000, 'x');
  const unsigned h = Alg::HashV2UCS2(big.data(), big.size());
  EXPECT_EQ(h, Alg::HashV2MBCS(bigBytes.data(), bigBytes.size()));
  big[1] = 'y';  // not sampled: step is 15
  EXPECT_EQ(h, Alg::HashV2UCS2(big.data(), big.size()));
  big[15] = 'y';
  EXPECT_NE(h, Alg::HashV2UCS2(big.data(), big.size()));
}

}  // namespace
