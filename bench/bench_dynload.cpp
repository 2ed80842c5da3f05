// Symbol look-up: a cached KELThrLibraryManager::GetFunctionAddress hit
// against the loader's own dlsym on a handle already open, for the same
// module and the same names, from one and from two threads. Each iteration
// looks up one of 32 names in turn. Reported as time per look-up (wall
// clock, so that time spent waiting for the other thread counts); compare
// medians.
//
// The module, libbench_dlmod.so, is built beside this program. The loader
// finds it through LD_LIBRARY_PATH, read only when a process starts, so the
// program sets it and starts itself again when it is missing.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "KELThrLibraryManager.h"
#include "bench_common.h"

namespace {

constexpr int kNames = 32;
const char* g_names[kNames];
void* g_handle = nullptr;

void lookupOurs(benchmark::State& st) {
  int i = 0;
  for (auto _ : st) {
    benchmark::DoNotOptimize(KELThrLibraryManager::GetFunctionAddress("bench_dlmod", g_names[i]));
    i = (i + 1) & (kNames - 1);
  }
}

void lookupDlsym(benchmark::State& st) {
  int i = 0;
  for (auto _ : st) {
    benchmark::DoNotOptimize(dlsym(g_handle, g_names[i]));
    i = (i + 1) & (kNames - 1);
  }
}

BENCHMARK(lookupOurs)->Name("lookup/ours")->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(lookupDlsym)->Name("lookup/dlsym")->Threads(1)->Threads(2)->UseRealTime();

// Loads the module, fills the cache and checks that both ways find the same
// function for every name.
void prepare() {
  static std::string names[kNames];
  for (int n = 0; n < kNames; ++n) {
    names[n] = "bench_fn_" + std::to_string(n);
    g_names[n] = names[n].c_str();
  }
  g_handle = KELThrLibraryManager::LoadLibrary("bench_dlmod");
  if (g_handle == nullptr) {
    std::fprintf(stderr, "bench_dynload: %s\n", NUVSysDynamicLoadLastError());
    std::exit(1);
  }
  for (int n = 0; n < kNames; ++n) {
    void* ours = KELThrLibraryManager::GetFunctionAddress("bench_dlmod", g_names[n]);
    if (ours == nullptr || ours != dlsym(g_handle, g_names[n]) ||
        reinterpret_cast<int (*)()>(ours)() != n) {
      std::fprintf(stderr, "bench_dynload: %s differs\n", g_names[n]);
      std::exit(1);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const char* path = std::getenv("LD_LIBRARY_PATH");
  const std::string dir = SYSTEMTS_BENCH_MODULE_DIR;
  if (path == nullptr || std::string(path).find(dir) == std::string::npos) {
    const std::string value = path != nullptr && *path ? dir + ":" + path : dir;
    setenv("LD_LIBRARY_PATH", value.c_str(), 1);
    execv("/proc/self/exe", argv);
    std::perror("bench_dynload: execv");
    return 1;
  }
  return bench::run(argc, argv, prepare);
}
