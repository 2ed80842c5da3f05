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

// The character steps from `p` on, stored from `o` on: the reference, and
// what finishes a kernel's work.
uint16_t* steps(const uint8_t* p, const uint8_t* end, uint16_t* o) {
  while (p < end) o = appendUtf16(decodeUtf8(p, end), o);
  return o;
}

uint8_t* steps(const uint16_t* p, const uint16_t* end, uint8_t* o) {
  while (p < end) o = appendUtf8(decodeUtf16(p, end), o);
  return o;
}

// One kernel call with `room` (SIZE_MAX: ample): nothing stored past the
// room, and the steps from where it stopped give exactly `want`.
template <typename Kernel, typename In, typename Out>
void check(Kernel kernel, const std::vector<In>& in, const std::vector<Out>& want, size_t room) {
  const Out fill = static_cast<Out>(0xAAAA);
  std::vector<Out> buf(want.size() + 64, fill);
  const auto r = kernel(in.data(), in.data() + in.size(), buf.data(), room);
  for (size_t i = room; i < buf.size(); ++i) ASSERT_EQ(fill, buf[i]) << "store past room at " << i;
  ASSERT_EQ(want, std::vector<Out>(buf.data(), steps(r.in, in.data() + in.size(), r.out)));
}

TEST(UTFKernels, EveryKernelMatchesTheCharacterSteps) {
  const UtfKernels* sets[8];
  const size_t count = availableUtfKernels(sets, 8);
  for (const UtfKernels* k : std::vector<const UtfKernels*>(sets, sets + count)) {
    SCOPED_TRACE(k->name);
    std::mt19937 rng(1234);
    for (int round = 0; round < 300; ++round) {
      const std::vector<uint8_t> s = randomText(rng, rng() % 2000);
      std::vector<uint16_t> u(2 * s.size() + 2);
      u.resize(static_cast<size_t>(steps(s.data(), s.data() + s.size(), u.data()) - u.data()));
      std::vector<uint8_t> back(3 * u.size() + 4);
      back.resize(static_cast<size_t>(steps(u.data(), u.data() + u.size(), back.data()) - back.data()));
      // Room anywhere from tiny to ample.
      ASSERT_NO_FATAL_FAILURE(check(k->utf8To16, s, u, rng() % 3 == 0 ? SIZE_MAX : rng() % (u.size() + 40)));
      ASSERT_NO_FATAL_FAILURE(check(k->utf16To8, u, back, rng() % 3 == 0 ? SIZE_MAX : rng() % (back.size() + 40)));
    }
    // The hashes (h = h * 37 + item) and the length of the ASCII prefix.
    for (int round = 0; round < 200; ++round) {
      const size_t n = rng() % 1500;
      std::vector<uint16_t> u(n);
      for (auto& x : u) x = static_cast<uint16_t>(rng());
      std::vector<uint8_t> b(n);
      for (auto& x : b) x = static_cast<uint8_t>(rng() % 0x80);
      if (n && rng() % 2) b[rng() % n] |= 0x80;
      const uint32_t seed = rng();
      uint32_t hu = seed, hb = seed;
      for (size_t i = 0; i < n; ++i) hu = hu * 37u + u[i], hb = hb * 37u + b[i];
      ASSERT_EQ(hu, k->hashUnits(u.data(), n, seed));
      ASSERT_EQ(hb, k->hashBytes(b.data(), n, seed));
      size_t ascii = 0;
      while (ascii < n && b[ascii] < 0x80) ++ascii;
      ASSERT_EQ(ascii, k->asciiPrefix(b.data(), n));
    }
  }
}

}  // namespace
