// Shared body of the MBCS-to-UTF-16 fuzz targets: every entry point of a
// converter on arbitrary bytes, each output buffer exactly as large as its
// contract says, so that AddressSanitizer sees any write past it.
#ifndef SYSTEMTS_FUZZ_CODEPAGE_FUZZ_H
#define SYSTEMTS_FUZZ_CODEPAGE_FUZZ_H

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "NUVSysCodePage.h"

inline void fuzzMbcsToUtf16(const NUVSysCodePage& cp, bool chunksMustJoin, const uint8_t* data, size_t size) {
  if (size < 1) return;
  const unsigned seed = data[0];
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  const int n = static_cast<int>(text.size());

  // One-shot: at most n + 1 units (a four-byte UTF-8 lead cut off by the end
  // gives a pair) and a terminator.
  std::unique_ptr<unsigned short[]> whole(new unsigned short[text.size() + 2]);
  int units = -1;
  if (cp.ConvertMBCSToUTF16(text.data(), n, whole.get(), &units) != units || units < 0 || units > n + 1) abort();

  // Resumable, in chunks of 1 to 8 units, each buffer exactly capacity + 1
  // on the heap. A call that writes and consumes nothing (a character wider
  // than the room; on a UTF-8 converter at capacity 1, more than one unit
  // left) is followed by one with room for any character.
  std::vector<unsigned short> joined;
  const char* p = text.data();
  size_t left = text.size();
  bool refused = false;
  for (unsigned step = 0; p != nullptr && left > 0; ++step) {
    const size_t cap = refused ? 8 : 1 + ((seed >> (step % 6)) & 7);
    std::unique_ptr<unsigned short[]> buf(new unsigned short[cap + 1]);
    const size_t before = left;
    const size_t got = cp.ConvertMBCSToUTF16(p, left, buf.get(), cap);
    if (got == static_cast<size_t>(-1)) break;
    if (got > cap) abort();
    if (left >= before && got == 0) {
      if (refused) break;  // nothing converts even with room
      refused = true;
      continue;
    }
    refused = false;
    joined.insert(joined.end(), buf.get(), buf.get() + got);
  }
  if (chunksMustJoin && ((p != nullptr && left > 0) || joined != std::vector<unsigned short>(whole.get(), whole.get() + units))) {
    abort();
  }

  // One character at a time through a NUL-terminated copy, the three forms
  // in turn; a NUL counts as a character, so stop once past it.
  std::string terminated = text.substr(0, 64);
  const char* q = terminated.c_str();
  const char* const end = q + terminated.size();
  for (int i = 0; i < 210 && q <= end; ++i) {
    unsigned short u[2];
    unsigned int cp32 = 0;
    char bytes[4];
    const char* before = q;
    const int got = i % 3 == 0 ? cp.GetNextMultiByteCharAsUTF16(q, u)
                    : i % 3 == 1 ? cp.GetNextMultiByteCharAsUTF32(q, cp32)
                                 : cp.GetNextMultiByteCharAsUTF8(q, bytes);
    if (q > end + 1 || (got != 0 && q == before)) abort();
    if (q == before) break;
  }

  // The two-way test never steps over '?': keep it out of the text.
  std::string noQuestion = text.substr(0, 64);
  for (char& c : noQuestion) {
    if (c == '?') c = 'x';
  }
  cp.CanConvertMBCSToUTF16(noQuestion.data(), noQuestion.size());
}

#endif  // SYSTEMTS_FUZZ_CODEPAGE_FUZZ_H
