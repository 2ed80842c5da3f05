// base64: the exact results callers see, and agreement of the vector paths
// with a plain reference on texts long enough to reach them.
#include "NUVSysConverter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// `buffer` is everything the decoder allocated, 3 * (length / 4) bytes, padding included.
struct Decoded {
  int rc;
  size_t n;
  Bytes buffer;
  bool operator==(const Decoded& o) const { return rc == o.rc && n == o.n && buffer == o.buffer; }
};
void PrintTo(const Decoded& d, std::ostream* os) {
  *os << "rc " << d.rc << ", n " << d.n << ", buffer " << ::testing::PrintToString(d.buffer);
}

Decoded decode(const std::string& text) {
  unsigned char* data = reinterpret_cast<unsigned char*>(1);
  size_t n = 99;
  const int rc = NUVSysConverter::ConvertFromBase64(text.c_str(), data, n);
  Decoded d{rc, n, {}};
  if (rc != 0 || text.empty()) {
    EXPECT_EQ(nullptr, data);  // every failure, and the empty text, leave no buffer
    EXPECT_EQ(0u, n);
    return d;
  }
  d.buffer.assign(data, data + 3 * (text.size() / 4));
  delete[] data;
  return d;
}

std::string encode(const Bytes& bytes) {
  char* text = nullptr;
  const unsigned char dummy = 0;
  EXPECT_EQ(0, NUVSysConverter::ConvertToBase64(bytes.empty() ? &dummy : bytes.data(), bytes.size(), text));
  std::string s = text ? text : "<null>";
  delete[] text;
  return s;
}

// The decoding rules written the plain way, one group at a time; '=' counts as 64.
Decoded reference(const std::string& t) {
  static const std::string kAlpha = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  auto val = [](char c) { const size_t p = kAlpha.find(c); return p == std::string::npos ? 64u : unsigned(p); };
  if (t.empty()) return {0, 0, {}};
  if (t.size() % 4) return {E_FAIL, 0, {}};
  Bytes out;
  for (size_t i = 0; i < t.size(); i += 4) {
    const unsigned a = val(t[i]), b = val(t[i + 1]), c = val(t[i + 2]), d = val(t[i + 3]);
    const bool ok = a < 64 && b < 64 &&
                    (i + 4 < t.size() ? c < 64 && d < 64
                                      : c < 64 ? d < 64 || t[i + 3] == '=' : t[i + 2] == '=' && t[i + 3] == '=');
    if (!ok) return {E_FAIL, 0, {}};
    for (unsigned v : {(a << 2) | (b >> 4), (b << 4) | ((c >> 2) & 0x0F), (c << 6) | (d & 0x3F)})
      out.push_back(static_cast<unsigned char>(v));
  }
  const size_t pad = t.back() == '=' ? (t[t.size() - 2] == '=' ? 2 : 1) : 0;
  return {0, out.size() - pad, out};
}

TEST(NUVSysConverter, DecodingRules) {
  const Decoded kFail{E_FAIL, 0, {}};
  const struct { const char* text; Decoded want; } kCases[] = {
      {"TWFu", {0, 3, {0x4D, 0x61, 0x6E}}},
      {"TWE=", {0, 2, {0x4D, 0x61, 0x00}}},
      {"TQ==", {0, 1, {0x4D, 0x00, 0x00}}},
      {"TR==", {0, 1, {0x4D, 0x10, 0x00}}},  // padding bits unchecked, kept in the buffer
      {"TWF=", {0, 2, {0x4D, 0x61, 0x40}}},
      {"", {0, 0, {}}},
      {"TQ=A", kFail},      // '=' third needs '=' fourth
      {"TWFu====", kFail},  // a group of padding
      {"TQ==TWFu", kFail},  // padding before the last group
      {"TWFuT", kFail},     // length not a multiple of 4
      {"TW u", kFail},
      {"TWF\xC3", kFail},   // bytes above 0x7F are not alphabet
      {"=WFu", kFail},
      {"T===", kFail},
      {"TWF-", kFail},      // the URL-safe alphabet is not accepted
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(c.want, decode(c.text));
  }
  unsigned char* data = reinterpret_cast<unsigned char*>(1);
  size_t n = 5;
  EXPECT_EQ(E_FAIL, NUVSysConverter::ConvertFromBase64(nullptr, data, n));
  EXPECT_EQ(nullptr, data);
  EXPECT_EQ(0u, n);
}

TEST(NUVSysConverter, EncodingResults) {
  EXPECT_EQ("TWE=", encode({0x4D, 0x61}));
  EXPECT_EQ("TQ==", encode({0x4D}));
  EXPECT_EQ("TWFu", encode({0x4D, 0x61, 0x6E}));
  EXPECT_EQ("", encode({}));
  EXPECT_EQ("+/8=", encode({0xFB, 0xFF}));
  char* text = reinterpret_cast<char*>(1);
  EXPECT_EQ(E_FAIL, NUVSysConverter::ConvertToBase64(nullptr, 3, text));
  EXPECT_EQ(nullptr, text);
  // A length whose text cannot be sized is refused before anything is read.
  const unsigned char one = 0;
  text = reinterpret_cast<char*>(1);
  EXPECT_EQ(E_FAIL, NUVSysConverter::ConvertToBase64(&one, SIZE_MAX, text));
  EXPECT_EQ(nullptr, text);
}

// Lengths up to 400 bytes cross the vector block sizes of both directions.
TEST(NUVSysConverter, RoundTripAcrossBlockSizes) {
  std::mt19937 rng(64);
  for (size_t n = 0; n < 400; ++n) {
    SCOPED_TRACE(n);
    Bytes bytes(n);
    for (auto& b : bytes) b = static_cast<unsigned char>(rng());
    const std::string text = encode(bytes);
    ASSERT_EQ(4 * ((n + 2) / 3), text.size());
    const Decoded d = decode(text);
    ASSERT_EQ(reference(text), d);
    ASSERT_EQ(bytes, Bytes(d.buffer.begin(), d.buffer.begin() + d.n));
  }
}

// Every byte value (alphabet, '=', controls, above 0x7F) at every position of
// a 200-character text: the vector decoder must accept and refuse exactly
// what the reference does, wherever the byte falls in a block.
TEST(NUVSysConverter, EveryByteAtEveryPositionMatchesReference) {
  std::mt19937 rng(3);
  Bytes bytes(150);
  for (auto& b : bytes) b = static_cast<unsigned char>(rng());
  const std::string good = encode(bytes);
  ASSERT_EQ(200u, good.size());
  for (size_t pos = 0; pos < good.size(); ++pos) {
    for (int c = 1; c < 256; ++c) {
      std::string t = good;
      t[pos] = static_cast<char>(c);
      const Decoded want = reference(t), got = decode(t);
      if (!(want == got))
        FAIL() << "byte " << c << " at " << pos << ": got " << ::testing::PrintToString(got) << ", want "
               << ::testing::PrintToString(want);
    }
  }
}

}  // namespace
