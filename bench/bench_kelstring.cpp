// KELString against std::string, memmem and memcpy.
//
//   bench_kelstring [benchmark flags]
//
// Names are <case>/<impl>, ours always "ours", so bench/ratios.py tabulates
// peer time over our time:
//   find_1MiB/{ours, std_find, memmem}
//       FindPosition of a 17-byte needle that occurs only at the very end of a
//       1 MiB haystack, against std::string::find and memmem on the same bytes
//   hash_1MiB/{ours, memcpy}
//       ComputeHashKey of 1 MiB, against a memcpy of the same bytes
//   append_10k/{ours, std_string}
//       10,000 appends of an 8-byte piece to an empty string. Ours grows to
//       exactly the new length each time (copying on nearly every append), by
//       design; std::string grows geometrically
//
// The haystack is English-like text from the ascii corpus ($SYSTEMTS_CORPORA,
// else the directory the build configured), repeated to 1 MiB; without the
// corpus it is built here from a fixed word list.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "KELString.h"
#include "bench_common.h"

namespace {

constexpr size_t kHaystack = 1 << 20;
const char kNeedle[] = "needle-0123456789";  // 17 bytes, never in the text
constexpr int kPieces = 10000;
const char kPiece[] = "piece-8b";
constexpr int64_t kAppendBytes = static_cast<int64_t>(kPieces) * (sizeof kPiece - 1);

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "bench_kelstring: %s; the measurements would mean nothing\n", what);
  std::exit(3);
}

std::string haystack() {
  std::string seed;
  bench::readFile(bench::corporaDir() + "/ascii.txt", seed);
  if (seed.empty()) seed = "the quick brown fox jumps over the lazy dog; needles and haystacks, 0123456789\n";
  std::string text;
  text.reserve(kHaystack);
  while (text.size() < kHaystack) text += seed;
  text.resize(kHaystack - (sizeof kNeedle - 1));
  for (char& c : text)  // printable text, as the development stage wants it
    if (c == '\0') c = ' ';
  if (text.find(kNeedle) != std::string::npos) fail("the needle occurs early");
  return text + kNeedle;
}

KELString makeString(const std::string& s) {
  KELString k;
  KELSysUTF8Str(&k, const_cast<char*>(s.c_str()));
  return k;
}

void findCases(const std::string& text) {
  const int64_t bytes = static_cast<int64_t>(text.size());
  const size_t expect = text.size() - (sizeof kNeedle - 1);
  const KELString hay = makeString(text), needle = makeString(kNeedle);
  if (hay.FindPosition(needle, 0) != static_cast<int>(expect)) fail("FindPosition differs");
  benchmark::RegisterBenchmark("find_1MiB/ours", [hay, needle, bytes](benchmark::State& st) {
    for (auto _ : st) benchmark::DoNotOptimize(hay.FindPosition(needle, 0));
    st.SetBytesProcessed(st.iterations() * bytes);
  })->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("find_1MiB/std_find", [text, bytes](benchmark::State& st) {
    for (auto _ : st) benchmark::DoNotOptimize(text.find(kNeedle, 0, sizeof kNeedle - 1));
    st.SetBytesProcessed(st.iterations() * bytes);
  })->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("find_1MiB/memmem", [text, bytes](benchmark::State& st) {
    for (auto _ : st) benchmark::DoNotOptimize(::memmem(text.data(), text.size(), kNeedle, sizeof kNeedle - 1));
    st.SetBytesProcessed(st.iterations() * bytes);
  })->Unit(benchmark::kMicrosecond);
}

void hashCases(const std::string& text) {
  const int64_t bytes = static_cast<int64_t>(text.size());
  const KELString s = makeString(text);
  benchmark::RegisterBenchmark("hash_1MiB/ours", [s, bytes](benchmark::State& st) {
    for (auto _ : st) benchmark::DoNotOptimize(s.ComputeHashKey());
    st.SetBytesProcessed(st.iterations() * bytes);
  })->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("hash_1MiB/memcpy", [text, bytes](benchmark::State& st) {
    std::string out(text.size(), '\0');
    for (auto _ : st) {
      std::memcpy(out.data(), text.data(), text.size());
      benchmark::DoNotOptimize(out.data());
      benchmark::ClobberMemory();
    }
    st.SetBytesProcessed(st.iterations() * bytes);
  })->Unit(benchmark::kMicrosecond);
}

void appendCases() {
  KELString check;
  for (int i = 0; i < kPieces; ++i) check += kPiece;
  if (check.Length() != kAppendBytes) fail("appending lost bytes");
  benchmark::RegisterBenchmark("append_10k/ours", [](benchmark::State& st) {
    for (auto _ : st) {
      KELString s;
      for (int i = 0; i < kPieces; ++i) s += kPiece;
      benchmark::DoNotOptimize(s.ConvertToChar());
    }
    st.SetBytesProcessed(st.iterations() * kAppendBytes);
  })->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("append_10k/std_string", [](benchmark::State& st) {
    for (auto _ : st) {
      std::string s;
      for (int i = 0; i < kPieces; ++i) s += kPiece;
      benchmark::DoNotOptimize(s.data());
      benchmark::ClobberMemory();
    }
    st.SetBytesProcessed(st.iterations() * kAppendBytes);
  })->Unit(benchmark::kMicrosecond);
}

}  // namespace

int main(int argc, char** argv) {
  return bench::run(argc, argv, [] {
    const std::string text = haystack();
    findCases(text);
    hashCases(text);
    appendCases();
  });
}
