// Named-argument look-ups and command-line splitting, each beside a peer in
// the same run.
//
// - Look-ups: NUVSysTSGetArg of a present name (the value handed out as a
//   KELUnicodeString) against a std::shared_mutex guarding a
//   std::unordered_map<std::string, std::string> (the value copied out as a
//   std::string), from 1 and from 2 threads. Time per look-up.
// - Splitting: one 200-argument line (words, quoted arguments with blanks,
//   "--name=value" options) into a vector and freeing it, against GLib's
//   g_shell_parse_argv and g_strfreev. The line is chosen so that both give
//   the same vector, which is checked before timing. Bytes are the line's.
#include <benchmark/benchmark.h>
#include <glib.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "NUVSysEnvironCommandLine.h"
#include "NUVSysTSArgs.h"
#include "bench_common.h"

namespace {

// A command line of a typical size: 20 named arguments.
std::vector<std::string> g_args;
const char* const kName = "file";
const char* const kValue = "/data/projects/bridge/model_v12.inp";

struct PeerTable {
  std::shared_mutex lock;
  std::unordered_map<std::string, std::string> map;
};
PeerTable g_peer;

std::string g_line;

void ourGetArg(benchmark::State& st) {
  KELUnicodeString value;
  int kind = 0;
  for (auto _ : st) {
    if (NUVSysTSGetArg(kName, kind, value) != 0) st.SkipWithError("not found");
    benchmark::DoNotOptimize(value);
  }
}

void peerGetArg(benchmark::State& st) {
  std::string value;
  for (auto _ : st) {
    {
      std::shared_lock<std::shared_mutex> g(g_peer.lock);
      const auto it = g_peer.map.find(std::string(kName));
      if (it == g_peer.map.end()) st.SkipWithError("not found");
      value = it->second;
    }
    benchmark::DoNotOptimize(value);
  }
}

void ourSplit(benchmark::State& st) {
  for (auto _ : st) {
    char** argv = nullptr;
    int argc = 0;
    NUVSysEnvironBuildArgumentFromCommandLine(g_line.c_str(), &argv, &argc);
    benchmark::DoNotOptimize(argv);
    NUVSysEnvironDeleteArgumentArrayA(&argv, argc);
  }
  st.SetBytesProcessed(static_cast<int64_t>(st.iterations()) * static_cast<int64_t>(g_line.size()));
}

void glibSplit(benchmark::State& st) {
  for (auto _ : st) {
    gchar** argv = nullptr;
    gint argc = 0;
    g_shell_parse_argv(g_line.c_str(), &argc, &argv, nullptr);
    benchmark::DoNotOptimize(argv);
    g_strfreev(argv);
  }
  st.SetBytesProcessed(static_cast<int64_t>(st.iterations()) * static_cast<int64_t>(g_line.size()));
}

void setUp() {
  // The table and the peer map hold the same 20 entries.
  g_args = {"prog", "-batch", "-file", kValue};
  for (int i = 0; i < 18; ++i) g_args.push_back("--opt" + std::to_string(i) + "=value" + std::to_string(i));
  std::vector<char*> argv;
  for (std::string& a : g_args) argv.push_back(a.data());
  argv.push_back(nullptr);
  NUVSysTSSetArg(static_cast<int>(g_args.size()), argv.data());
  g_peer.map["batch"] = "";
  g_peer.map[kName] = kValue;
  for (int i = 0; i < 18; ++i) g_peer.map["opt" + std::to_string(i)] = "value" + std::to_string(i);
  KELUnicodeString v;
  int kind = 0;
  if (NUVSysTSGetArg(kName, kind, v) != 0 || v.ConvertToUTF8() != kValue) std::abort();

  // 200 arguments: a program, words, quoted arguments, options.
  std::vector<std::string> want{"/opt/app/bin/solver"};
  g_line = want[0];
  for (int i = 1; i < 200; ++i) {
    std::string arg, text;
    switch (i % 4) {
      case 0: arg = text = "--level" + std::to_string(i) + "=" + std::to_string(i * 7); break;
      case 1: arg = "input_" + std::to_string(i) + ".dat"; text = arg; break;
      case 2: arg = "a title with blanks " + std::to_string(i); text = "\"" + arg + "\""; break;
      default: arg = "-v"; text = arg; break;
    }
    want.push_back(arg);
    g_line += " " + text;
  }
  char** ours = nullptr;
  int n = 0;
  gchar** theirs = nullptr;
  gint m = 0;
  if (NUVSysEnvironBuildArgumentFromCommandLine(g_line.c_str(), &ours, &n) != 0 ||
      !g_shell_parse_argv(g_line.c_str(), &m, &theirs, nullptr) || n != 200 || m != 200)
    std::abort();
  for (int i = 0; i < 200; ++i)
    if (want[i] != ours[i] || want[i] != theirs[i]) std::abort();
  NUVSysEnvironDeleteArgumentArrayA(&ours, n);
  g_strfreev(theirs);

  benchmark::RegisterBenchmark("GetArg/ours", ourGetArg)->Threads(1)->Threads(2)->UseRealTime();
  benchmark::RegisterBenchmark("GetArg/shared_mutex_map", peerGetArg)->Threads(1)->Threads(2)->UseRealTime();
  benchmark::RegisterBenchmark("Split200/ours", ourSplit);
  benchmark::RegisterBenchmark("Split200/glib", glibSplit);
}

}  // namespace

int main(int argc, char** argv) { return bench::run(argc, argv, setUp); }
