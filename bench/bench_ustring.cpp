// KELUnicodeString against std::u16string and ICU's UnicodeString.
//
//   bench_ustring [benchmark flags]
//
// Names are <case>/<impl>, ours always "ours", so bench/ratios.py tabulates
// peer time over our time:
//   copy_1KiB/{ours, u16string}, copy_64KiB/{ours, u16string}
//       copy a string of 1 KiB or 64 KiB of UTF-16 text, then destroy the copy
//   append_1M/{ours, u16string}
//       a million one-unit appends to an empty string (+= against push_back)
//   utf8_roundtrip/<corpus>/{ours, icu}
//       BuildFromUTF8 then ConvertToUTF8 (into a std::string), against
//       UnicodeString::fromUTF8 then toUTF8String, on the corpora
//   pool_churn/{ours, pool_off}
//       short strings made, appended to and dropped, with the calling
//       thread's pool on (ours) and off
//
// Corpora (ascii, latin, cjk, emoji .txt) are read from $SYSTEMTS_CORPORA,
// else from the directory the build configured; without them the round-trip
// cases are left out with a message.
#include <benchmark/benchmark.h>
#include <unicode/unistr.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "KELUnicodeString.h"
#include "NUVSysNLSEnv.h"
#include "bench_common.h"

namespace {

struct Corpus {
  std::string name;
  std::string utf8;
};
std::vector<Corpus> g_corpora;

void loadCorpora() {
  const std::string dir = bench::corporaDir();
  for (const char* name : bench::kTextCorpora) {
    Corpus c{name, {}};
    if (!bench::readFile(dir + "/" + name + ".txt", c.utf8)) {
      std::fprintf(stderr, "bench_ustring: no corpus %s/%s.txt; the UTF-8 round trips are left out\n", dir.c_str(),
                   name);
      g_corpora.clear();
      return;
    }
    g_corpora.push_back(std::move(c));
  }
}

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "bench_ustring: %s; the measurements would mean nothing\n", what);
  std::exit(3);
}

std::u16string sampleText(size_t units) {
  const std::u16string pattern = u"Unicode text, caf\u00E9 \u4E2D\u6587 \U0001F600 ";
  std::u16string s;
  while (s.size() < units) s += pattern;
  s.resize(units);
  return s;
}

// Runs once before registration: both sides of every case give the same text.
void selfCheck() {
  for (const Corpus& c : g_corpora) {
    if (KELUnicodeString::FromUTF8(c.utf8).ConvertToUTF8() != c.utf8) fail("our UTF-8 round trip differs");
    std::string icu;
    icu::UnicodeString::fromUTF8(c.utf8).toUTF8String(icu);
    if (icu != c.utf8) fail("ICU's UTF-8 round trip differs");
  }
  KELUnicodeString s;
  std::u16string ref;
  for (int i = 0; i < 1000; ++i) {
    s += static_cast<char16_t>(u'a' + i % 26);
    ref.push_back(static_cast<char16_t>(u'a' + i % 26));
  }
  if (s.ToU16StringView() != ref) fail("appending differs from push_back");
}

void copyCase(const char* name, size_t units) {
  const std::u16string text = sampleText(units);
  const std::string base = name;
  benchmark::RegisterBenchmark((base + "/ours").c_str(), [text](benchmark::State& st) {
    const KELUnicodeString s(text);
    for (auto _ : st) {
      KELUnicodeString copy(s);
      benchmark::DoNotOptimize(copy);
    }
    st.SetBytesProcessed(st.iterations() * static_cast<int64_t>(2 * text.size()));
  });
  benchmark::RegisterBenchmark((base + "/u16string").c_str(), [text](benchmark::State& st) {
    const std::u16string s(text);
    for (auto _ : st) {
      std::u16string copy(s);
      benchmark::DoNotOptimize(copy.data());
      benchmark::ClobberMemory();
    }
    st.SetBytesProcessed(st.iterations() * static_cast<int64_t>(2 * text.size()));
  });
}

constexpr int kAppends = 1000000;

void appendCase() {
  benchmark::RegisterBenchmark("append_1M/ours", [](benchmark::State& st) {
    for (auto _ : st) {
      KELUnicodeString s;
      for (int i = 0; i < kAppends; ++i) s += static_cast<char16_t>(u'a' + (i & 15));
      benchmark::DoNotOptimize(s);
    }
  })->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("append_1M/u16string", [](benchmark::State& st) {
    for (auto _ : st) {
      std::u16string s;
      for (int i = 0; i < kAppends; ++i) s.push_back(static_cast<char16_t>(u'a' + (i & 15)));
      benchmark::DoNotOptimize(s.data());
      benchmark::ClobberMemory();
    }
  })->Unit(benchmark::kMillisecond);
}

void roundTripCases() {
  for (const Corpus& c : g_corpora) {
    const std::string base = "utf8_roundtrip/" + c.name;
    const int64_t bytes = static_cast<int64_t>(c.utf8.size());
    benchmark::RegisterBenchmark((base + "/ours").c_str(), [&c, bytes](benchmark::State& st) {
      for (auto _ : st) {
        KELUnicodeString s;
        s.BuildFromUTF8(c.utf8.data(), static_cast<int>(c.utf8.size()));
        std::string out = s.ConvertToUTF8();
        benchmark::DoNotOptimize(out.data());
      }
      st.SetBytesProcessed(st.iterations() * bytes);
    })->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark((base + "/icu").c_str(), [&c, bytes](benchmark::State& st) {
      for (auto _ : st) {
        icu::UnicodeString s = icu::UnicodeString::fromUTF8(c.utf8);
        std::string out;
        s.toUTF8String(out);
        benchmark::DoNotOptimize(out.data());
      }
      st.SetBytesProcessed(st.iterations() * bytes);
    })->Unit(benchmark::kMicrosecond);
  }
}

// Short strings as a program makes them: names built from pieces, kept a
// while in a small working set, then dropped.
void churn(benchmark::State& st, bool pool) {
  NUVStringPoolSetForCurrentThrd(pool);
  static const char* const kWords[] = {"id", "name", "value", "x", "count", "path", "flag", "unit"};
  std::vector<KELUnicodeString> live(64);
  unsigned k = 0;
  for (auto _ : st) {
    for (int i = 0; i < 256; ++i, ++k) {
      KELUnicodeString s;
      s.BuildFromUTF8(kWords[k % 8]);
      s += u'_';
      s += KELUnicodeString(kWords[(k / 8) % 8]);
      live[k % 64] = s;
    }
    benchmark::DoNotOptimize(live.data());
  }
  live.clear();
  NUVStringPoolFlush();
  NUVStringPoolSetForCurrentThrd(false);
}

}  // namespace

int main(int argc, char** argv) {
  return bench::run(argc, argv, [] {
    NLSCoreChangeLanguage("C");
    loadCorpora();
    selfCheck();
    copyCase("copy_1KiB", 512);
    copyCase("copy_64KiB", 32768);
    appendCase();
    roundTripCases();
    benchmark::RegisterBenchmark("pool_churn/ours", [](benchmark::State& st) { churn(st, true); });
    benchmark::RegisterBenchmark("pool_churn/pool_off", [](benchmark::State& st) { churn(st, false); });
  });
}
