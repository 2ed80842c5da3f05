// UTF transforms and V3 hashes against utfcpp, ICU and memcpy on real text.
//
//   bench_utf [benchmark flags]
//
// Corpora (ascii, latin, cjk, emoji .txt, UTF-8) are read at startup from
// $SYSTEMTS_CORPORA, else from the directory the build configured
// (../shared/corpora beside the source tree). Nothing is generated.
//
// Names are family/corpus/implementation, e.g. utf8to16/cjk/ours_unchecked,
// so bench/ratios.py can turn a JSON run into ratio tables:
//   utf8to16/<corpus>/{ours_unchecked, ours_bounded, utfcpp, icu, memcpy}
//   utf16to8/<corpus>/{ours_unchecked, ours_bounded, utfcpp, icu, memcpy}
//   hashv3/<corpus>/{ours_utf16, ours_utf8, naive, naive_utf8}
//
// Bytes processed:
// - Every conversion, in both directions, counts the UTF-8 size of its corpus,
//   whatever it reads or writes. All conversions of one corpus thus report the
//   same bytes per iteration, and their bytes_per_second compare directly as
//   ratios (the ratio is the inverse ratio of the times).
// - memcpy counts the bytes it copies: the UTF-8 text beside utf8to16, the
//   UTF-16 text (2 bytes a unit) beside utf16to8.
// - A hash counts the bytes of its own input: UTF-8 bytes for ours_utf8,
//   UTF-16 bytes for ours_utf16 and naive.
#include <benchmark/benchmark.h>
#include <unicode/ustring.h>
#include <utf8/unchecked.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "NUVSysUCAlgorithm.h"
#include "bench_common.h"

namespace {

static_assert(sizeof(UChar) == sizeof(unsigned short), "ICU reads our UTF-16 buffers in place");

using UC = NUVSysUCAlgorithm;

struct Corpus {
  std::string name;
  std::string utf8;
  std::vector<unsigned short> utf16;  // utfcpp's conversion of utf8, made once, untimed
};

// Filled before any benchmark is registered and never resized afterwards: the
// benchmarks keep references into it.
std::vector<Corpus> g_corpora;

// Shared output buffers, sized for the largest corpus. Benchmarks run one at a
// time, so one set serves all of them.
std::vector<unsigned short> g_out16;
std::vector<char> g_out8;

[[noreturn]] void fail(const char* what, const std::string& corpus) {
  std::fprintf(stderr, "bench_utf: %s on corpus '%s'; the measurements would mean nothing\n", what,
               corpus.c_str());
  std::exit(3);
}

void loadCorpora() {
  const std::string dir = bench::corporaDir();
  for (const char* name : bench::kTextCorpora) {
    const std::string path = dir + "/" + name + ".txt";
    Corpus c;
    c.name = name;
    if (!bench::readFile(path, c.utf8)) {
      std::fprintf(stderr,
                   "bench_utf: cannot read %s\n"
                   "  The corpora are not part of this repository; point SYSTEMTS_CORPORA at the\n"
                   "  directory holding ascii.txt, latin.txt, cjk.txt and emoji.txt.\n",
                   path.c_str());
      std::exit(2);
    }
    if (c.utf8.empty() || c.utf8.size() > static_cast<size_t>(INT_MAX) / 4) {
      std::fprintf(stderr, "bench_utf: %s is empty or too large (%zu bytes)\n", path.c_str(),
                   c.utf8.size());
      std::exit(2);
    }
    c.utf16.resize(c.utf8.size());
    auto end = utf8::unchecked::utf8to16(c.utf8.begin(), c.utf8.end(), c.utf16.begin());
    c.utf16.erase(end, c.utf16.end());
    g_corpora.push_back(std::move(c));
  }

  size_t bytes = 0, units = 0;
  for (const Corpus& c : g_corpora) {
    bytes = std::max(bytes, c.utf8.size());
    units = std::max(units, c.utf16.size());
  }
  // The bounded calls get bytes + 2 units and 3 * units + 4 bytes; memcpy of
  // the UTF-16 form writes 2 * units bytes into g_out8.
  g_out16.assign(bytes + 2, 0);
  g_out8.assign(3 * units + 4, 0);
}

unsigned naiveHashV3(const unsigned short* u, size_t n, unsigned h) {
  for (size_t i = 0; i < n; ++i) h = h * 37u + u[i];
  return h;
}

// The same one-accumulator loop fed by decoding UTF-8 one character at a
// time (utfcpp's unchecked step), surrogate pairs as two units.
unsigned naiveHashV3Utf8(const char* p, const char* end, unsigned h) {
  while (p < end) {
    const uint32_t cp = utf8::unchecked::next(p);
    if (cp > 0xFFFF) {
      h = h * 37u + ((cp >> 10) + 0xD7C0u);
      h = h * 37u + ((cp & 0x3FFu) + 0xDC00u);
    } else {
      h = h * 37u + cp;
    }
  }
  return h;
}

unsigned boundedUtf8To16(const Corpus& c, unsigned short* out) {
  const char* p = c.utf8.data();
  int left = static_cast<int>(c.utf8.size());
  const unsigned capacity = static_cast<unsigned>(c.utf8.size()) + 2;
  unsigned total = 0;
  while (p) {
    const unsigned n = UC::ConvertUTF8ToUTF16(p, left, out + total, capacity - total);
    if (n == 0xFFFFFFFFu || (n == 0 && p)) return 0xFFFFFFFFu;  // error, or no progress
    total += n;
  }
  return total;
}

unsigned boundedUtf16To8(const Corpus& c, char* out) {
  const unsigned short* p = c.utf16.data();
  int left = static_cast<int>(c.utf16.size());
  const unsigned capacity = 3 * static_cast<unsigned>(c.utf16.size()) + 4;
  unsigned total = 0;
  while (p) {
    const unsigned n = UC::ConvertUTF16ToUTF8(p, left, out + total, capacity - total);
    if (n == 0xFFFFFFFFu || (n == 0 && p)) return 0xFFFFFFFFu;
    total += n;
  }
  return total;
}

// Runs once before registration, outside any timing. Each implementation's
// output is compared with utfcpp's, so a fast wrong answer cannot pass.
void selfCheck() {
  for (const Corpus& c : g_corpora) {
    const char* b8 = c.utf8.data();
    const char* e8 = b8 + c.utf8.size();
    const unsigned short* b16 = c.utf16.data();
    const unsigned short* e16 = b16 + c.utf16.size();
    const size_t units = c.utf16.size();

    // UTF-8 -> UTF-16. c.utf16 is utfcpp's output.
    std::vector<unsigned short> u16(c.utf8.size() + 2, 0xAAAA);
    size_t n = static_cast<size_t>(UC::unchecked::utf8to16(b8, e8, u16.data()) - u16.data());
    if (n != units || !std::equal(b16, e16, u16.begin())) fail("utf8to16 differs from utfcpp", c.name);

    std::fill(u16.begin(), u16.end(), 0xAAAA);
    if (boundedUtf8To16(c, u16.data()) != units || !std::equal(b16, e16, u16.begin()))
      fail("ConvertUTF8ToUTF16 differs from utfcpp", c.name);

    std::vector<UChar> icu16(c.utf8.size() + 2);
    int32_t len = 0;
    UErrorCode err = U_ZERO_ERROR;
    u_strFromUTF8(icu16.data(), static_cast<int32_t>(icu16.size()), &len, b8,
                  static_cast<int32_t>(c.utf8.size()), &err);
    if (U_FAILURE(err) || static_cast<size_t>(len) != units ||
        !std::equal(b16, e16, icu16.begin(),
                    [](unsigned short a, UChar b) { return a == static_cast<unsigned short>(b); }))
      fail("u_strFromUTF8 differs from utfcpp", c.name);

    // UTF-16 -> UTF-8, against utfcpp's own output byte for byte.
    std::string ref(3 * units + 4, '\0');
    ref.erase(utf8::unchecked::utf16to8(b16, e16, ref.begin()), ref.end());
    if (ref != c.utf8) fail("utfcpp does not round-trip the corpus", c.name);

    std::string s8(3 * units + 4, '\x55');
    s8.resize(static_cast<size_t>(UC::unchecked::utf16to8(b16, e16, &s8[0]) - s8.data()));
    if (s8 != ref) fail("utf16to8 differs from utfcpp", c.name);

    s8.assign(3 * units + 4, '\x55');
    const unsigned m = boundedUtf16To8(c, &s8[0]);
    if (m == 0xFFFFFFFFu || s8.compare(0, m, ref) != 0 || m != ref.size())
      fail("ConvertUTF16ToUTF8 differs from utfcpp", c.name);

    s8.assign(3 * units + 4, '\x55');
    err = U_ZERO_ERROR;
    u_strToUTF8(&s8[0], static_cast<int32_t>(s8.size()), &len, reinterpret_cast<const UChar*>(b16),
                static_cast<int32_t>(units), &err);
    if (U_FAILURE(err) || static_cast<size_t>(len) != ref.size() || s8.compare(0, ref.size(), ref) != 0)
      fail("u_strToUTF8 differs from utfcpp", c.name);

    // Hashes, with a seed that is not zero so it takes part.
    for (unsigned seed : {0u, 0x9E3779B9u}) {
      const unsigned h = naiveHashV3(b16, units, seed);
      if (UC::HashV3FromUCS2(b16, units, seed) != h) fail("HashV3FromUCS2 differs from the plain loop", c.name);
      if (UC::HashV3FromUTF8(b8, c.utf8.size(), seed) != h)
        fail("HashV3FromUTF8 differs from the plain loop", c.name);
    }
  }
}

// One benchmark: `body(corpus)` per iteration, `bytes` reported per iteration.
template <typename Body>
void add(const std::string& family, const Corpus& c, const char* impl, int64_t bytes, Body body) {
  const std::string name = family + "/" + c.name + "/" + impl;
  benchmark::RegisterBenchmark(name.c_str(),
                               [&c, bytes, body](benchmark::State& st) {
                                 for (auto _ : st) body(c);
                                 st.SetBytesProcessed(st.iterations() * bytes);
                               })
      ->Unit(benchmark::kMicrosecond);
}

void registerAll() {
  for (const Corpus& c : g_corpora) {
    // Conversions in both directions report the UTF-8 size (see the top).
    const int64_t n8 = static_cast<int64_t>(c.utf8.size());
    const int64_t n16 = static_cast<int64_t>(2 * c.utf16.size());

    add("utf8to16", c, "ours_unchecked", n8, [](const Corpus& k) {
      unsigned short* end =
          UC::unchecked::utf8to16(k.utf8.data(), k.utf8.data() + k.utf8.size(), g_out16.data());
      benchmark::DoNotOptimize(end);
      benchmark::ClobberMemory();
    });
    add("utf8to16", c, "ours_bounded", n8, [](const Corpus& k) {
      unsigned total = boundedUtf8To16(k, g_out16.data());
      benchmark::DoNotOptimize(total);
      benchmark::ClobberMemory();
    });
    add("utf8to16", c, "utfcpp", n8, [](const Corpus& k) {
      unsigned short* end = utf8::unchecked::utf8to16(k.utf8.data(), k.utf8.data() + k.utf8.size(),
                                                      g_out16.data());
      benchmark::DoNotOptimize(end);
      benchmark::ClobberMemory();
    });
    add("utf8to16", c, "icu", n8, [](const Corpus& k) {
      int32_t len = 0;
      UErrorCode err = U_ZERO_ERROR;
      u_strFromUTF8(reinterpret_cast<UChar*>(g_out16.data()), static_cast<int32_t>(g_out16.size()), &len,
                    k.utf8.data(), static_cast<int32_t>(k.utf8.size()), &err);
      benchmark::DoNotOptimize(len);
      benchmark::ClobberMemory();
    });
    add("utf8to16", c, "memcpy", n8, [](const Corpus& k) {
      char* dst = g_out8.data();
      benchmark::DoNotOptimize(dst);
      std::memcpy(dst, k.utf8.data(), k.utf8.size());
      benchmark::ClobberMemory();
    });

    add("utf16to8", c, "ours_unchecked", n8, [](const Corpus& k) {
      char* end = UC::unchecked::utf16to8(k.utf16.data(), k.utf16.data() + k.utf16.size(), g_out8.data());
      benchmark::DoNotOptimize(end);
      benchmark::ClobberMemory();
    });
    add("utf16to8", c, "ours_bounded", n8, [](const Corpus& k) {
      unsigned total = boundedUtf16To8(k, g_out8.data());
      benchmark::DoNotOptimize(total);
      benchmark::ClobberMemory();
    });
    add("utf16to8", c, "utfcpp", n8, [](const Corpus& k) {
      char* end = utf8::unchecked::utf16to8(k.utf16.data(), k.utf16.data() + k.utf16.size(), g_out8.data());
      benchmark::DoNotOptimize(end);
      benchmark::ClobberMemory();
    });
    add("utf16to8", c, "icu", n8, [](const Corpus& k) {
      int32_t len = 0;
      UErrorCode err = U_ZERO_ERROR;
      u_strToUTF8(g_out8.data(), static_cast<int32_t>(g_out8.size()), &len,
                  reinterpret_cast<const UChar*>(k.utf16.data()), static_cast<int32_t>(k.utf16.size()), &err);
      benchmark::DoNotOptimize(len);
      benchmark::ClobberMemory();
    });
    add("utf16to8", c, "memcpy", n16, [](const Corpus& k) {
      char* dst = g_out8.data();
      benchmark::DoNotOptimize(dst);
      std::memcpy(dst, k.utf16.data(), 2 * k.utf16.size());
      benchmark::ClobberMemory();
    });

    // Hashes report the bytes they read.
    add("hashv3", c, "ours_utf16", n16, [](const Corpus& k) {
      const unsigned short* p = k.utf16.data();
      benchmark::DoNotOptimize(p);
      benchmark::DoNotOptimize(UC::HashV3FromUCS2(p, k.utf16.size(), 0));
    });
    add("hashv3", c, "ours_utf8", n8, [](const Corpus& k) {
      const char* p = k.utf8.data();
      benchmark::DoNotOptimize(p);
      benchmark::DoNotOptimize(UC::HashV3FromUTF8(p, k.utf8.size(), 0));
    });
    add("hashv3", c, "naive_utf8", n8, [](const Corpus& k) {
      const char* p = k.utf8.data();
      benchmark::DoNotOptimize(p);
      benchmark::DoNotOptimize(naiveHashV3Utf8(p, p + k.utf8.size(), 0));
    });
    add("hashv3", c, "naive", n16, [](const Corpus& k) {
      // The pointer passes through DoNotOptimize each time, so the loop cannot
      // be computed once and hoisted out of the timing loop.
      const unsigned short* p = k.utf16.data();
      benchmark::DoNotOptimize(p);
      benchmark::DoNotOptimize(naiveHashV3(p, k.utf16.size(), 0));
    });
  }
}

}  // namespace

int main(int argc, char** argv) {
  return bench::run(argc, argv, [] {
    loadCorpora();
    selfCheck();
    registerAll();
  });
}
