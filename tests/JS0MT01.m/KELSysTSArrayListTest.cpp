// The array store and the typed array list on it: the capacity sequence,
// every refused argument, and insert/remove against std::vector.
#include "KELSysTSArrayList.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <random>
#include <vector>

#include "FaultInjection.h"

namespace {

// The store with its fields in view.
struct Store : KELSysTSArrayListAbstractCtnr {
  explicit Store(int size) : KELSysTSArrayListAbstractCtnr(size) {}
  int count() const { return _count; }
  int capacity() const { return _capacity; }
  const void* data() const { return _data; }
  int* ints() const { return static_cast<int*>(_data); }
};

// At least 4, then doubled, or as many as needed when doubling is not enough.
TEST(KELSysTSArrayList, CapacityGrowth) {
  const struct { int capacity, count, i, n, want; } kGrowth[] = {
      {0, 0, 0, 1, 4},  {0, 0, 0, 3, 4},      {0, 0, 0, 10, 10}, {4, 4, 4, 1, 8},   {32, 32, 0, 1, 64},
      {4, 4, 4, 5, 9}, {4, 2, 1, 2, 4}, {10, 10, 3, 11, 21}, {4, 4, 2, 0, 4}};
  for (const auto& c : kGrowth) {
    Store t(sizeof(int));
    ASSERT_EQ(S_OK, t.SetCapacity(c.capacity));
    ASSERT_EQ(S_OK, t.MakeRoom(0, c.count));
    EXPECT_EQ(S_OK, t.MakeRoom(c.i, c.n));
    EXPECT_EQ(c.want, t.capacity()) << c.capacity << " " << c.count << " MakeRoom(" << c.i << ", " << c.n << ")";
  }
}

TEST(KELSysTSArrayList, StoreRefusals) {
  Store s(sizeof(int));
  EXPECT_EQ(E_FAIL, s.Move(0, 0, 0));  // no data
  ASSERT_EQ(S_OK, s.MakeRoom(0, 3));
  for (int i = 0; i < 3; ++i) s.ints()[i] = i + 1;
  for (auto r : {std::pair{-1, 1}, {4, 1}, {0, -1}, {3, INT_MAX}}) EXPECT_EQ(E_FAIL, s.MakeRoom(r.first, r.second));
  EXPECT_EQ(3, s.count());
  EXPECT_EQ(E_FAIL, s.SetCapacity(2));  // below the count
  const struct { int dst, src, n; } kBadMove[] = {{-1, 0, 1}, {0, -1, 1}, {0, 0, -1}, {3, 0, 2}, {0, 3, 2}};
  for (const auto& c : kBadMove) EXPECT_EQ(E_FAIL, s.Move(c.dst, c.src, c.n));
  EXPECT_EQ(S_OK, s.Move(1, 0, 3));  // anywhere inside the capacity
  EXPECT_EQ(3, s.ints()[3]);
  EXPECT_EQ(S_OK, s.CheckIndex(2));
  for (int i : {-1, 3}) EXPECT_EQ(E_FAIL, s.CheckIndex(i));
  EXPECT_EQ(S_OK, s.CheckRange(0, 3));
  for (auto r : {std::pair{-1, 2}, {2, 2}, {2, 1}, {0, 4}}) EXPECT_EQ(E_FAIL, s.CheckRange(r.first, r.second));
  EXPECT_EQ(S_OK, s.ReInit(2));  // empties, never shrinks
  EXPECT_EQ(0, s.count());
  EXPECT_EQ(4, s.capacity());
  EXPECT_EQ(S_OK, s.ReInit(9));
  EXPECT_EQ(9, s.capacity());
  EXPECT_EQ(S_OK, s.SetCapacity(0));  // frees the data
  EXPECT_EQ(nullptr, s.data());
  EXPECT_EQ(E_FAIL, Store(0).MakeRoom(0, 1));  // no element size
}

TEST(KELSysTSArrayList, TypedListAgainstVector) {
  KELSysTSArrayList<uint16_t> list;
  std::vector<uint16_t> model;
  std::mt19937 rng(11);
  for (int step = 0; step < 5000; ++step) {
    const int size = list.Size(), i = static_cast<int>(rng() % (size + 2)) - 1, op = static_cast<int>(rng() % 4);
    const uint16_t v = static_cast<uint16_t>(rng());
    const bool ok = op == 0 || (i >= 0 && (op == 1 ? i <= size : i < size));
    const int rc = op == 0 ? list.Append(v) : op == 1 ? list.Insert(i, v) : op == 2 ? list.Remove(i) : list.Set(i, v);
    ASSERT_EQ(ok ? S_OK : E_FAIL, rc) << "op " << op << " at " << i << " of " << size;
    if (ok) {
      op == 0 ? model.push_back(v) : op == 1 ? void(model.insert(model.begin() + i, v))
                                   : op == 2 ? void(model.erase(model.begin() + i)) : void(model[i] = v);
    }
  }
  ASSERT_EQ(static_cast<int>(model.size()), list.Size());
  for (int i = 0; i <= list.Size(); ++i) {
    uint16_t got = 7;
    ASSERT_EQ(i < list.Size() ? S_OK : E_FAIL, list.Get(i, got));
    ASSERT_EQ(i < list.Size() ? model[i] : 7, got);  // a refused Get leaves its output alone
  }
  const int capacity = list.Capacity();
  list.RemoveAll();
  EXPECT_EQ(0, list.Size());
  EXPECT_EQ(capacity, list.Capacity());  // emptied, never shrunk
}


// ---- failures of the operating system ----

TEST(KELSysTSArrayListFaults, AStoreThatCannotGrowKeepsItsValues) {
  using Malloc = Fault<&systemts::detail::SysCalls::malloc>;
  const struct { const char* what; int (*grow)(Store&); } kCases[] = {
      {"SetCapacity", [](Store& s) { return s.SetCapacity(s.capacity() + 50); }},
      {"MakeRoom", [](Store& s) { return s.MakeRoom(1, s.capacity() - s.count() + 1); }},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    Store s(sizeof(int));
    ASSERT_EQ(S_OK, s.MakeRoom(0, 3));
    for (int i = 0; i < 3; ++i) s.ints()[i] = 10 + i;
    const int capacity = s.capacity();
    const void* data = s.data();
    {
      Malloc f(ENOMEM, nullptr);
      EXPECT_EQ(E_FAIL, c.grow(s));
    }
    EXPECT_EQ(3, s.count());
    EXPECT_EQ(capacity, s.capacity());
    EXPECT_EQ(data, s.data());
    for (int i = 0; i < 3; ++i) EXPECT_EQ(10 + i, s.ints()[i]);
    EXPECT_EQ(S_OK, c.grow(s));
  }
}

}  // namespace
