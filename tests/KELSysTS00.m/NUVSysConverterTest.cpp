// base64: the exact results callers see, and the vector paths on texts long
// enough to reach them. Arbitrary texts against a plain reading of the rules
// are the fuzz target base64_decode's.
#include "NUVSysConverter.h"

#include "KELSysTSCodePage.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// The result, the length, and everything the decoder allocated: 3 * (length / 4)
// bytes, padding included.
using Decoded = std::tuple<int, size_t, Bytes>;

Decoded decode(const char* text) {
  unsigned char* data = reinterpret_cast<unsigned char*>(1);
  size_t n = 99;
  const int rc = NUVSysConverter::ConvertFromBase64(text, data, n);
  const size_t len = text != nullptr ? std::strlen(text) : 0;
  if (rc != 0 || len == 0) {
    EXPECT_EQ(nullptr, data);  // every failure, and the empty text, leave no buffer
    EXPECT_EQ(0u, n);
    return {rc, n, {}};
  }
  Decoded d{rc, n, Bytes(data, data + 3 * (len / 4))};
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

TEST(NUVSysConverter, DecodingAndEncodingResults) {
  const Decoded kFail{E_FAIL, 0, {}};
  const struct { const char* text; Decoded want; } kCases[] = {
      {"TWFu", {0, 3, {0x4D, 0x61, 0x6E}}}, {"TWE=", {0, 2, {0x4D, 0x61, 0x00}}}, {"", {0, 0, {}}},
      {"TQ==", {0, 1, {0x4D, 0x00, 0x00}}},
      // Padding bits are not checked and stay in the buffer.
      {"TR==", {0, 1, {0x4D, 0x10, 0x00}}}, {"TWF=", {0, 2, {0x4D, 0x61, 0x40}}},
      // A group of padding, padding before the last group, a length not a
      // multiple of 4, no text; one character out of place is
      // EveryByteAtEveryPosition's.
      {"TWFu====", kFail}, {"TQ==TWFu", kFail}, {"TWFuT", kFail}, {"T===", kFail}, {nullptr, kFail},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text != nullptr ? c.text : "(null)");
    EXPECT_EQ(c.want, decode(c.text));
  }
  for (const auto& [bytes, text] : std::vector<std::pair<Bytes, std::string>>{
           {{0x4D, 0x61}, "TWE="}, {{0x4D}, "TQ=="}, {{0x4D, 0x61, 0x6E}, "TWFu"}, {{}, ""}, {{0xFB, 0xFF}, "+/8="}}) {
    EXPECT_EQ(text, encode(bytes));
  }
  // A length whose text cannot be sized is refused before anything is read.
  const unsigned char one = 0;
  char* text = reinterpret_cast<char*>(1);
  EXPECT_EQ(E_FAIL, NUVSysConverter::ConvertToBase64(&one, SIZE_MAX, text));
  EXPECT_EQ(nullptr, text);
}

// The string code's front takes 32-bit lengths and a non-const byte pointer:
// taking the functions at exactly those types is what a caller built against
// them links to.
TEST(NUVSysConverter, StringFrontForwardsWith32BitLengths) {
  int (*const toBase64)(unsigned char*, unsigned int, char*&) = &KELSysTSCodePage::ConvertToBase64;
  int (*const fromBase64)(const char*, unsigned char*&, unsigned int&) = &KELSysTSCodePage::ConvertFromBase64;
  unsigned char man[] = {0x4D, 0x61, 0x6E, 0x4D};
  const struct { unsigned int n; const char* text; } kCases[] = {{4, "TWFuTQ=="}, {2, "TWE="}, {0, ""}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    char* text = nullptr;
    ASSERT_EQ(0, toBase64(man, c.n, text));
    EXPECT_STREQ(c.text, text);
    unsigned char* data = nullptr;
    unsigned int n = 99;
    EXPECT_EQ(0, fromBase64(text, data, n));
    EXPECT_EQ(c.n, n);
    EXPECT_EQ(0, c.n == 0 ? 0 : std::memcmp(man, data, c.n));
    delete[] data;
    delete[] text;
  }
  char* text = reinterpret_cast<char*>(1);
  EXPECT_EQ(E_FAIL, toBase64(nullptr, 3, text));
  EXPECT_EQ(nullptr, text);
  unsigned char* data = reinterpret_cast<unsigned char*>(1);
  unsigned int n = 7;
  EXPECT_EQ(E_FAIL, fromBase64("TQ=A", data, n));
  EXPECT_EQ(nullptr, data);
  EXPECT_EQ(0u, n);
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
    bytes.resize(3 * (text.size() / 4));  // our own padding bits are zero
    ASSERT_EQ(Decoded(0, n, bytes), decode(text.c_str()));
  }
}

// Every byte value put at every position of a 200-character text, so in every
// lane of the vector blocks: only the alphabet, and '=' last, is accepted, and
// an accepted text without padding encodes back to itself.
TEST(NUVSysConverter, EveryByteAtEveryPosition) {
  static const char kAlpha[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::mt19937 rng(3);
  Bytes bytes(150);
  for (auto& b : bytes) b = static_cast<unsigned char>(rng());
  const std::string good = encode(bytes);
  ASSERT_EQ(200u, good.size());
  for (size_t pos = 0; pos < good.size(); ++pos) {
    for (int c = 1; c < 256; ++c) {
      std::string t = good;
      t[pos] = static_cast<char>(c);
      const bool ok = std::strchr(kAlpha, c) != nullptr || (c == '=' && pos == good.size() - 1);
      const auto [rc, n, buffer] = decode(t.c_str());
      if (rc != (ok ? 0 : E_FAIL) || n != (ok ? 150u - (c == '=') : 0u) || (ok && c != '=' && encode(buffer) != t)) {
        FAIL() << "byte " << c << " at " << pos << ": rc " << rc << ", n " << n;
      }
    }
  }
}

}  // namespace
