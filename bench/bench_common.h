// What every benchmark program in bench/ does the same way: find the corpora,
// read them, and run Google Benchmark after starting one thread.
#ifndef SYSTEMTS_BENCH_COMMON_H
#define SYSTEMTS_BENCH_COMMON_H

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>

namespace bench {

// The UTF-8 texts in the corpora directory, <name>.txt, in the order the
// programs register them and bench/ratios.py lists them.
inline constexpr const char* kTextCorpora[] = {"ascii", "latin", "cjk", "emoji"};

// $SYSTEMTS_CORPORA when set and not empty, else the directory the build
// configured (../shared/corpora beside the source tree).
inline std::string corporaDir() {
  if (const char* env = std::getenv("SYSTEMTS_CORPORA"); env && *env) return env;
  return SYSTEMTS_CORPORA_DIR;
}

// Replaces `out` with the bytes of the file at `path`. False, with `out` left
// as it was, when the file cannot be opened.
inline bool readFile(const std::string& path, std::string& out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

// The whole of a benchmark program's main(). It first starts and joins one
// thread: glibc and libstdc++ skip atomic instructions in a process that never
// had a second thread, and a real host has had one. Then `prepare` reads the
// inputs, checks every implementation's answer and registers the benchmarks
// (those defined with BENCHMARK() are registered already), all untimed; then
// the benchmarks the command line selects run.
inline int run(int argc, char** argv, const std::function<void()>& prepare = {}) {
  std::thread([] {}).join();
  if (prepare) prepare();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace bench

#endif  // SYSTEMTS_BENCH_COMMON_H
