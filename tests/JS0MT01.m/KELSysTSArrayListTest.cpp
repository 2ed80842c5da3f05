// The array store and the typed array list on it: the capacity sequence,
// every refused argument, and insert/remove against std::vector.
#include "KELSysTSArrayList.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <random>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define SYSTEMTS_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SYSTEMTS_TEST_ASAN 1
#endif
#endif

#ifdef SYSTEMTS_TEST_ASAN
// Huge allocations give null instead of aborting, as they do without ASan.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
#endif

namespace {

// The store with its fields in view.
struct Store : KELSysTSArrayListAbstractCtnr {
  explicit Store(int size) : KELSysTSArrayListAbstractCtnr(size) {}
  int count() const { return _Count; }
  int capacity() const { return _Capacity; }
  const void* data() const { return _Data; }
  int* ints() const { return static_cast<int*>(_Data); }
};

TEST(KELSysTSArrayList, CapacitySequence) {
  Store s(sizeof(int));
  EXPECT_EQ(nullptr, s.data());
  EXPECT_EQ(0, s.capacity());
  std::vector<int> seen;
  for (int i = 0; i < 40; ++i) {
    ASSERT_EQ(S_OK, s.MakeRoom(s.count(), 1));
    if (seen.empty() || seen.back() != s.capacity()) seen.push_back(s.capacity());
  }
  EXPECT_EQ((std::vector<int>{4, 8, 16, 32, 64}), seen);

  const struct { int capacity, count, i, n, wantCapacity; } kGrowth[] = {
      {0, 0, 0, 1, 4}, {0, 0, 0, 3, 4},  {0, 0, 0, 4, 4},  {0, 0, 0, 10, 10},
      {4, 4, 0, 1, 8}, {4, 4, 4, 5, 9},  {4, 2, 1, 2, 4},  {10, 10, 3, 11, 21},
      {4, 4, 2, 0, 4},  // n = 0: nothing to do
  };
  for (const auto& c : kGrowth) {
    SCOPED_TRACE(testing::Message() << c.capacity << " " << c.count << " MakeRoom(" << c.i << ", " << c.n << ")");
    Store t(sizeof(int));
    ASSERT_EQ(S_OK, t.SetCapacity(c.capacity));
    ASSERT_EQ(S_OK, t.MakeRoom(0, c.count));
    EXPECT_EQ(S_OK, t.MakeRoom(c.i, c.n));
    EXPECT_EQ(c.wantCapacity, t.capacity());
    EXPECT_EQ(c.count + c.n, t.count());
  }
}

TEST(KELSysTSArrayList, StoreRefusals) {
  Store s(sizeof(int));
  EXPECT_EQ(E_FAIL, s.Move(0, 0, 0));  // no data
  ASSERT_EQ(S_OK, s.MakeRoom(0, 3));
  for (int i = 0; i < 3; ++i) s.ints()[i] = i + 1;
  const struct { int i, n; } kBadRoom[] = {{-1, 1}, {4, 1}, {0, -1}, {3, INT_MAX}};
  for (const auto& c : kBadRoom) EXPECT_EQ(E_FAIL, s.MakeRoom(c.i, c.n)) << c.i << ", " << c.n;
  EXPECT_EQ(3, s.count());

  EXPECT_EQ(E_FAIL, s.SetCapacity(2));  // below the count
  EXPECT_EQ(S_OK, s.SetCapacity(4));    // the capacity already
  const struct { int dst, src, n; } kBadMove[] = {{-1, 0, 1}, {0, -1, 1}, {0, 0, -1}, {3, 0, 2}, {0, 3, 2}};
  for (const auto& c : kBadMove) EXPECT_EQ(E_FAIL, s.Move(c.dst, c.src, c.n));
  EXPECT_EQ(S_OK, s.Move(1, 0, 3));  // anywhere inside the capacity
  EXPECT_EQ(3, s.ints()[3]);

  for (int i : {0, 2}) EXPECT_EQ(S_OK, s.CheckIndex(i));
  for (int i : {-1, 3}) EXPECT_EQ(E_FAIL, s.CheckIndex(i));
  EXPECT_EQ(S_OK, s.CheckRange(0, 3));
  for (auto r : {std::pair{-1, 2}, std::pair{2, 2}, std::pair{2, 1}, std::pair{0, 4}})
    EXPECT_EQ(E_FAIL, s.CheckRange(r.first, r.second)) << r.first << ", " << r.second;

  EXPECT_EQ(S_OK, s.ReInit(2));  // empties, never shrinks
  EXPECT_EQ(0, s.count());
  EXPECT_EQ(4, s.capacity());
  EXPECT_EQ(S_OK, s.ReInit(9));
  EXPECT_EQ(9, s.capacity());
  EXPECT_EQ(S_OK, s.SetCapacity(0));  // frees the data
  EXPECT_EQ(nullptr, s.data());

  // Memory running out: 2^30 elements of 2^30 bytes. Nothing changes.
  Store huge(1 << 30);
  EXPECT_EQ(E_FAIL, huge.MakeRoom(0, 1 << 30));
  EXPECT_EQ(0, huge.count());
  EXPECT_EQ(0, huge.capacity());
  Store bad(0);
  EXPECT_EQ(E_FAIL, bad.MakeRoom(0, 1));
}

struct Point {
  int32_t x;
  double y;
};

TEST(KELSysTSArrayList, TypedListAgainstVector) {
  KELSysTSArrayList<uint16_t> list;
  std::vector<uint16_t> model;
  std::mt19937 rng(11);
  for (int step = 0; step < 5000; ++step) {
    const int size = static_cast<int>(model.size());
    const int i = static_cast<int>(rng() % (model.size() + 2)) - 1;  // sometimes out of range
    const uint16_t v = static_cast<uint16_t>(rng());
    switch (rng() % 4) {
      case 0:
        ASSERT_EQ(S_OK, list.Append(v));
        model.push_back(v);
        break;
      case 1:
        ASSERT_EQ(i >= 0 && i <= size ? S_OK : E_FAIL, list.Insert(i, v));
        if (i >= 0 && i <= size) model.insert(model.begin() + i, v);
        break;
      case 2:
        ASSERT_EQ(i >= 0 && i < size ? S_OK : E_FAIL, list.Remove(i));
        if (i >= 0 && i < size) model.erase(model.begin() + i);
        break;
      default:
        ASSERT_EQ(i >= 0 && i < size ? S_OK : E_FAIL, list.Set(i, v));
        if (i >= 0 && i < size) model[i] = v;
    }
    ASSERT_EQ(static_cast<int>(model.size()), list.Size());
  }
  for (int i = 0; i < list.Size(); ++i) {
    uint16_t got = 0;
    ASSERT_EQ(S_OK, list.Get(i, got));
    ASSERT_EQ(model[i], got);
  }
  uint16_t untouched = 7;
  EXPECT_EQ(E_FAIL, list.Get(list.Size(), untouched));
  EXPECT_EQ(7, untouched);
  const int capacity = list.Capacity();
  list.RemoveAll();
  EXPECT_EQ(0, list.Size());
  EXPECT_EQ(capacity, list.Capacity());

  KELSysTSArrayList<Point> points;
  ASSERT_EQ(S_OK, points.Append({1, 1.5}));
  ASSERT_EQ(S_OK, points.Insert(0, {2, 2.5}));
  Point p{};
  ASSERT_EQ(S_OK, points.Get(1, p));
  EXPECT_EQ(1, p.x);
  EXPECT_EQ(1.5, p.y);
}

}  // namespace
