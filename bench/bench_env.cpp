// Reading settings and expanding the application's variables, each beside a
// peer in the same run.
//
// - NUVGetEnvInt of a name set in the process environment, and of a name
//   found only in the main application context's table (the value handed
//   out as a KELUnicodeString), against getenv with the value copied into a
//   std::string. Time per look-up.
// - ExpandAllEnvironStrings on N dynamic lines with T tags each (every tag
//   named in the official array), against the same replacements done with
//   std::string find/replace on copies of the lines. Items are lines times
//   tags, so that equal items per second across sizes means linear growth.
//   Building the manager is not timed.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "NUVSysEnvironmentManager.h"
#include "NUVSysNeutralCoreApplication.h"
#include "bench_common.h"

namespace {

const char* const kProcessName = "SYSTEMTS_BENCH_SETTING";
const char* const kContextName = "SYSTEMTS_BENCH_APP_SETTING";
const char* const kValue = "/data/projects/bridge/model_v12";

void setUp() {
  setenv(kProcessName, kValue, 1);
  NUVSysNeutralCoreApplication::GetMainApplication();
  NUVSysNeutralCoreApplicationPutEnvironmentVariableA(kContextName, kValue);
  KELUnicodeString a, b;
  if (NUVGetEnvInt(kProcessName, &a) != 1 || NUVGetEnvInt(kContextName, &b) != 1 || a.ConvertToUTF8() != kValue ||
      b.ConvertToUTF8() != kValue) {
    std::fprintf(stderr, "setting look-up gives a wrong value\n");
    std::exit(1);
  }
}

void ourGetEnvInt(benchmark::State& st, const char* name) {
  KELUnicodeString value;
  for (auto _ : st) {
    if (NUVGetEnvInt(name, &value) != 1) st.SkipWithError("not found");
    benchmark::DoNotOptimize(value);
  }
}

void peerGetenv(benchmark::State& st) {
  std::string value;
  for (auto _ : st) {
    const char* v = std::getenv(kProcessName);
    if (v == nullptr) st.SkipWithError("not found");
    value = v;
    benchmark::DoNotOptimize(value);
  }
}

BENCHMARK_CAPTURE(ourGetEnvInt, process, kProcessName);
BENCHMARK_CAPTURE(ourGetEnvInt, context, kContextName);
BENCHMARK(peerGetenv);

const char* const kTagNames[] = {"ROOT", "PROJ", "ARCH", "LANGDIR", "SITE"};

std::string lineOf(int i, int tags) {
  std::string line = "VAR_" + std::to_string(i) + "=";
  for (int t = 0; t < tags; ++t) line += "/x${" + std::string(kTagNames[t]) + "}";
  return line;
}

void ourExpand(benchmark::State& st) {
  const int lines = static_cast<int>(st.range(0));
  const int tags = static_cast<int>(st.range(1));
  for (auto _ : st) {
    st.PauseTiming();
    auto* m = new NUVSysEnvironmentManager;
    m->BuildOfficialEnviron(tags);
    for (int t = 0; t < tags; ++t)
      m->BuildEnvironString(&m->GetOfficialEnviron()[t], (std::string(kTagNames[t]) + "=/v" + std::to_string(t)).c_str());
    m->BuildDynamicEnviron(lines);
    for (int i = 0; i < lines; ++i) m->BuildEnvironString(&m->GetDynamicEnviron()[i], lineOf(i, tags).c_str());
    st.ResumeTiming();
    m->ExpandAllEnvironStrings();
    st.PauseTiming();
    if (std::string(m->GetDynamicEnviron()[lines - 1]).find("${") != std::string::npos)
      st.SkipWithError("not expanded");
    delete m;
    st.ResumeTiming();
  }
  st.SetItemsProcessed(st.iterations() * lines * tags);
}

void peerExpand(benchmark::State& st) {
  const int lines = static_cast<int>(st.range(0));
  const int tags = static_cast<int>(st.range(1));
  std::vector<std::string> source;
  for (int i = 0; i < lines; ++i) source.push_back(lineOf(i, tags));
  for (auto _ : st) {
    std::vector<std::string> out = source;
    for (int t = 0; t < tags; ++t) {
      const std::string tag = "${" + std::string(kTagNames[t]) + "}";
      const std::string value = "/v" + std::to_string(t);
      for (std::string& l : out)
        for (size_t at = l.find(tag); at != std::string::npos; at = l.find(tag, at + value.size()))
          l.replace(at, tag.size(), value);
    }
    benchmark::DoNotOptimize(out);
  }
  st.SetItemsProcessed(st.iterations() * lines * tags);
}

BENCHMARK(ourExpand)->Args({1000, 3})->Args({10000, 3})->Args({10000, 1})->Args({10000, 5})->Unit(benchmark::kMillisecond);
BENCHMARK(peerExpand)->Args({1000, 3})->Args({10000, 3})->Args({10000, 1})->Args({10000, 5})->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) { return bench::run(argc, argv, setUp); }
