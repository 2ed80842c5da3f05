// base64: the exact results callers see, and agreement of the vector paths
// with a plain reference on texts long enough to reach them.
#include "NUVSysConverter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

struct Decoded {
  int rc;
  std::vector<unsigned char> bytes;
};

Decoded decode(const char* text) {
  unsigned char* data = reinterpret_cast<unsigned char*>(1);
  size_t n = 99;
  const int rc = NUVSysConverter::ConvertFromBase64(text, data, n);
  Decoded d{rc, {}};
  if (rc != 0) {
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ(0u, n);
  } else if (data) {
    d.bytes.assign(data, data + n);
  }
  delete[] data;
  return d;
}

std::string encode(const std::vector<unsigned char>& bytes) {
  char* text = nullptr;
  const unsigned char dummy = 0;
  EXPECT_EQ(0, NUVSysConverter::ConvertToBase64(bytes.empty() ? &dummy : bytes.data(), bytes.size(), text));
  std::string s = text ? text : "<null>";
  delete[] text;
  return s;
}

// The decoding rules written the plain way, one group at a time.
Decoded reference(const std::string& t) {
  static const std::string kAlpha = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  auto val = [&](char c) -> unsigned {
    const size_t p = c ? kAlpha.find(c) : std::string::npos;
    return p == std::string::npos ? 64u : static_cast<unsigned>(p);
  };
  if (t.empty()) return {0, {}};
  if (t.size() % 4) return {E_FAIL, {}};
  std::vector<unsigned char> out;
  for (size_t i = 0; i < t.size(); i += 4) {
    const bool lastGroup = i + 4 == t.size();
    const unsigned a = val(t[i]), b = val(t[i + 1]), c = val(t[i + 2]), d = val(t[i + 3]);
    if (a > 63 || b > 63) return {E_FAIL, {}};
    if (!lastGroup && (c > 63 || d > 63)) return {E_FAIL, {}};
    if (lastGroup && (c <= 63 ? !(d <= 63 || t[i + 3] == '=') : !(t[i + 2] == '=' && t[i + 3] == '=')))
      return {E_FAIL, {}};
    out.push_back(static_cast<unsigned char>((a << 2) | (b >> 4)));
    out.push_back(static_cast<unsigned char>((b << 4) | ((c >> 2) & 0x0F)));
    out.push_back(static_cast<unsigned char>((c << 6) | (d & 0x3F)));
  }
  size_t n = out.size();
  if (t.back() == '=') --n;
  if (t.back() == '=' && t[t.size() - 2] == '=') --n;
  out.resize(n);
  return {0, out};
}

TEST(NUVSysConverter, DecodingRules) {
  struct Case { const char* text; int rc; std::vector<unsigned char> bytes; };
  const Case kCases[] = {
      {"TWFu", 0, {0x4D, 0x61, 0x6E}},
      {"TWE=", 0, {0x4D, 0x61}},
      {"TQ==", 0, {0x4D}},
      {"", 0, {}},
      {"TR==", 0, {0x4D}},            // padding bits are not checked
      {"TQ=A", E_FAIL, {}},           // '=' third needs '=' fourth
      {"TWFu====", E_FAIL, {}},       // a group of padding
      {"TQ==TWFu", E_FAIL, {}},       // padding before the last group
      {"TWFuT", E_FAIL, {}},          // length not a multiple of 4
      {"TW u", E_FAIL, {}},
      {"TWF\xC3", E_FAIL, {}},        // bytes above 0x7F are not alphabet
      {"=WFu", E_FAIL, {}},
      {"T===", E_FAIL, {}},
      {"TWF-", E_FAIL, {}},           // URL-safe alphabet is not accepted
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.text);
    const Decoded d = decode(c.text);
    EXPECT_EQ(c.rc, d.rc);
    EXPECT_EQ(c.bytes, d.bytes);
  }
  unsigned char* data = nullptr;
  size_t n = 5;
  EXPECT_EQ(E_FAIL, NUVSysConverter::ConvertFromBase64(nullptr, data, n));
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
}

TEST(NUVSysConverter, RoundTripAcrossBlockSizes) {
  std::mt19937 rng(64);
  for (size_t n = 0; n < 400; ++n) {
    std::vector<unsigned char> bytes(n);
    for (auto& b : bytes) b = static_cast<unsigned char>(rng());
    const std::string text = encode(bytes);
    SCOPED_TRACE(n);
    ASSERT_EQ(4 * ((n + 2) / 3), text.size());
    const Decoded d = decode(text.c_str());
    ASSERT_EQ(0, d.rc);
    ASSERT_EQ(bytes, d.bytes);
    ASSERT_EQ(reference(text).bytes, d.bytes);
  }
}

TEST(NUVSysConverter, EveryBadByteAtEveryPositionIsRejected) {
  std::mt19937 rng(3);
  std::vector<unsigned char> bytes(150);
  for (auto& b : bytes) b = static_cast<unsigned char>(rng());
  const std::string good = encode(bytes);  // 200 characters, no padding
  ASSERT_EQ(200u, good.size());
  for (size_t pos = 0; pos < good.size(); ++pos) {
    for (int c = 1; c < 256; ++c) {
      std::string t = good;
      t[pos] = static_cast<char>(c);
      const Decoded want = reference(t);
      const Decoded got = decode(t.c_str());
      if (want.rc != got.rc || want.bytes != got.bytes) {
        FAIL() << "byte " << c << " at " << pos << ": rc " << got.rc << " want " << want.rc;
      }
    }
  }
}

}  // namespace
