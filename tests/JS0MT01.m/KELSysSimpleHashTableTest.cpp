// The pointer hash set: sizes, growth and shrinking, dense positions, and a
// model test against std::unordered_set through many growths and shrinks.
#include "KELSysSimpleHashTable.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <unordered_set>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define SYSTEMTS_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SYSTEMTS_TEST_ASAN 1
#endif
#endif

#ifdef SYSTEMTS_TEST_ASAN
// Allocations above 256 MiB fail (null) instead of aborting, so that the
// growth and construction failures can be reached on purpose.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1:max_allocation_size_mb=256"; }
#endif

namespace {

using Table = KELSysSimpleHashTable;

// The five fields in their documented order; callers embed the table by value.
struct Fields {
  int (*equal)(void*, void*);
  unsigned int (*hash)(void*);
  void* storage;
  int buckets;
  int count;
};
static_assert(sizeof(Table) == sizeof(Fields), "the table keeps its documented fields");

Fields fieldsOf(const Table& t) {
  Fields f;
  std::memcpy(&f, static_cast<const void*>(&t), sizeof f);
  return f;
}
int buckets(const Table& t) { return fieldsOf(t).buckets; }

// Items whose hash is chosen: the hash of &g_obj[i] is i % kChains, so that
// chains are long and every path through them is used. Equality compares
// the objects' values, so a copy equals the original.
constexpr unsigned kChains = 31;
std::vector<long> g_obj(8000);
unsigned int chainedHash(void* p) { return static_cast<unsigned>(*static_cast<long*>(p)) % kChains; }
int valueEqual(void* a, void* b) { return *static_cast<long*>(a) == *static_cast<long*>(b); }
void* item(size_t i) { return &g_obj[i]; }

struct Init {
  Init() {
    for (size_t i = 0; i < g_obj.size(); ++i) g_obj[i] = static_cast<long>(i);
  }
} g_init;

TEST(KELSysSimpleHashTable, UpToNiceModulo) {
  const struct { int n, nice; } kCases[] = {
      {0, 0},    {1, 1},      {2, 2},       {4, 5},       {10, 11},   {19, 19},      {20, 23},
      {24, 29},  {100, 101},  {121, 127},   {361, 367},   {529, 529}, {1000, 1009},  {-1, 0},
      {INT32_MAX, INT32_MAX},  // 2^31 - 1 is prime
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.n);
    EXPECT_EQ(c.nice, Table::UpToNiceModulo(c.n));
  }
}

TEST(KELSysSimpleHashTable, FunctionsForPointerSets) {
  EXPECT_EQ(0x12345678u, KELSimpleHashIt(reinterpret_cast<void*>(uintptr_t{0x12345678} << 3 | 7)));
  EXPECT_EQ(0x9ABCDEF0u, KELSimpleHashIt(reinterpret_cast<void*>(uintptr_t{0x19ABCDEF0} << 3)));  // truncated
  EXPECT_EQ(1, KELSimpleHashCompare(item(1), item(1)));
  EXPECT_EQ(0, KELSimpleHashCompare(item(1), item(2)));
}

TEST(KELSysSimpleHashTable, InitialBucketCounts) {
  const struct { int request, buckets; } kCases[] = {{-5, 11}, {0, 11}, {1, 11}, {10, 11}, {11, 11},
                                                     {12, 13}, {20, 23}, {100, 101}, {1000, 1009}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.request);
    Table t(c.request, KELSimpleHashIt, KELSimpleHashCompare);
    EXPECT_EQ(c.buckets, buckets(t));
    EXPECT_EQ(0, t.Size());
    EXPECT_NE(nullptr, fieldsOf(t).storage);
  }
  Table defaults(0, nullptr, nullptr);  // null functions: the pointer-set ones
  EXPECT_EQ(1, defaults.Insert(item(3)));
  EXPECT_EQ(item(3), defaults.Locate(item(3)));
}

TEST(KELSysSimpleHashTable, GrowsOnlyWhenFullAndShrinksByRule) {
  Table t(0, KELSimpleHashIt, KELSimpleHashCompare);
  for (int i = 0; i < 11; ++i) ASSERT_EQ(1, t.Insert(item(i)));
  EXPECT_EQ(11, buckets(t));
  EXPECT_EQ(0, t.Insert(item(5)));  // present: neither added nor grown, even when full
  EXPECT_EQ(11, buckets(t));
  EXPECT_EQ(1, t.Insert(item(11)));
  EXPECT_EQ(23, buckets(t));
  for (int i = 12; i < 100; ++i) ASSERT_EQ(1, t.Insert(item(i)));
  EXPECT_EQ(197, buckets(t));  // 11, 23, 47, 97, 197
  for (int i = 0; i < 100; ++i) EXPECT_EQ(item(i), t.Get(i));  // growth keeps positions

  // Down from 100 items: 197 buckets until 3 * 65 < 197 (71 buckets), then
  // until 3 * 23 < 71 (UpToNiceModulo(25) = 29); below 12 items never again.
  std::vector<int> seen;
  for (int i = 99; i >= 0; --i) {
    ASSERT_EQ(item(i), t.Remove(item(i)));
    if (seen.empty() || seen.back() != buckets(t)) seen.push_back(buckets(t));
  }
  EXPECT_EQ((std::vector<int>{197, 71, 29}), seen);
  EXPECT_EQ(0, t.Size());

  for (int i = 0; i < 40; ++i) t.Insert(item(i));
  const int before = buckets(t);
  t.RemoveAll();  // empties without shrinking
  EXPECT_EQ(0, t.Size());
  EXPECT_EQ(before, buckets(t));
  EXPECT_EQ(nullptr, t.Locate(item(3)));
  EXPECT_EQ(nullptr, t.Get(0));
  EXPECT_EQ(1, t.Insert(item(3)));
  EXPECT_EQ(item(3), t.Get(0));
}

TEST(KELSysSimpleHashTable, ReAllocate) {
  Table t(100, KELSimpleHashIt, KELSimpleHashCompare);
  for (int i = 0; i < 30; ++i) t.Insert(item(i));
  EXPECT_EQ(0, t.ReAllocate(0));  // UpToNiceModulo(2 * 101)
  EXPECT_EQ(211, buckets(t));
  EXPECT_EQ(0, t.ReAllocate(5));  // too few: doubled until the 30 items fit (5, 11, 23, 47)
  EXPECT_EQ(47, buckets(t));
  for (int i = 0; i < 30; ++i) EXPECT_EQ(item(i), t.Get(i));
  EXPECT_EQ(0, t.ReAllocate(30));
  EXPECT_EQ(31, buckets(t));
  EXPECT_EQ(1, t.Insert(item(30)));  // fills the last entry
  EXPECT_EQ(31, buckets(t));
  EXPECT_EQ(1, t.Insert(item(31)));
  EXPECT_EQ(67, buckets(t));  // UpToNiceModulo(62)
}

// Same item set, same positions, same chains after every step: the table
// against std::unordered_set plus a vector of the expected positions (removal
// moves the last item into the hole) and the expected bucket count.
void modelTest(unsigned (*hash)(void*), int (*equal)(void*, void*), uint32_t seed) {
  Table t(0, hash, equal);
  std::unordered_set<void*> set;
  std::vector<void*> positions;
  int expectBuckets = 11;
  std::mt19937 rng(seed);
  int growths = 0, shrinks = 0;
  const size_t target[] = {2000, 20, 3000, 0, 1000, 12, 2500, 100};
  for (size_t phase = 0; phase < 16; ++phase) {
    const size_t goal = target[phase % 8];
    const bool growing = set.size() < goal;
    for (int step = 0; step < 30000 && set.size() != goal; ++step) {
      // Mostly towards the goal, sometimes the other way; removals mostly
      // take a member, sometimes a random (perhaps absent) item.
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
        void* got = t.Remove(item(i));
        if (set.erase(item(i)) == 0) {
          ASSERT_EQ(nullptr, got);
          continue;
        }
        ASSERT_EQ(item(i), got);
        for (size_t p = 0; p < positions.size(); ++p) {
          if (positions[p] == got) {
            positions[p] = positions.back();
            positions.pop_back();
            break;
          }
        }
        const int n = static_cast<int>(positions.size());
        if (3 * n < expectBuckets && n >= 12) {
          expectBuckets = Table::UpToNiceModulo(static_cast<int>(n * 1.1));
          ++shrinks;
        }
        for (int p = 0; p < n; ++p) ASSERT_EQ(positions[p], t.Get(p)) << "position " << p;
        ASSERT_EQ(nullptr, t.Get(n));
      }
      ASSERT_EQ(static_cast<int>(set.size()), t.Size());
      ASSERT_EQ(expectBuckets, buckets(t));
      ASSERT_EQ(set.count(item(i)) != 0 ? item(i) : nullptr, t.Locate(item(i)));
    }
  }
  EXPECT_GT(growths, 20);
  EXPECT_GT(shrinks, 10);
  // Every position once, every member found, Next walks the positions.
  std::unordered_set<void*> walked;
  for (void* p = t.Next(nullptr); p != nullptr; p = t.Next(p)) ASSERT_TRUE(walked.insert(p).second);
  EXPECT_EQ(set, walked);
}

TEST(KELSysSimpleHashTable, ModelPointerSet) { modelTest(KELSimpleHashIt, KELSimpleHashCompare, 2026); }
TEST(KELSysSimpleHashTable, ModelLongChains) { modelTest(chainedHash, valueEqual, 7); }

TEST(KELSysSimpleHashTable, EqualItemsAndLookups) {
  Table t(0, chainedHash, valueEqual);
  // a, b, c share hash 3 (and bucket 3 of 11); d has hash 4.
  const size_t a = 3, b = 3 + kChains, c = 3 + 2 * kChains, d = 4;
  long copyOf3 = 3, copyOfB = static_cast<long>(b), absent = 5000;
  for (size_t i : {a, b, c, d}) ASSERT_EQ(1, t.Insert(item(i)));
  EXPECT_EQ(0, t.Insert(&copyOf3));
  EXPECT_EQ(item(a), t.InsertAndReturn(&copyOf3));  // the stored equal item
  EXPECT_EQ(&absent, t.InsertAndReturn(&absent));
  EXPECT_EQ(&absent, t.Remove(&absent));
  EXPECT_EQ(nullptr, t.Remove(&absent));
  EXPECT_EQ(4, t.Size());

  EXPECT_EQ(item(b), t.Locate(&copyOfB));
  ASSERT_NE(nullptr, t.LocateBucket(&copyOfB));
  EXPECT_EQ(item(b), t.LocateBucket(&copyOfB)->item);
  EXPECT_EQ(item(c), t.LocateBucket(&copyOfB)->next->item);  // chain in insertion order
  EXPECT_EQ(nullptr, t.LocateBucket(&absent));
  EXPECT_EQ(item(a), t.KeyLocate(3));
  EXPECT_EQ(item(d), t.KeyLocate(4));
  EXPECT_EQ(nullptr, t.KeyLocate(5));
  EXPECT_EQ(nullptr, t.KeyLocate(3 + 11));  // same bucket, other hash
  EXPECT_EQ(item(b), t.NextWithKey(&copyOf3));
  EXPECT_EQ(item(c), t.NextWithKey(item(b)));
  EXPECT_EQ(nullptr, t.NextWithKey(item(c)));
  EXPECT_EQ(nullptr, t.NextWithKey(nullptr));
  EXPECT_EQ(nullptr, t.NextWithKey(&absent));
  ASSERT_EQ(0, t.ReAllocate(0));  // chains keep their order through a rebuild
  EXPECT_EQ(item(b), t.NextWithKey(item(a)));
  EXPECT_EQ(item(c), t.NextWithKey(item(b)));

  EXPECT_EQ(item(a), t.Next(nullptr));
  EXPECT_EQ(item(b), t.Next(&copyOf3));
  EXPECT_EQ(nullptr, t.Next(item(d)));
  EXPECT_EQ(nullptr, t.Next(&absent));
  for (int i : {-1, 4, 1 << 30}) EXPECT_EQ(nullptr, t.Get(i));

  // Removing from the middle of a chain moves the last item (4) into the hole.
  EXPECT_EQ(item(b), t.Remove(&copyOfB));
  EXPECT_EQ(item(d), t.Get(1));
  EXPECT_EQ(item(c), t.NextWithKey(item(a)));
  t.PrintStats();
  while (t.Size() > 0) ASSERT_NE(nullptr, t.Remove(t.Get(0)));
  EXPECT_EQ(nullptr, t.Next(nullptr));
  EXPECT_EQ(nullptr, t.Remove(item(a)));
}

TEST(KELSysSimpleHashTable, AllocationFailures) {
#ifndef SYSTEMTS_TEST_ASAN
  GTEST_SKIP() << "needs the allocation limit set for AddressSanitizer";
#else
  // 24 bytes per bucket; the limit is 256 MiB. 100M, 50M, 25M and 12.5M items
  // fail, 6.25M items fit.
  Table big(100000000, KELSimpleHashIt, KELSimpleHashCompare);
  EXPECT_EQ(Table::UpToNiceModulo(6250000), buckets(big));

  Table t(0, KELSimpleHashIt, KELSimpleHashCompare);
  for (int i = 0; i < 20; ++i) t.Insert(item(i));
  const int before = buckets(t);
  EXPECT_EQ(-1, t.ReAllocate(20000000));
  EXPECT_EQ(before, buckets(t));
  EXPECT_EQ(20, t.Size());
  for (int i = 0; i < 20; ++i) EXPECT_EQ(item(i), t.Get(i));
  EXPECT_EQ(-1, t.ReAllocate(INT32_MAX));
  EXPECT_EQ(0, t.ReAllocate(100));
#endif
}

}  // namespace
