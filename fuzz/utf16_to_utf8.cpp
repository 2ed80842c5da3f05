// Bounded UTF-16 to UTF-8: chunked conversion equals the one-shot one and the
// unchecked transform, which matches the classic encoder; counting mode
// predicts the size; no capacity is passed.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <utf8/unchecked.h>

#include "NUVSysUCAlgorithm.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;  // two bytes of chunk seed, then at least one unit
  const unsigned seed = data[0] | (data[1] << 8);
  std::vector<unsigned short> units((size - 2) / 2);
  if (!units.empty()) std::memcpy(units.data(), data + 2, units.size() * 2);
  const int n = static_cast<int>(units.size());

  std::string unchecked(3 * units.size() + 4, '\0');
  unchecked.resize(static_cast<size_t>(
      NUVSysUCAlgorithm::unchecked::utf16to8(units.data(), units.data() + n, &unchecked[0]) -
      unchecked.data()));

  // Reference: the classic unchecked encoder; a high surrogate in the last
  // position takes the zero unit after it as its partner.
  size_t refEnd = 0;
  while (refEnd < units.size()) refEnd += (units[refEnd] >= 0xD800 && units[refEnd] <= 0xDBFF) ? 2 : 1;
  std::vector<unsigned short> padded(units);
  padded.push_back(0);
  std::string ref(3 * units.size() + 4, '\0');
  ref.resize(static_cast<size_t>(
      utf8::unchecked::utf16to8(padded.data(), padded.data() + refEnd, &ref[0]) - ref.data()));
  if (ref != unchecked) abort();

  const unsigned short* p = units.data();
  int len = n;
  if (NUVSysUCAlgorithm::ConvertUTF16ToUTF8(p, len, nullptr, 0) != unchecked.size()) abort();

  std::string joined;
  p = units.data();
  len = n;
  unsigned step = 0;
  bool refused = false;
  while (p) {
    // Capacities from 0: below 4 a call either gives its whole result or
    // refuses (0, nothing consumed); the next call then has room for any
    // character.
    const unsigned cap = refused ? 4 : (seed >> (step++ % 12)) % 36;
    std::string buf(cap + 1, '\x5A');
    const unsigned short* const before = p;
    const int lenBefore = len;
    const unsigned got = NUVSysUCAlgorithm::ConvertUTF16ToUTF8(p, len, &buf[0], cap);
    if (got > cap || buf[cap] != '\x5A') abort();
    refused = p != nullptr && got == 0;
    if (refused) {
      const unsigned short* q = p;
      int l = len;
      if (cap >= 4 || p != before || len != lenBefore || NUVSysUCAlgorithm::ConvertUTF16ToUTF8(q, l, nullptr, 0) <= cap) {
        abort();
      }
    }
    if (p && len <= 0) abort();
    joined.append(buf.data(), got);
  }
  if (joined != unchecked) abort();
  return 0;
}
