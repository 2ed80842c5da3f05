// The containers against their peers, in one run:
//
//   set_<op>/<entries>/<impl>   KELSysSimpleHashTable with KELSimpleHashIt and
//                               KELSimpleHashCompare (ours), std::unordered_set<void*>
//                               (std) and GLib's GHashTable with g_direct_hash (glib)
//       insert/1000000   1M pointers into an empty set (it grows as it goes)
//       hit, miss        lookups in a set of 1,000 or 1,000,000 pointers
//       remove/1000000   every pointer of a full set removed
//   strmap_<op>/100000/<impl>   NUVSysHashTable (ours) against
//                               std::unordered_map<std::string, void*> (std)
//       add, get         100,000 string keys added to an empty table, looked up
//
// Keys are the addresses of 16-byte objects in one array, as a registry of
// live objects sees them: inserted in address order, looked up and removed in
// a shuffled order. Misses are addresses of the same kind from the other half
// of the array. Every implementation gets the same keys in the same order;
// setUp checks that all of them agree before anything is measured.
//
// String keys are 8 to 24 characters of [A-Za-z0-9_]. NUVSysHashTable writes
// a diagnostic line to standard output for every pair its lookups pass over
// in a slot, so the keys are drawn such that no two share one of its 400,009
// slots (the way its users size it); the peer gets the same bucket count.
#include <benchmark/benchmark.h>
#include <glib.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "KELSysSimpleHashTable.h"
#include "NUVSysHashTable.h"
#include "bench_common.h"

namespace {

constexpr size_t kBig = 1000000;
constexpr size_t kSmall = 1000;
constexpr size_t kKeys = 100000;
constexpr int kSlots = 400009;

struct Object {
  void* a;
  void* b;
};
static_assert(sizeof(Object) == 16, "16-byte objects");

struct Keys {
  std::vector<Object> objects;
  std::vector<void*> inserts;  // address order
  std::vector<void*> hits;     // the same, shuffled
  std::vector<void*> misses;   // other objects, shuffled
  std::vector<void*> removes;  // the same as inserts, shuffled differently

  Keys(size_t n, std::mt19937_64& rng) : objects(2 * n) {
    for (size_t i = 0; i < n; ++i) {
      inserts.push_back(&objects[i]);
      misses.push_back(&objects[n + i]);
    }
    hits = removes = inserts;
    std::shuffle(hits.begin(), hits.end(), rng);
    std::shuffle(misses.begin(), misses.end(), rng);
    std::shuffle(removes.begin(), removes.end(), rng);
  }
};

Keys* g_big;
Keys* g_small;
std::vector<std::string> g_strings;      // insertion order
std::vector<const char*> g_stringLookups;  // shuffled

// ---- the three sets behind one shape ----

struct Ours {
  KELSysSimpleHashTable t{0, KELSimpleHashIt, KELSimpleHashCompare};
  bool insert(void* p) { return t.Insert(p) == 1; }
  bool contains(void* p) const { return t.Locate(p) != nullptr; }
  bool remove(void* p) { return t.Remove(p) != nullptr; }
  size_t size() const { return static_cast<size_t>(t.Size()); }
};

struct Std {
  std::unordered_set<void*> t;
  bool insert(void* p) { return t.insert(p).second; }
  bool contains(void* p) const { return t.find(p) != t.end(); }
  bool remove(void* p) { return t.erase(p) != 0; }
  size_t size() const { return t.size(); }
};

struct Glib {
  GHashTable* t = g_hash_table_new(g_direct_hash, g_direct_equal);
  Glib() = default;
  Glib(const Glib&) = delete;
  Glib& operator=(const Glib&) = delete;
  ~Glib() { g_hash_table_destroy(t); }
  bool insert(void* p) { return g_hash_table_add(t, p) != FALSE; }
  bool contains(void* p) const { return g_hash_table_contains(t, p) != FALSE; }
  bool remove(void* p) { return g_hash_table_remove(t, p) != FALSE; }
  size_t size() const { return g_hash_table_size(t); }
};

template <class Set>
void fill(Set& s, const Keys& k) {
  for (void* p : k.inserts) s.insert(p);
}

template <class Set>
void setInsert(benchmark::State& st) {
  for (auto _ : st) {
    auto* s = new Set;
    for (void* p : g_big->inserts) benchmark::DoNotOptimize(s->insert(p));
    st.PauseTiming();
    delete s;
    st.ResumeTiming();
  }
  st.SetItemsProcessed(st.iterations() * static_cast<int64_t>(kBig));
}

template <class Set>
void setLookup(benchmark::State& st, const Keys* k, bool hit) {
  Set s;
  fill(s, *k);
  const std::vector<void*>& probes = hit ? k->hits : k->misses;
  for (auto _ : st) {
    size_t found = 0;
    for (void* p : probes) found += s.contains(p);
    benchmark::DoNotOptimize(found);
  }
  st.SetItemsProcessed(st.iterations() * static_cast<int64_t>(probes.size()));
}

template <class Set>
void setRemove(benchmark::State& st) {
  for (auto _ : st) {
    st.PauseTiming();
    auto* s = new Set;
    fill(*s, *g_big);
    st.ResumeTiming();
    for (void* p : g_big->removes) benchmark::DoNotOptimize(s->remove(p));
    st.PauseTiming();
    delete s;
    st.ResumeTiming();
  }
  st.SetItemsProcessed(st.iterations() * static_cast<int64_t>(kBig));
}

// ---- string maps ----

// Stores the caller's value pointers as they are.
class BorrowingTable : public NUVSysHashTable {
 public:
  BorrowingTable() : NUVSysHashTable(kSlots, 1) {}
  ~BorrowingTable() override { Erase(); }
  void* CopyValue(const void* value) override { return const_cast<void*>(value); }
  void DeleteValue(void*) override {}
  int CompareValue(const void* a, const void* b) override { return a == b ? 0 : 1; }
};

using StdMap = std::unordered_map<std::string, void*>;

void* valueOf(const std::string& key) { return const_cast<char*>(key.c_str()); }

void strmapAddOurs(benchmark::State& st) {
  for (auto _ : st) {
    auto* t = new BorrowingTable;
    for (const std::string& key : g_strings) benchmark::DoNotOptimize(t->Add(key.c_str(), valueOf(key)));
    st.PauseTiming();
    delete t;
    st.ResumeTiming();
  }
  st.SetItemsProcessed(st.iterations() * static_cast<int64_t>(kKeys));
}

void strmapAddStd(benchmark::State& st) {
  for (auto _ : st) {
    auto* m = new StdMap;
    m->rehash(kSlots);
    for (const std::string& key : g_strings) benchmark::DoNotOptimize(m->emplace(key.c_str(), valueOf(key)));
    st.PauseTiming();
    delete m;
    st.ResumeTiming();
  }
  st.SetItemsProcessed(st.iterations() * static_cast<int64_t>(kKeys));
}

void strmapGetOurs(benchmark::State& st) {
  BorrowingTable t;
  for (const std::string& key : g_strings) t.Add(key.c_str(), valueOf(key));
  for (auto _ : st)
    for (const char* key : g_stringLookups) benchmark::DoNotOptimize(t.Get(key));
  st.SetItemsProcessed(st.iterations() * static_cast<int64_t>(kKeys));
}

void strmapGetStd(benchmark::State& st) {
  StdMap m;
  m.rehash(kSlots);
  for (const std::string& key : g_strings) m.emplace(key, valueOf(key));
  for (auto _ : st)
    for (const char* key : g_stringLookups) {
      // Same work as ours: the caller holds a C string.
      auto it = m.find(key);
      benchmark::DoNotOptimize(it != m.end() ? it->second : nullptr);
    }
  st.SetItemsProcessed(st.iterations() * static_cast<int64_t>(kKeys));
}

// ---- set-up and agreement ----

[[noreturn]] void disagree(const char* what) {
  std::fprintf(stderr, "bench_containers: %s\n", what);
  std::exit(3);
}

template <class Set>
void check(const Keys& k) {
  Set s;
  for (void* p : k.inserts)
    if (!s.insert(p)) disagree("an insert was refused");
  for (void* p : k.inserts)
    if (s.insert(p)) disagree("a second insert was accepted");
  for (void* p : k.hits)
    if (!s.contains(p)) disagree("a member is missing");
  for (void* p : k.misses)
    if (s.contains(p)) disagree("a non-member was found");
  for (size_t i = 0; i < k.removes.size(); ++i) {
    if (!s.remove(k.removes[i])) disagree("a removal failed");
    if (s.size() != k.removes.size() - i - 1) disagree("the size is wrong after a removal");
  }
}

void setUp() {
  std::mt19937_64 rng(2026);
  g_big = new Keys(kBig, rng);
  g_small = new Keys(kSmall, rng);
  for (const Keys* k : {g_big, g_small}) {
    check<Ours>(*k);
    check<Std>(*k);
    check<Glib>(*k);
  }

  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";
  BorrowingTable slots;
  std::vector<bool> used(kSlots);
  while (g_strings.size() < kKeys) {
    std::string key(8 + rng() % 17, ' ');
    for (char& c : key) c = kAlphabet[rng() % (sizeof kAlphabet - 1)];
    const int slot = slots.GetHashSlotIndex(key.c_str());
    if (slot < 0 || used[static_cast<size_t>(slot)]) continue;
    used[static_cast<size_t>(slot)] = true;
    g_strings.push_back(key);
  }
  for (const std::string& key : g_strings) g_stringLookups.push_back(key.c_str());
  std::shuffle(g_stringLookups.begin(), g_stringLookups.end(), rng);

  BorrowingTable ours;
  StdMap peer;
  for (const std::string& key : g_strings)
    if (ours.Add(key.c_str(), valueOf(key)) != 0 || !peer.emplace(key, valueOf(key)).second)
      disagree("a string key was refused");
  for (const char* key : g_stringLookups)
    if (ours.Get(key) == nullptr || ours.Get(key) != peer.at(key)) disagree("the string maps disagree");
}

void registerAll() {
  const auto us = benchmark::kMicrosecond;
  benchmark::RegisterBenchmark("set_insert/1000000/ours", setInsert<Ours>)->Unit(us);
  benchmark::RegisterBenchmark("set_insert/1000000/std", setInsert<Std>)->Unit(us);
  benchmark::RegisterBenchmark("set_insert/1000000/glib", setInsert<Glib>)->Unit(us);
  for (const Keys* k : {g_small, g_big}) {
    const std::string n = std::to_string(k->inserts.size());
    for (bool hit : {true, false}) {
      const std::string op = std::string("set_") + (hit ? "hit/" : "miss/") + n;
      benchmark::RegisterBenchmark((op + "/ours").c_str(), setLookup<Ours>, k, hit)->Unit(us);
      benchmark::RegisterBenchmark((op + "/std").c_str(), setLookup<Std>, k, hit)->Unit(us);
      benchmark::RegisterBenchmark((op + "/glib").c_str(), setLookup<Glib>, k, hit)->Unit(us);
    }
  }
  benchmark::RegisterBenchmark("set_remove/1000000/ours", setRemove<Ours>)->Unit(us);
  benchmark::RegisterBenchmark("set_remove/1000000/std", setRemove<Std>)->Unit(us);
  benchmark::RegisterBenchmark("set_remove/1000000/glib", setRemove<Glib>)->Unit(us);
  benchmark::RegisterBenchmark("strmap_add/100000/ours", strmapAddOurs)->Unit(us);
  benchmark::RegisterBenchmark("strmap_add/100000/std", strmapAddStd)->Unit(us);
  benchmark::RegisterBenchmark("strmap_get/100000/ours", strmapGetOurs)->Unit(us);
  benchmark::RegisterBenchmark("strmap_get/100000/std", strmapGetStd)->Unit(us);
}

}  // namespace

int main(int argc, char** argv) {
  return bench::run(argc, argv, [] {
    setUp();
    registerAll();
  });
}
