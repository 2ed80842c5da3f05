// The pointer hash set: sizes, growth and shrinking, and a model test against
// std::unordered_set through many growths and shrinks.
#include "KELSysSimpleHashTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <random>
#include <unordered_set>
#include <vector>

#include "FaultInjection.h"

namespace {

using Table = KELSysSimpleHashTable;

// The fields in their documented order: equality, hash, storage, bucket count, count.
static_assert(sizeof(Table) == 3 * sizeof(void*) + 2 * sizeof(int), "the table keeps its documented fields");
int buckets(const Table& t) {
  int n;
  std::memcpy(&n, reinterpret_cast<const char*>(&t) + 3 * sizeof(void*), sizeof n);
  return n;
}

// &g_obj[i] hashes to i % kChains under chainedHash (long chains); equality
// compares the values, so a copy of an object equals it.
constexpr unsigned kChains = 31;
std::vector<long> g_obj = [] {
  std::vector<long> v(8000);
  std::iota(v.begin(), v.end(), 0L);
  return v;
}();
unsigned int chainedHash(void* p) { return static_cast<unsigned>(*static_cast<long*>(p)) % kChains; }
int valueEqual(void* a, void* b) { return *static_cast<long*>(a) == *static_cast<long*>(b); }
void* item(size_t i) { return &g_obj[i]; }

TEST(KELSysSimpleHashTable, Sizes) {
  const struct { int n, nice; } kNice[] = {{0, 0},     {1, 1},     {2, 2},       {4, 5},       {10, 11},
                                           {19, 19},   {20, 23},   {24, 29},     {100, 101},   {121, 127},
                                           {529, 529}, {-1, 0},    {1000, 1009}, {INT32_MAX, INT32_MAX}};
  for (const auto& c : kNice) EXPECT_EQ(c.nice, Table::UpToNiceModulo(c.n)) << c.n;
  const struct { int request, buckets; } kInitial[] = {{-5, 11}, {0, 11}, {1, 11}, {10, 11}, {12, 13}, {100, 101}};
  for (const auto& c : kInitial) EXPECT_EQ(c.buckets, buckets(Table(c.request, KELSimpleHashIt, nullptr))) << c.request;

  EXPECT_EQ(0x9ABCDEF0u, KELSimpleHashIt(reinterpret_cast<void*>(uintptr_t{0x19ABCDEF0} << 3 | 7)));
  EXPECT_EQ(1, KELSimpleHashCompare(item(1), item(1)));
  EXPECT_EQ(0, KELSimpleHashCompare(item(1), item(2)));
}

// Growth and shrinking are followed step by step in the model tests below.
// Blocks of 32 MiB and more are placed differently inside their allocation:
// growing into one, working in it and shrinking out of it keeps every item.
TEST(KELSysSimpleHashTable, ReAllocateLargeBlocksAndRemoveAll) {
  Table t(0, nullptr, nullptr);  // null functions: the pointer-set ones
  for (int i = 0; i < 30; ++i) ASSERT_EQ(1, t.Insert(item(i)));
  EXPECT_EQ(47, buckets(t));      // 11, 23, 47
  EXPECT_EQ(0, t.ReAllocate(0));  // nice(2 * 47)
  EXPECT_EQ(97, buckets(t));
  EXPECT_EQ(0, t.ReAllocate(5));  // too few for 30: doubled as reinserting would (5, 11, 23, 47)
  EXPECT_EQ(47, buckets(t));
  for (int i = 0; i < 30; ++i) ASSERT_EQ(item(i), t.Get(i));
  ASSERT_EQ(0, t.ReAllocate(1500000));
  EXPECT_EQ(Table::UpToNiceModulo(1500000), buckets(t));
  for (int i = 30; i < 200; ++i) ASSERT_EQ(1, t.Insert(item(i)));
  for (int i = 0; i < 200; ++i) ASSERT_EQ(item(i), t.Locate(item(i))) << i;
  ASSERT_EQ(item(7), t.Remove(item(7)));  // shrinks to a small block
  EXPECT_EQ(Table::UpToNiceModulo(218), buckets(t));  // 199 * 1.1
  for (int i = 0; i < 200; ++i) EXPECT_EQ(i == 7 ? nullptr : item(i), t.Locate(item(i))) << i;
  t.RemoveAll();  // empties without shrinking
  EXPECT_EQ(0, t.Size());
  EXPECT_EQ(Table::UpToNiceModulo(218), buckets(t));
  EXPECT_EQ(nullptr, t.Locate(item(3)));
}

// The table against std::unordered_set plus the expected positions (a
// removal moves the last item into the hole) and the expected bucket count.
void modelTest(unsigned (*hash)(void*), int (*equal)(void*, void*), uint32_t seed) {
  Table t(0, hash, equal);
  std::unordered_set<void*> set;
  std::vector<void*> positions;
  int expectBuckets = 11, growths = 0, shrinks = 0;
  std::mt19937 rng(seed);
  const size_t kGoals[] = {2000, 20, 3000, 0, 1000, 12, 2500, 100};
  for (size_t phase = 0; phase < 16; ++phase) {
    const size_t goal = kGoals[phase % 8];
    const bool growing = set.size() < goal;
    for (int step = 0; step < 30000 && set.size() != goal; ++step) {
      // Mostly towards the goal; removals mostly take a member.
      const bool insert = (rng() % 4 != 0) == growing;
      size_t i = rng() % g_obj.size();
      if (!insert && !positions.empty() && rng() % 8 != 0)
        i = static_cast<size_t>(static_cast<long*>(positions[rng() % positions.size()]) - g_obj.data());
      if (insert) {
        const bool fresh = set.insert(item(i)).second;
        if (fresh && static_cast<int>(positions.size()) == expectBuckets) {
          expectBuckets = Table::UpToNiceModulo(2 * expectBuckets);
          ++growths;
        }
        ASSERT_EQ(fresh ? 1 : 0, t.Insert(item(i)));
        if (fresh) positions.push_back(item(i));
      } else {
        const bool member = set.erase(item(i)) != 0;
        ASSERT_EQ(member ? item(i) : nullptr, t.Remove(item(i)));
        if (!member) continue;
        auto p = std::find(positions.begin(), positions.end(), item(i));
        *p = positions.back();
        positions.pop_back();
        const int n = static_cast<int>(positions.size());
        if (3 * n < expectBuckets && n >= 12) {
          expectBuckets = Table::UpToNiceModulo(static_cast<int>(n * 1.1));
          ++shrinks;
        }
        for (int k = 0; k <= n; ++k) ASSERT_EQ(k < n ? positions[k] : nullptr, t.Get(k)) << "position " << k;
      }
      ASSERT_EQ(static_cast<int>(set.size()), t.Size());
      ASSERT_EQ(expectBuckets, buckets(t));
      ASSERT_EQ(set.count(item(i)) != 0 ? item(i) : nullptr, t.Locate(item(i)));
    }
  }
  EXPECT_GT(growths, 20);
  EXPECT_GT(shrinks, 10);
  std::unordered_set<void*> walked;  // Next visits every position once
  for (void* p = t.Next(nullptr); p != nullptr; p = t.Next(p)) ASSERT_TRUE(walked.insert(p).second);
  EXPECT_EQ(set, walked);
}

TEST(KELSysSimpleHashTable, ModelPointerSetAndLongChains) {
  modelTest(KELSimpleHashIt, KELSimpleHashCompare, 2026);
  modelTest(chainedHash, valueEqual, 7);
}

TEST(KELSysSimpleHashTable, EqualItemsChainsAndLookups) {
  Table t(0, chainedHash, valueEqual);
  const size_t a = 3, b = 3 + kChains, c = 3 + 2 * kChains, d = 4;  // a, b, c: hash 3, bucket 3 of 11
  long copyOfA = 3, absent = 5000;
  for (size_t i : {a, b, c, d}) ASSERT_EQ(1, t.Insert(item(i)));
  EXPECT_EQ(item(a), t.InsertAndReturn(&copyOfA));  // the stored equal item
  EXPECT_EQ(nullptr, t.Remove(&absent));
  EXPECT_EQ(item(a), t.Locate(&copyOfA));
  EXPECT_EQ(item(b), t.LocateBucket(&copyOfA)->next->item);  // chain in insertion order
  EXPECT_EQ(item(a), t.KeyLocate(3));
  EXPECT_EQ(nullptr, t.KeyLocate(3 + 11));  // same bucket, other hash
  ASSERT_EQ(0, t.ReAllocate(0));            // chains keep their order through a rebuild
  EXPECT_EQ(item(b), t.NextWithKey(&copyOfA));
  EXPECT_EQ(item(c), t.NextWithKey(item(b)));
  for (void* p : {item(c), item(d), static_cast<void*>(nullptr), static_cast<void*>(&absent)}) {
    EXPECT_EQ(nullptr, t.NextWithKey(p));
    EXPECT_EQ(p == nullptr ? item(a) : p == item(c) ? item(d) : nullptr, t.Next(p));
  }
  EXPECT_EQ(item(a), t.Remove(&copyOfA));  // the last item (d) moves into the hole
  EXPECT_EQ(item(d), t.Get(0));
  EXPECT_EQ(item(c), t.NextWithKey(item(b)));
  for (int i : {-1, 3}) EXPECT_EQ(nullptr, t.Get(i));
}

// ---- failures of the operating system ----

using systemts::detail::SysCalls;
using Malloc = Fault<&SysCalls::malloc>;

TEST(KELSysSimpleHashTableFaults, FailedBlocksLeaveTheTableAsItWas) {
  {
    Malloc f(ENOMEM, nullptr);  // the first request fails: half of it is taken
    EXPECT_EQ(53, buckets(Table(100, KELSimpleHashIt, nullptr)));
  }
  {
    Malloc f(ENOMEM, nullptr, 1, Malloc::kAlways);  // every halving fails: no storage
    Table t(100, KELSimpleHashIt, nullptr);
    EXPECT_EQ(0, buckets(t));
    EXPECT_EQ(-1, t.Insert(item(1)));
    EXPECT_EQ(nullptr, t.InsertAndReturn(item(1)));
    EXPECT_EQ(-1, t.ReAllocate(0));
    EXPECT_EQ(0, t.Size());
  }
  // Growth on insert (a small block, malloc: the twelfth item in 11 buckets)
  // and on request (a large one, calloc).
  Table u(0, chainedHash, valueEqual);
  for (int i = 0; i < 11; ++i) ASSERT_EQ(1, u.Insert(item(i)));
  {
    Malloc f(ENOMEM, nullptr, 1, Malloc::kAlways);
    EXPECT_EQ(-1, u.Insert(item(11)));
    EXPECT_EQ(nullptr, u.InsertAndReturn(item(11)));
  }
  {
    Fault<&SysCalls::calloc> f(ENOMEM, nullptr);
    EXPECT_EQ(-1, u.ReAllocate(1500000));
  }
  EXPECT_EQ(11, buckets(u));
  EXPECT_EQ(11, u.Size());
  for (int i = 0; i < 11; ++i) EXPECT_EQ(item(i), u.Locate(item(i))) << i;
  EXPECT_EQ(1, u.Insert(item(11)));
  EXPECT_EQ(0, u.ReAllocate(1500000));
}

}  // namespace
