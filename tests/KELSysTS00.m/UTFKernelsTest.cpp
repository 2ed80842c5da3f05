// Every kernel set this machine can run (scalar, SSE2, AVX2) against the
// character-step definition: same output on every input, no store past the
// room it is given, stops only on a character boundary.
#include "UTFCore.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

using namespace systemts::detail;

std::vector<uint8_t> randomText(std::mt19937& rng, size_t n) {
  // Runs of one class at a time, so the vector paths see long stretches.
  std::vector<uint8_t> s;
  while (s.size() < n) {
    const unsigned kind = rng() % 7, run = 1 + rng() % 60;
    for (unsigned i = 0; i < run; ++i) {
      switch (kind) {
        case 0: s.push_back(static_cast<uint8_t>(rng() & 0x7F)); break;
        case 1: s.insert(s.end(), {0xE3, static_cast<uint8_t>(0x80 + rng() % 64), 0x82}); break;
        case 2: s.insert(s.end(), {0xC3, static_cast<uint8_t>(0x80 + rng() % 64)}); break;
        case 3: s.insert(s.end(), {0xF0, 0x9F, static_cast<uint8_t>(0x80 + rng() % 64), 0x80}); break;
        case 4: s.insert(s.end(), {0xE0, static_cast<uint8_t>(rng()), static_cast<uint8_t>(rng())}); break;
        default: s.push_back(static_cast<uint8_t>(rng())); break;
      }
    }
  }
  return s;
}

std::vector<uint16_t> reference8to16(const std::vector<uint8_t>& s) {
  std::vector<uint16_t> out(2 * s.size() + 2);
  const uint8_t* p = s.data();
  uint16_t* o = out.data();
  while (p < s.data() + s.size()) o = appendUtf16(decodeUtf8(p, s.data() + s.size()), o);
  out.resize(static_cast<size_t>(o - out.data()));
  return out;
}

std::vector<uint8_t> reference16to8(const std::vector<uint16_t>& u) {
  std::vector<uint8_t> out(3 * u.size() + 4);
  const uint16_t* p = u.data();
  uint8_t* o = out.data();
  while (p < u.data() + u.size()) o = appendUtf8(decodeUtf16(p, u.data() + u.size()), o);
  out.resize(static_cast<size_t>(o - out.data()));
  return out;
}

std::vector<const UtfKernels*> kernelSets() {
  const UtfKernels* sets[8];
  const size_t n = availableUtfKernels(sets, 8);
  return {sets, sets + n};
}

TEST(UTFKernels, TranscodingMatchesTheCharacterSteps) {
  for (const UtfKernels* k : kernelSets()) {
    SCOPED_TRACE(k->name);
    std::mt19937 rng(1234);
    for (int round = 0; round < 300; ++round) {
      const std::vector<uint8_t> s = randomText(rng, rng() % 2000);
      const std::vector<uint16_t> want = reference8to16(s);
      // Room anywhere from tiny to ample; the tail is finished by the steps.
      const size_t room = rng() % 3 == 0 ? SIZE_MAX : rng() % (want.size() + 40);
      const size_t bufSize = want.size() + 64;
      std::vector<uint16_t> buf(bufSize, 0xAAAA);
      const auto r = k->utf8To16(s.data(), s.data() + s.size(), buf.data(), room);
      const size_t stored = static_cast<size_t>(r.out - buf.data());
      if (room != SIZE_MAX) {
        ASSERT_LE(stored, room);
        for (size_t i = room; i < bufSize; ++i) ASSERT_EQ(0xAAAA, buf[i]) << "store past room at " << i;
      }
      // Stopped on a boundary: the steps from here give exactly the rest.
      ASSERT_TRUE(std::equal(buf.begin(), buf.begin() + static_cast<ptrdiff_t>(stored), want.begin()));
      const uint8_t* p = r.in;
      uint16_t* o = r.out;
      while (p < s.data() + s.size()) o = appendUtf16(decodeUtf8(p, s.data() + s.size()), o);
      ASSERT_EQ(want, std::vector<uint16_t>(buf.data(), o));

      const std::vector<uint8_t> back = reference16to8(want);
      const size_t room8 = rng() % 3 == 0 ? SIZE_MAX : rng() % (back.size() + 40);
      std::vector<uint8_t> buf8(back.size() + 64, 0xAA);
      const auto r8 = k->utf16To8(want.data(), want.data() + want.size(), buf8.data(), room8);
      if (room8 != SIZE_MAX) {
        for (size_t i = room8; i < buf8.size(); ++i) ASSERT_EQ(0xAA, buf8[i]) << "store past room at " << i;
      }
      const uint16_t* q = r8.in;
      uint8_t* o8 = r8.out;
      while (q < want.data() + want.size()) o8 = appendUtf8(decodeUtf16(q, want.data() + want.size()), o8);
      ASSERT_EQ(back, std::vector<uint8_t>(buf8.data(), o8));
    }
  }
}

TEST(UTFKernels, HashAndAsciiScan) {
  for (const UtfKernels* k : kernelSets()) {
    SCOPED_TRACE(k->name);
    std::mt19937 rng(77);
    for (int round = 0; round < 200; ++round) {
      const size_t n = rng() % 1500;
      std::vector<uint16_t> u(n);
      for (auto& x : u) x = static_cast<uint16_t>(rng());
      std::vector<uint8_t> b(n);
      for (auto& x : b) x = static_cast<uint8_t>(rng() % 0x80);
      if (n && rng() % 2) b[rng() % n] |= 0x80;
      const uint32_t seed = rng();
      uint32_t hu = seed, hb = seed;
      for (size_t i = 0; i < n; ++i) hu = hu * 37u + u[i];
      for (size_t i = 0; i < n; ++i) hb = hb * 37u + b[i];
      ASSERT_EQ(hu, k->hashUnits(u.data(), n, seed));
      ASSERT_EQ(hb, k->hashBytes(b.data(), n, seed));
      size_t ascii = 0;
      while (ascii < n && b[ascii] < 0x80) ++ascii;
      ASSERT_EQ(ascii, k->asciiPrefix(b.data(), n));
    }
  }
}

}  // namespace
