// Paths: joining and splitting against std::filesystem::path; iterating one
// directory of 100,000 files against raw readdir and
// std::filesystem::directory_iterator; walking a tree of 100,000 files
// against std::filesystem::recursive_directory_iterator.
//
// The trees are made under /tmp before the benchmarks run and removed after.
// Every case does the same work per iteration as the other members of its
// case, so bench/ratios.py gives peer time over our time.
//
//   build/bench/bench/bench_path --benchmark_repetitions=5
//       --benchmark_report_aggregates_only=true --benchmark_format=json > path.json
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "NUVSysDirectoryIterator.h"
#include "NUVSysDirectoryWalker.h"
#include "NUVSysPath.h"
#include "bench_common.h"

namespace fs = std::filesystem;

namespace {
constexpr int kJoins = 1000000;
constexpr int kFlatFiles = 100000;
std::string g_root;  // /tmp/nuvsyspath_bench_XXXXXX
std::string g_flat;  // 100,000 files
std::string g_tree;  // 100 directories x 10 directories x 100 files

const std::vector<std::string>& components() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> v;
    for (int i = 0; i < 64; ++i) v.push_back("component_" + std::to_string(i) + ".dat");
    return v;
  }();
  return names;
}

void touch(const std::string& path) {
  const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY, 0644);
  if (fd >= 0) ::close(fd);
}

void makeTrees() {
  char name[] = "/tmp/nuvsyspath_bench_XXXXXX";
  g_root = ::mkdtemp(name);
  g_flat = g_root + "/flat";
  g_tree = g_root + "/tree";
  fs::create_directory(g_flat);
  for (int i = 0; i < kFlatFiles; ++i) touch(g_flat + "/file_" + std::to_string(i) + ".inp");
  for (int a = 0; a < 100; ++a) {
    const std::string da = g_tree + "/d" + std::to_string(a);
    fs::create_directories(da);
    for (int b = 0; b < 10; ++b) {
      const std::string db = da + "/e" + std::to_string(b);
      fs::create_directory(db);
      for (int c = 0; c < 100; ++c) touch(db + "/f" + std::to_string(c));
    }
  }
}

// Before timing: both sides give the same answers on the same input.
void checkAnswers() {
  const auto fail = [](const char* what) {
    std::fprintf(stderr, "bench_path: %s differ\n", what);
    std::exit(1);
  };
  for (const std::string& c : components()) {
    NUVSysPath p("/usr/local/share/application");
    p.Append(c.c_str());
    NUVSysPath parent;
    KELUnicodeString name;
    p.split(parent, name);
    const fs::path q = fs::path("/usr/local/share/application") / c;
    if (q.native() != p.GetUTF8() || q.parent_path().native() != parent.GetUTF8() ||
        q.filename().native() != name.ConvertToUTF8())
      fail("joins and splits");
  }
  size_t ours = 0, raw = 0, peer = 0;
  const NUVSysPath flat(g_flat.c_str());
  for (NUVSysDirectoryIterator it = flat.Begin(); it != flat.End(); ++it) ++ours;
  for (const fs::directory_entry& e : fs::directory_iterator(g_flat)) peer += e.path().empty() ? 0 : 1;
  DIR* d = ::opendir(g_flat.c_str());
  while (struct dirent* e = ::readdir(d)) raw += e->d_name[0] == '.' ? 0 : 1;
  ::closedir(d);
  if (ours != kFlatFiles || raw != kFlatFiles || peer != kFlatFiles) fail("directory counts");
  ours = peer = 0;
  NUVSysDirectoryWalker w;
  w.Open(NUVSysPath(g_tree.c_str()));
  while (w.Next() == 0) ++ours;
  for (const fs::directory_entry& e : fs::recursive_directory_iterator(g_tree)) peer += e.path().empty() ? 0 : 1;
  if (ours != peer || ours != 100 + 1000 + 100000) fail("tree walks");
}

void joinSplitOurs(benchmark::State& state) {
  const NUVSysPath base("/usr/local/share/application");
  const auto& names = components();
  size_t sum = 0;
  for (auto _ : state) {
    for (int i = 0; i < kJoins; ++i) {
      NUVSysPath p(base);
      p.Append(names[i & 63].c_str());
      NUVSysPath parent;
      KELUnicodeString name;
      p.split(parent, name);
      sum += static_cast<size_t>(name.GetLengthInChar());
    }
  }
  benchmark::DoNotOptimize(sum);
}

void joinSplitStd(benchmark::State& state) {
  const fs::path base("/usr/local/share/application");
  const auto& names = components();
  size_t sum = 0;
  for (auto _ : state) {
    for (int i = 0; i < kJoins; ++i) {
      fs::path p = base / names[i & 63];
      fs::path parent = p.parent_path();
      fs::path name = p.filename();
      sum += name.native().size() + parent.native().size();
    }
  }
  benchmark::DoNotOptimize(sum);
}

void iterateOurs(benchmark::State& state) {
  const NUVSysPath dir(g_flat.c_str());
  size_t n = 0;
  for (auto _ : state) {
    // End() is made once, as a loop over many entries should: each End()
    // is an iterator of its own, allocated.
    const NUVSysDirectoryIterator end = dir.End();
    for (NUVSysDirectoryIterator it = dir.Begin(); it != end; ++it) ++n;
  }
  state.counters["entries"] = static_cast<double>(n) / static_cast<double>(state.iterations());
}

void iterateReaddir(benchmark::State& state) {
  size_t n = 0;
  for (auto _ : state) {
    DIR* d = ::opendir(g_flat.c_str());
    while (struct dirent* e = ::readdir(d)) {
      if (e->d_name[0] == '.' && (e->d_name[1] == '\0' || (e->d_name[1] == '.' && e->d_name[2] == '\0')))
        continue;
      ++n;
    }
    ::closedir(d);
  }
  state.counters["entries"] = static_cast<double>(n) / static_cast<double>(state.iterations());
}

void iterateStd(benchmark::State& state) {
  size_t n = 0;
  for (auto _ : state) {
    for (const fs::directory_entry& e : fs::directory_iterator(g_flat)) {
      benchmark::DoNotOptimize(e.path().native().data());
      ++n;
    }
  }
  state.counters["entries"] = static_cast<double>(n) / static_cast<double>(state.iterations());
}

void walkOurs(benchmark::State& state) {
  const NUVSysPath root(g_tree.c_str());
  size_t n = 0;
  for (auto _ : state) {
    NUVSysDirectoryWalker w;
    w.Open(root);
    while (w.Next() == 0) {
      benchmark::DoNotOptimize(w.GetCurrentPathUTF8());
      ++n;
    }
  }
  state.counters["entries"] = static_cast<double>(n) / static_cast<double>(state.iterations());
}

void walkStd(benchmark::State& state) {
  size_t n = 0;
  for (auto _ : state) {
    for (const fs::directory_entry& e : fs::recursive_directory_iterator(g_tree)) {
      benchmark::DoNotOptimize(e.path().native().data());
      ++n;
    }
  }
  state.counters["entries"] = static_cast<double>(n) / static_cast<double>(state.iterations());
}
}  // namespace

int main(int argc, char** argv) {
  const int rc = bench::run(argc, argv, [] {
    makeTrees();
    checkAnswers();
    auto reg = [](const char* name, void (*fn)(benchmark::State&)) {
      benchmark::RegisterBenchmark(name, fn)->Unit(benchmark::kMillisecond)->UseRealTime();
    };
    reg("path_join_split_1M/ours", joinSplitOurs);
    reg("path_join_split_1M/std_filesystem", joinSplitStd);
    reg("dir_iterate_100k/ours", iterateOurs);
    reg("dir_iterate_100k/readdir", iterateReaddir);
    reg("dir_iterate_100k/std_filesystem", iterateStd);
    reg("tree_walk_100k/ours", walkOurs);
    reg("tree_walk_100k/std_filesystem", walkStd);
  });
  std::error_code ec;
  if (!g_root.empty()) fs::remove_all(g_root, ec);
  return rc;
}
