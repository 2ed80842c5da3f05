// Behaviour of the public UTF transforms and hashes that callers rely on,
// including the lenient and boundary cases kept for compatibility.
#include "NUVSysUCAlgorithm.h"

#include <gtest/gtest.h>
#include <utf8/unchecked.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using U16 = std::vector<unsigned short>;
using Alg = NUVSysUCAlgorithm;

// Text that mixes everything real and broken input holds: ASCII runs, two-,
// three- and four-byte characters, stray continuation bytes, invalid leads,
// sequences cut short, random bytes.
std::string mixedUtf8(std::mt19937& rng, size_t approxLen) {
  static const char* const kPieces[] = {"hello world, ", "\xC3\xA9", "\xC3\xBC", "\xE6\x97\xA5\xE6\x9C\xAC",
                                        "\xE3\x81\x82", "\xF0\x9F\x98\x80", "\xED\xA0\x80",
                                        "\xC0\x80", "\x80", "\xBF", "\xFF", "\xF8\x88\x80\x80\x80",
                                        "\xE2\x82", "\xF0\x9F", "\xC3", "\xEF\xBF\xBD"};
  std::string s;
  std::uniform_int_distribution<int> pick(0, 19);
  while (s.size() < approxLen) {
    const int k = pick(rng);
    if (k < 16) {
      s += kPieces[k];
    } else if (k < 18) {
      const size_t run = rng() % 80;
      for (size_t i = 0; i < run; ++i) s += static_cast<char>('a' + rng() % 26);
    } else if (k == 18) {
      for (int i = 0; i < 12; ++i) s += "\xE3\x83\x95";  // a run of three-byte characters
    } else {
      s += static_cast<char>(rng() & 0xFF);
    }
  }
  return s;
}

U16 mixedUtf16(std::mt19937& rng, size_t n) {
  U16 u;
  while (u.size() < n) {
    switch (rng() % 6) {
      case 0: for (int i = 0; i < 40; ++i) u.push_back(static_cast<unsigned short>('a' + rng() % 26)); break;
      case 1: for (int i = 0; i < 20; ++i) u.push_back(static_cast<unsigned short>(0x3040 + rng() % 0x60)); break;
      case 2: u.push_back(0xD83D); u.push_back(0xDE00); break;
      case 3: u.push_back(static_cast<unsigned short>(0xD800 + rng() % 0x800)); break;  // any surrogate
      case 4: u.push_back(static_cast<unsigned short>(0x80 + rng() % 0x780)); break;
      default: u.push_back(static_cast<unsigned short>(rng())); break;
    }
  }
  return u;
}

// utfcpp's unchecked transforms, given the zero padding they may read past the
// end: the reference our transforms must match on terminated text.
U16 refUtf8To16(const std::string& s) {
  std::string padded = s + std::string(4, '\0');
  U16 out(s.size() + 4);
  auto* end = utf8::unchecked::utf8to16(padded.data(), padded.data() + s.size(), out.data());
  out.resize(static_cast<size_t>(end - out.data()));
  return out;
}

std::string refUtf16To8(U16 u) {
  // A high surrogate in the last position takes the zero after it as partner.
  size_t n = 0;
  while (n < u.size()) n += (u[n] >= 0xD800 && u[n] <= 0xDBFF) ? 2 : 1;
  u.push_back(0);
  std::string out(3 * n + 4, '\0');
  auto* end = utf8::unchecked::utf16to8(u.data(), u.data() + n, &out[0]);
  out.resize(static_cast<size_t>(end - out.data()));
  return out;
}

U16 ours8to16(const std::string& s) {
  U16 out(s.size() + 2);
  auto* end = Alg::unchecked::utf8to16(s.data(), s.data() + s.size(), out.data());
  out.resize(static_cast<size_t>(end - out.data()));
  return out;
}

std::string ours16to8(const U16& u) {
  std::string out(3 * u.size() + 4, '\0');
  char* end = Alg::unchecked::utf16to8(u.data(), u.data() + u.size(), &out[0]);
  out.resize(static_cast<size_t>(end - out.data()));
  return out;
}

// Converts in calls of the given capacities, resuming from what each call
// gave back, and checks the resume contract on the way.
::testing::AssertionResult chunked8to16(const std::string& s, unsigned cap, U16& out) {
  const char* p = s.data();
  int len = static_cast<int>(s.size());
  out.clear();
  std::vector<unsigned short> buf(cap);
  while (p) {
    const unsigned n = Alg::ConvertUTF8ToUTF16(p, len, buf.data(), cap);
    if (n > cap) return ::testing::AssertionFailure() << "wrote " << n << " units into " << cap;
    if (n == 0 && p) return ::testing::AssertionFailure() << "no progress at " << (p - s.data());
    if (p && len <= 0) return ::testing::AssertionFailure() << "non-null pointer with length " << len;
    out.insert(out.end(), buf.begin(), buf.begin() + n);
  }
  if (len != 0) return ::testing::AssertionFailure() << "length left " << len;
  return ::testing::AssertionSuccess();
}

TEST(NUVSysUCAlgorithm, UncheckedTransformsMatchUtfcppOnMixedInput) {
  std::mt19937 rng(20261123);
  for (int round = 0; round < 400; ++round) {
    const std::string s = mixedUtf8(rng, rng() % 700);
    SCOPED_TRACE(round);
    const U16 u = ours8to16(s);
    ASSERT_EQ(refUtf8To16(s), u);
    // utf8to32 then utf32to16 agrees with the direct transform.
    std::vector<unsigned> cps(s.size() + 1);
    unsigned* cend = Alg::unchecked::utf8to32(s.data(), s.data() + s.size(), cps.data());
    U16 viaCps(2 * s.size() + 2);
    viaCps.resize(static_cast<size_t>(Alg::unchecked::utf32to16(cps.data(), cend, viaCps.data()) - viaCps.data()));
    ASSERT_EQ(u, viaCps);

    const U16 w = mixedUtf16(rng, rng() % 500);
    const std::string b = ours16to8(w);
    ASSERT_EQ(refUtf16To8(w), b);
    std::vector<unsigned> cps16(w.size() + 1);
    unsigned* c16end = Alg::unchecked::utf16to32(w.data(), w.data() + w.size(), cps16.data());
    std::string viaCps8(4 * w.size() + 4, '\0');
    viaCps8.resize(static_cast<size_t>(Alg::unchecked::utf32to8(cps16.data(), c16end, &viaCps8[0]) - viaCps8.data()));
    ASSERT_EQ(b, viaCps8);
  }
}

TEST(NUVSysUCAlgorithm, LenientDecodingAndSurrogateArithmetic) {
  struct Case { const char* bytes; U16 units; };
  const Case kCases[] = {
      {"\xFF", {0x00FF}},                 // invalid lead passes through
      {"\x80\xBF", {0x0080, 0x00BF}},     // stray continuation bytes too
      {"\xC3\xA9", {0x00E9}},
      {"\xC3\x41", {0x00C1}},             // continuation not checked: (0xC3<<6 & 0x7FF) + 1
      {"\xED\xA0\x80", {0xD800}},         // a surrogate code point is just decoded
      {"\xF0\x9F\x98\x80", {0xD83D, 0xDE00}},
      {"\xF7\xBF\xBF\xBF", {0xDFBF, 0xDFFF}},  // above U+10FFFF: wrapped pair
      {"\xE2\x82", {0x2080}},             // cut by the end: missing byte reads as zero
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.bytes);
    EXPECT_EQ(c.units, ours8to16(c.bytes));
  }
  // A high surrogate swallows whatever follows; a lone low one is a code point.
  unsigned cp[2];
  const unsigned short pair[] = {0xD83D, 0x0041};
  ASSERT_EQ(cp + 1, Alg::unchecked::utf16to32(pair, pair + 2, cp));
  EXPECT_EQ((0xD83Du << 10) + 0x41u - 0x35FDC00u, cp[0]);
  EXPECT_EQ("\xED\xB0\x80", ours16to8({0xDC00}));
  EXPECT_EQ("\xF0\x9F\x98\x80", ours16to8({0xD83D, 0xDE00}));
  // A high surrogate at the very end pairs with a zero unit and stops there.
  EXPECT_EQ(ours16to8({0xD83D, 0}), ours16to8({0xD83D}));
}

TEST(NUVSysUCAlgorithm, BoundedConversionArgumentsAndEnd) {
  unsigned short buf[8];
  const char* p = nullptr;
  int len = 3;
  EXPECT_EQ(0xFFFFFFFFu, Alg::ConvertUTF8ToUTF16(p, len, buf, 8));
  p = "abc";
  len = -1;
  EXPECT_EQ(0xFFFFFFFFu, Alg::ConvertUTF8ToUTF16(p, len, buf, 8));
  EXPECT_STREQ("abc", p);
  len = 0;
  EXPECT_EQ(0u, Alg::ConvertUTF8ToUTF16(p, len, buf, 8));
  EXPECT_EQ(nullptr, p);

  // Counting mode consumes the input too.
  const char* text = "A\xF0\x9F\x98\x80\xC3\xA9";
  p = text;
  len = 7;
  EXPECT_EQ(4u, Alg::ConvertUTF8ToUTF16(p, len, nullptr, 0));
  EXPECT_EQ(nullptr, p);
  EXPECT_EQ(0, len);

  // A sequence cut by the end counts as consumed: length 0, pointer null.
  p = "ab\xE2\x82";
  len = 4;
  EXPECT_EQ(3u, Alg::ConvertUTF8ToUTF16(p, len, buf, 8));
  EXPECT_EQ(nullptr, p);
  EXPECT_EQ(0, len);
  EXPECT_EQ(0x2080, buf[2]);

  // The 64-bit-length form writes the length back.
  p = "xyz";
  unsigned long ulen = 3;
  EXPECT_EQ(3u, Alg::ConvertUTF8ToUCS2(p, ulen, buf, 8));
  EXPECT_EQ(0ul, ulen);
  EXPECT_EQ(nullptr, p);
}

TEST(NUVSysUCAlgorithm, BoundedConversionGivesBackWhatDoesNotFit) {
  const char* const text = "A\xF0\x9F\x98\x80";
  const char* p = text;
  int len = 5;
  unsigned short buf[2] = {0, 0};
  EXPECT_EQ(1u, Alg::ConvertUTF8ToUTF16(p, len, buf, 2));
  EXPECT_EQ(text + 1, p);
  EXPECT_EQ(4, len);
  EXPECT_EQ('A', buf[0]);
  EXPECT_EQ(2u, Alg::ConvertUTF8ToUTF16(p, len, buf, 2));
  EXPECT_EQ(nullptr, p);
  EXPECT_EQ(0xD83D, buf[0]);
  EXPECT_EQ(0xDE00, buf[1]);

  // UTF-16 to UTF-8: three-byte characters into 5 bytes: one fits, the next is given back.
  const unsigned short jp[] = {0x65E5, 0x672C};
  const unsigned short* q = jp;
  len = 2;
  char out[5];
  EXPECT_EQ(3u, Alg::ConvertUTF16ToUTF8(q, len, out, 5));
  EXPECT_EQ(jp + 1, q);
  EXPECT_EQ(1, len);
  // With 6 bytes: the second goes through the last-character path and fits.
  q = jp;
  len = 2;
  char out6[6];
  EXPECT_EQ(6u, Alg::ConvertUTF16ToUTF8(q, len, out6, 6));
  EXPECT_EQ(nullptr, q);
  EXPECT_EQ(0, std::memcmp(out6, "\xE6\x97\xA5\xE6\x9C\xAC", 6));
}

TEST(NUVSysUCAlgorithm, ChunkedConversionReassemblesTheWhole) {
  std::mt19937 rng(7);
  for (int round = 0; round < 200; ++round) {
    const std::string s = mixedUtf8(rng, 1 + rng() % 900);
    const unsigned cap = 2 + rng() % 300;
    SCOPED_TRACE(testing::Message() << "round " << round << " cap " << cap);
    U16 got;
    ASSERT_TRUE(chunked8to16(s, cap, got));
    ASSERT_EQ(ours8to16(s), got);

    const U16 w = mixedUtf16(rng, 1 + rng() % 600);
    const unsigned cap8 = 4 + rng() % 300;
    const unsigned short* q = w.data();
    int len = static_cast<int>(w.size());
    std::string whole, buf(cap8, '\0');
    while (q) {
      const unsigned n = Alg::ConvertUTF16ToUTF8(q, len, &buf[0], cap8);
      ASSERT_LE(n, cap8);
      ASSERT_TRUE(n > 0 || !q);
      whole.append(buf.data(), n);
    }
    ASSERT_EQ(ours16to8(w), whole);
    // Counting mode agrees with what is written.
    q = w.data();
    len = static_cast<int>(w.size());
    ASSERT_EQ(whole.size(), Alg::ConvertUTF16ToUTF8(q, len, nullptr, 0));
  }
}

TEST(NUVSysUCAlgorithm, LegacyDecoderStatuses) {
  unsigned short out[16];
  int n = -7;
  EXPECT_EQ(-1, Alg::ConvertUTF8ToUCS2Legacy("abc", 3, nullptr, &n));
  EXPECT_EQ(-7, n);  // untouched on -1

  EXPECT_EQ(0, Alg::ConvertUTF8ToUCS2Legacy("\xF0\x9F\x98\x80", 4, out, &n));
  EXPECT_EQ(1, n);
  EXPECT_EQ('?', out[0]);

  EXPECT_EQ(-2, Alg::ConvertUTF8ToUCS2Legacy("\xE2", 1, out, &n));
  EXPECT_EQ(0, n);
  EXPECT_EQ(-2, Alg::ConvertUTF8ToUCS2Legacy("ab\xF0\x9F", 4, out, &n));
  EXPECT_EQ(2, n);

  // The boundary: a two-byte lead as the last byte reads the terminating NUL.
  EXPECT_EQ(0, Alg::ConvertUTF8ToUCS2Legacy("\xC3", 1, out, &n));
  EXPECT_EQ(1, n);
  EXPECT_EQ((0xC3u << 6) - 0x3080u, out[0]);

  EXPECT_EQ(0, Alg::ConvertUTF8ToUCS2Legacy("a\xC3\xA9\xE2\x82\xAC", 6, out, &n));
  ASSERT_EQ(3, n);
  EXPECT_EQ(0xE9, out[1]);
  EXPECT_EQ(0x20AC, out[2]);
}

TEST(NUVSysUCAlgorithm, ValidationAndCharacterLength) {
  struct Case { std::string bytes; int isUtf8; };
  const Case kCases[] = {
      {"", 0}, {"plain", 0}, {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", 0},
      {std::string("\xC0\x80", 2), -1},   // overlong NUL
      {"\xED\xA0\x80", -1},               // surrogate
      {"\xF4\x90\x80\x80", -1},           // above U+10FFFF
      {"\xE2\x82", -1},                   // cut
      {"\xE2\x28\xA1", -1},               // missing continuation
      {"\x80", -1}, {"\xF8\x88\x80\x80\x80", -1},
      {std::string(100, 'a') + "\xFF", -1},  // after a long ASCII run
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.bytes);
    const char* p = c.bytes.data();
    EXPECT_EQ(c.isUtf8, Alg::IsUTF8(p, c.bytes.size()));
    EXPECT_EQ(c.bytes.data(), p);
  }
  EXPECT_EQ(3, Alg::CharUTF8Len("\xE2\x82\xAC", 3));
  EXPECT_EQ(-1, Alg::CharUTF8Len("\xE2\x82\xAC", 2));
  EXPECT_EQ(4, Alg::CharUTF8Len("\xF0\x9F\x98\x80z", 5));
  EXPECT_EQ(1, Alg::CharUTF8Len("z", 1));
  EXPECT_EQ(0, Alg::CharUTF8Len("", 1));
  EXPECT_EQ(-1, Alg::CharUTF8Len(nullptr, 4));
  EXPECT_EQ(-1, Alg::CharUTF8Len("\xC0\x80", 2));
}

unsigned naiveV3(const U16& u, unsigned h) {
  for (unsigned short x : u) h = h * 37u + x;
  return h;
}

TEST(NUVSysUCAlgorithm, V3HashesAgreeAcrossForms) {
  const unsigned short ab[] = {'a', 'b'};
  EXPECT_EQ(3687u, Alg::HashV3FromUCS2(ab, 2, 0));
  EXPECT_EQ(3687u, Alg::HashV3FromUTF8("ab", 2, 0));
  EXPECT_EQ(3687u, Alg::HashV3FromMBCSOptimistic("ab", 2, 0, nullptr));
  EXPECT_EQ(42u, Alg::HashV3FromMBCS(nullptr, 5, 42, nullptr));

  std::mt19937 rng(99);
  for (int round = 0; round < 100; ++round) {
    const std::string s = mixedUtf8(rng, rng() % 3000);
    const U16 u = ours8to16(s);
    const unsigned seed = rng();
    SCOPED_TRACE(round);
    const unsigned want = naiveV3(u, seed);
    ASSERT_EQ(want, Alg::HashV3FromUCS2(u.data(), u.size(), seed));
    ASSERT_EQ(want, Alg::HashV3FromUTF8(s.data(), s.size(), seed));
    ASSERT_EQ(want, Alg::HashV3FromMBCS(s.data(), s.size(), seed, nullptr));
    ASSERT_EQ(want, Alg::HashV3FromMBCSOptimistic(s.data(), s.size(), seed, nullptr));
  }
}

TEST(NUVSysUCAlgorithm, V2HashesKeepTheirAsymmetries) {
  const unsigned short none[1] = {0};
  EXPECT_EQ(1u, Alg::HashV2UCS2(none, 0));
  EXPECT_EQ(0u, Alg::HashV2MBCS("", 0));
  EXPECT_EQ(0x7FFFFF80u, Alg::HashV2MBCS("\x80", 1));  // signed bytes
  EXPECT_EQ(1u, Alg::HashV2UCS2(none, 1));             // zero accumulator gives 1
  EXPECT_EQ(0u, Alg::HashV2MBCS("\0", 1));
  const unsigned short ab[] = {'a', 'b'};
  EXPECT_EQ(3687u, Alg::HashV2UCS2(ab, 2));

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
