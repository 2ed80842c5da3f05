// Tracing costs against spdlog, in one run:
//   trace_disabled/*  a line below the trace's level (ours: the inline macro
//                     test) against a call of an empty function that is not
//                     inlined, and spdlog's test of a disabled level;
//   trace_file_1M/*   1,000,000 short lines written to a file and flushed
//                     (ours: file sink; spdlog: basic_logger_mt), the same
//                     text and nearly the same prefix, one iteration each;
//   trace_memory/*    one line into the in-memory ring (ours) and spdlog's
//                     ringbuffer_sink_mt, both keeping 1024 lines.
// Wall-clock times; compare medians of the repetitions.
#include <benchmark/benchmark.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/ringbuffer_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "NUVSysTrace.h"
#include "bench_common.h"

namespace {

constexpr int kFileLines = 1000000;

std::string g_dir;

__attribute__((noinline)) void emptyCall(int i) { benchmark::DoNotOptimize(i); }

void disabledEmptyCall(benchmark::State& st) {
  int i = 0;
  for (auto _ : st) emptyCall(++i);
}

void disabledOurs(benchmark::State& st) {
  NUVSysTrace* t = NUVSysTraceCreate__("BenchOff");  // warning level: debug is off
  int i = 0;
  for (auto _ : st) {
    NUVSYSTRACE_DEBUG(t, "line %d", ++i);
    benchmark::DoNotOptimize(i);
  }
  NUVSysTraceDestroy__(t);
}

void disabledOursCall(benchmark::State& st) {
  NUVSysTrace* t = NUVSysTraceCreate__("BenchOff");
  int i = 0;
  for (auto _ : st) NUVSysTraceDebug__(t, "line %d", ++i);
  NUVSysTraceDestroy__(t);
}

void disabledSpdlog(benchmark::State& st) {
  auto logger = spdlog::create<spdlog::sinks::ringbuffer_sink_mt>("bench_off", 16);
  logger->set_level(spdlog::level::warn);
  int i = 0;
  for (auto _ : st) logger->debug("line {}", ++i);
  spdlog::drop("bench_off");
}

void fileOurs(benchmark::State& st) {
  // Two directories in turn: changing the directory closes the previous
  // file, which is then removed, so that every repetition starts empty.
  int round = 0;
  for (auto _ : st) {
    st.PauseTiming();
    const std::string dir = g_dir + (round++ % 2 == 0 ? "/a" : "/b");
    NUVSysTraceConfigure__(("--name BenchFile --level info --sink file --size 4G --count 1 --directory " + dir).c_str());
    const std::string path = dir + "/BenchFile." + std::to_string(getpid()) + ".trace";
    unlink(path.c_str());
    NUVSysTrace* t = NUVSysTraceCreate__("BenchFile");
    st.ResumeTiming();
    for (int i = 0; i < kFileLines; ++i) NUVSYSTRACE_INFO(t, "line %d of the benchmark", i);
    NUVSysTraceDestroy__(t);  // the last handle: writes the buffer
  }
  st.SetItemsProcessed(st.iterations() * kFileLines);
}

void fileSpdlog(benchmark::State& st) {
  const std::string path = g_dir + "/spdlog.trace";
  for (auto _ : st) {
    auto logger = spdlog::basic_logger_mt("BenchFile", path, true);
    logger->set_pattern("%Y-%m-%dT%H:%M:%S.%fZ %t %n %^%l%$: %v", spdlog::pattern_time_type::utc);
    for (int i = 0; i < kFileLines; ++i) logger->info("line {} of the benchmark", i);
    logger->flush();
    spdlog::drop("BenchFile");
  }
  st.SetItemsProcessed(st.iterations() * kFileLines);
  unlink(path.c_str());
}

void memoryOurs(benchmark::State& st) {
  NUVSysTrace* t = NUVSysTraceCreate__("BenchRing");
  int i = 0;
  for (auto _ : st) NUVSYSTRACE_INFO(t, "line %d of the benchmark", ++i);
  NUVSysTraceDestroy__(t);
  st.SetItemsProcessed(st.iterations());
}

void memorySpdlog(benchmark::State& st) {
  auto logger = spdlog::create<spdlog::sinks::ringbuffer_sink_mt>("BenchRing", 1024);
  logger->set_pattern("%Y-%m-%dT%H:%M:%S.%fZ %t %n %^%l%$: %v", spdlog::pattern_time_type::utc);
  int i = 0;
  for (auto _ : st) logger->info("line {} of the benchmark", ++i);
  spdlog::drop("BenchRing");
  st.SetItemsProcessed(st.iterations());
}

}  // namespace

int main(int argc, char** argv) {
  return bench::run(argc, argv, [] {
    char pattern[] = "/tmp/systemts-bench-trace-XXXXXX";
    if (mkdtemp(pattern) == nullptr) std::abort();
    g_dir = pattern;
    setenv("KELTraceRing", "1024", 1);
    NUVSysTraceConfigure__(nullptr);
    NUVSysTraceConfigure__("--name BenchOff --level warning --sink stderr");
    NUVSysTraceConfigure__("--name BenchRing --level info --sink memory");
    benchmark::RegisterBenchmark("trace_disabled/ours", disabledOurs);
    benchmark::RegisterBenchmark("trace_disabled/empty_call", disabledEmptyCall);
    benchmark::RegisterBenchmark("trace_disabled/ours_call", disabledOursCall);
    benchmark::RegisterBenchmark("trace_disabled/spdlog", disabledSpdlog);
    benchmark::RegisterBenchmark("trace_file_1M/ours", fileOurs)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("trace_file_1M/spdlog", fileSpdlog)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("trace_memory/ours", memoryOurs);
    benchmark::RegisterBenchmark("trace_memory/spdlog", memorySpdlog);
  });
}
