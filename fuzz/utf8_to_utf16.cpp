// Bounded UTF-8 to UTF-16: a conversion resumed in chunks of random capacity
// reassembles exactly to the one-shot result, never writes past a capacity,
// and counting mode predicts the size.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include <utf8/unchecked.h>

#include "NUVSysUCAlgorithm.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;  // two bytes of chunk seed, then a non-empty text
  const unsigned seed = data[0] | (data[1] << 8);
  const std::vector<char> text(data + 2, data + size);
  const int n = static_cast<int>(text.size());

  std::vector<unsigned short> whole(text.size() + 2);
  const char* p = text.data();
  int len = n;
  const unsigned total = NUVSysUCAlgorithm::ConvertUTF8ToUTF16(p, len, whole.data(),
                                                               static_cast<unsigned>(whole.size()));
  if (p != nullptr || len != 0 || total > text.size() + 1) abort();  // a cut last sequence may still give a pair
  whole.resize(total);

  // The classic unchecked decoder, given the zero bytes a terminated buffer
  // has after the text, is the reference.
  std::vector<char> padded(text);
  padded.resize(text.size() + 4, '\0');
  std::vector<unsigned short> ref(text.size() + 2);
  ref.resize(static_cast<size_t>(
      utf8::unchecked::utf8to16(padded.data(), padded.data() + text.size(), ref.data()) - ref.data()));
  if (ref != whole) abort();

  p = text.data();
  len = n;
  if (NUVSysUCAlgorithm::ConvertUTF8ToUTF16(p, len, nullptr, 0) != total) abort();

  std::vector<unsigned short> joined;
  p = text.data();
  len = n;
  unsigned step = 0;
  bool refused = false;
  while (p) {
    // Capacities from 0: below 2 a call either gives its whole result or
    // refuses (0, nothing consumed); the next call then has room for a pair.
    const unsigned cap = refused ? 2 : (seed >> (step++ % 12)) % 18;
    std::vector<unsigned short> buf(cap + 1, 0xBEEF);
    const char* const before = p;
    const int lenBefore = len;
    const unsigned got = NUVSysUCAlgorithm::ConvertUTF8ToUTF16(p, len, buf.data(), cap);
    if (got > cap || buf[cap] != 0xBEEF) abort();
    refused = p != nullptr && got == 0;
    if (refused) {
      const char* q = p;
      int l = len;
      if (cap >= 2 || p != before || len != lenBefore || NUVSysUCAlgorithm::ConvertUTF8ToUTF16(q, l, nullptr, 0) <= cap) {
        abort();
      }
    }
    if (p && len <= 0) abort();
    joined.insert(joined.end(), buf.begin(), buf.begin() + got);
  }
  if (joined != whole) abort();
  return 0;
}
