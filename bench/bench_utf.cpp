// UTF transforms and V3 hashes against utfcpp, ICU and memcpy on real text.
//
//   bench_utf [benchmark flags]       corpora from $SYSTEMTS_CORPORA or ../shared/corpora
//
// Every conversion benchmark, in both directions, reports the UTF-8 byte count
// of its corpus as bytes processed, so throughputs compare as ratios; memcpy
// and the hashes report the bytes of their own input.
#include <benchmark/benchmark.h>
#include <unicode/ustring.h>
#include <utf8/unchecked.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "NUVSysUCAlgorithm.h"

namespace {

struct Corpus {
  std::string name;
  std::string utf8;
  std::vector<unsigned short> utf16;
};

std::vector<Corpus> g_corpora;

std::string corporaDir() {
  if (const char* env = std::getenv("SYSTEMTS_CORPORA")) return env;
  return SYSTEMTS_CORPORA_DIR;
}

void load() {
  for (const char* name : {"ascii", "latin", "cjk", "emoji"}) {
    const std::string path = corporaDir() + "/" + name + ".txt";
    std::ifstream in(path, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "bench_utf: cannot read %s (set SYSTEMTS_CORPORA)\n", path.c_str());
      std::exit(2);
    }
    Corpus c{name, std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()), {}};
    c.utf16.resize(c.utf8.size() + 2);
    c.utf16.resize(static_cast<size_t>(
        utf8::unchecked::utf8to16(c.utf8.begin(), c.utf8.end(), c.utf16.begin()) - c.utf16.begin()));
    g_corpora.push_back(std::move(c));
  }
}

unsigned naiveHash(const unsigned short* u, size_t n, unsigned h) {
  for (size_t i = 0; i < n; ++i) h = h * 37u + u[i];
  return h;
}

// The numbers mean nothing if the outputs differ: check once, untimed.
void selfCheck() {
  for (const Corpus& c : g_corpora) {
    std::vector<unsigned short> u(c.utf8.size() + 2);
    u.resize(static_cast<size_t>(
        NUVSysUCAlgorithm::unchecked::utf8to16(c.utf8.data(), c.utf8.data() + c.utf8.size(), u.data()) - u.data()));
    std::string b(3 * c.utf16.size() + 4, '\0');
    b.resize(static_cast<size_t>(
        NUVSysUCAlgorithm::unchecked::utf16to8(c.utf16.data(), c.utf16.data() + c.utf16.size(), &b[0]) -
        b.data()));
    const unsigned h = naiveHash(c.utf16.data(), c.utf16.size(), 0);
    if (u != c.utf16 || b != c.utf8 ||
        NUVSysUCAlgorithm::HashV3FromUTF8(c.utf8.data(), c.utf8.size(), 0) != h ||
        NUVSysUCAlgorithm::HashV3FromUCS2(c.utf16.data(), c.utf16.size(), 0) != h) {
      std::fprintf(stderr, "bench_utf: self-check failed on %s\n", c.name.c_str());
      std::exit(3);
    }
  }
}

template <typename F>
void reg(const std::string& name, const Corpus& c, int64_t bytes, F body) {
  benchmark::RegisterBenchmark(name.c_str(), [&c, bytes, body](benchmark::State& st) {
    for (auto _ : st) body(c);
    st.SetBytesProcessed(st.iterations() * bytes);
  })->Unit(benchmark::kMicrosecond);
}

void registerAll() {
  static std::vector<unsigned short> out16;
  static std::vector<char> out8;
  static std::vector<UChar> icu16;
  size_t most = 0;
  for (const Corpus& c : g_corpora) most = std::max(most, c.utf8.size());
  out16.resize(most + 8);
  out8.resize(3 * most + 8);
  icu16.resize(most + 8);

  for (const Corpus& c : g_corpora) {
    const int64_t n8 = static_cast<int64_t>(c.utf8.size());
    const std::string u8to16 = "utf8to16/" + c.name + "/";
    reg(u8to16 + "ours_unchecked", c, n8, [](const Corpus& k) {
      benchmark::DoNotOptimize(NUVSysUCAlgorithm::unchecked::utf8to16(
          k.utf8.data(), k.utf8.data() + k.utf8.size(), out16.data()));
      benchmark::ClobberMemory();
    });
    reg(u8to16 + "ours_bounded", c, n8, [](const Corpus& k) {
      const char* p = k.utf8.data();
      int len = static_cast<int>(k.utf8.size());
      unsigned total = 0;
      while (p) total += NUVSysUCAlgorithm::ConvertUTF8ToUTF16(p, len, out16.data() + total,
                                                               static_cast<unsigned>(out16.size() - total));
      benchmark::DoNotOptimize(total);
      benchmark::ClobberMemory();
    });
    reg(u8to16 + "utfcpp", c, n8, [](const Corpus& k) {
      benchmark::DoNotOptimize(utf8::unchecked::utf8to16(k.utf8.begin(), k.utf8.end(), out16.begin()));
      benchmark::ClobberMemory();
    });
    reg(u8to16 + "icu", c, n8, [](const Corpus& k) {
      int32_t len = 0;
      UErrorCode err = U_ZERO_ERROR;
      u_strFromUTF8(icu16.data(), static_cast<int32_t>(icu16.size()), &len, k.utf8.data(),
                    static_cast<int32_t>(k.utf8.size()), &err);
      benchmark::DoNotOptimize(len);
      benchmark::ClobberMemory();
    });
    reg(u8to16 + "memcpy", c, n8, [](const Corpus& k) {
      std::memcpy(out8.data(), k.utf8.data(), k.utf8.size());
      benchmark::ClobberMemory();
    });

    const std::string u16to8 = "utf16to8/" + c.name + "/";
    reg(u16to8 + "ours_unchecked", c, n8, [](const Corpus& k) {
      benchmark::DoNotOptimize(NUVSysUCAlgorithm::unchecked::utf16to8(
          k.utf16.data(), k.utf16.data() + k.utf16.size(), out8.data()));
      benchmark::ClobberMemory();
    });
    reg(u16to8 + "ours_bounded", c, n8, [](const Corpus& k) {
      const unsigned short* p = k.utf16.data();
      int len = static_cast<int>(k.utf16.size());
      unsigned total = 0;
      while (p) total += NUVSysUCAlgorithm::ConvertUTF16ToUTF8(p, len, out8.data() + total,
                                                               static_cast<unsigned>(out8.size() - total));
      benchmark::DoNotOptimize(total);
      benchmark::ClobberMemory();
    });
    reg(u16to8 + "utfcpp", c, n8, [](const Corpus& k) {
      benchmark::DoNotOptimize(utf8::unchecked::utf16to8(k.utf16.begin(), k.utf16.end(), out8.begin()));
      benchmark::ClobberMemory();
    });
    reg(u16to8 + "icu", c, n8, [](const Corpus& k) {
      int32_t len = 0;
      UErrorCode err = U_ZERO_ERROR;
      u_strToUTF8(out8.data(), static_cast<int32_t>(out8.size()), &len,
                  reinterpret_cast<const UChar*>(k.utf16.data()), static_cast<int32_t>(k.utf16.size()), &err);
      benchmark::DoNotOptimize(len);
      benchmark::ClobberMemory();
    });
    reg(u16to8 + "memcpy", c, static_cast<int64_t>(2 * c.utf16.size()), [](const Corpus& k) {
      std::memcpy(out16.data(), k.utf16.data(), 2 * k.utf16.size());
      benchmark::ClobberMemory();
    });

    const std::string hash = "hashv3/" + c.name + "/";
    const int64_t n16 = static_cast<int64_t>(2 * c.utf16.size());
    reg(hash + "ours_utf16", c, n16, [](const Corpus& k) {
      benchmark::DoNotOptimize(NUVSysUCAlgorithm::HashV3FromUCS2(k.utf16.data(), k.utf16.size(), 0));
    });
    reg(hash + "ours_utf8", c, n16, [](const Corpus& k) {
      benchmark::DoNotOptimize(NUVSysUCAlgorithm::HashV3FromUTF8(k.utf8.data(), k.utf8.size(), 0));
    });
    reg(hash + "naive_utf16", c, n16, [](const Corpus& k) {
      const unsigned short* p = k.utf16.data();
      benchmark::DoNotOptimize(p);  // keep the loop from being folded at compile time
      benchmark::DoNotOptimize(naiveHash(p, k.utf16.size(), 0));
    });
  }
}

}  // namespace

int main(int argc, char** argv) {
  // glibc and libstdc++ skip atomic instructions until a process has had a
  // second thread; measure the way a real host runs.
  std::thread([] {}).join();
  load();
  selfCheck();
  registerAll();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
