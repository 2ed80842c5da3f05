// The linked list through a subclass of int elements that owns a copy of each
// and checks that every copy is released once: the six kinds, the cursor,
// insertions, removals and copying.
#include "NUVSysList.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <vector>

namespace {

using Ints = std::vector<int>;

class IntList : public NUVSysList {
 public:
  IntList(NUVSysListType type, bool allowDuplicates) : NUVSysList(type, allowDuplicates) {}
  // The documented way: the subclass copies and releases the elements.
  IntList(const IntList& other) : NUVSysList(other) { copylist(other); }
  IntList& operator=(const IntList& other) {
    NUVSysList::operator=(other);
    return *this;
  }
  ~IntList() override {
    removeall();
    EXPECT_TRUE(alive.empty());
  }
  void* CopyElement(const void* e) override {
    return *alive.insert(new int(e != nullptr ? *static_cast<const int*>(e) : -1)).first;
  }
  void DeleteElement(void* e) override {
    EXPECT_EQ(1u, alive.erase(e)) << "released twice or never copied";
    delete static_cast<int*>(e);
  }
  // Ascending: negative when `other` is below `stored`.
  int CompareElements(const void* stored, const void* other) override {
    return *static_cast<const int*>(other) - *static_cast<const int*>(stored);
  }
  NUVSysListElementStruct* add(int v) { return Add(&v); }
  Ints contents() {  // from the head, through the cursor, which ends on the last
    Ints out;
    for (void* e = GetFirst(); e != nullptr; e = out.size() < Count() ? GetNext() : nullptr)
      out.push_back(*static_cast<int*>(e));
    return out;
  }
  std::set<void*> alive;
};

int value(const void* e) { return e != nullptr ? *static_cast<const int*>(e) : 0; }
int value(const NUVSysListElementStruct* n) { return n != nullptr ? value(n->element) : 0; }

TEST(NUVSysList, KindsDecideOrderUniquenessAndWrapping) {
  const struct { NUVSysListType type; bool sorted, circular; } kKinds[] = {
      {NUVSysListUnsorted, false, false}, {NUVSysListSorted, true, false},  {NUVSysListLinear, false, false},
      {NUVSysListLinearSorted, true, false}, {NUVSysListCircular, false, true}, {NUVSysListCircularSorted, true, true}};
  for (const auto& k : kKinds) {
    for (bool duplicates : {true, false}) {
      SCOPED_TRACE(testing::Message() << "type " << k.type << (duplicates ? " with" : " without") << " duplicates");
      const Ints want = k.sorted ? (duplicates ? Ints{1, 2, 3, 3} : Ints{1, 2, 3})
                                 : (duplicates ? Ints{3, 1, 3, 2} : Ints{3, 1, 2});
      IntList l(k.type, duplicates);
      int rejected = 0;
      for (int v : {3, 1, 3, 2}) rejected += l.add(v) == nullptr;
      EXPECT_EQ(duplicates ? 0 : 1, rejected);
      EXPECT_EQ(want, l.contents());
      EXPECT_EQ(want.back(), value(l.Tail()));
      EXPECT_EQ(k.circular ? want.front() : 0, value(l.GetNext()));  // past the last
      l.GetFirst();
      EXPECT_EQ(k.circular ? want.back() : 0, value(l.GetPrevious()));  // before the first
      // Compatibility: on circular kinds GetLast is GetFirst.
      EXPECT_EQ(k.circular ? want.front() : want.back(), value(l.GetLast()));
      EXPECT_EQ(k.circular ? want[1] : want[want.size() - 2], value(k.circular ? l.GetNext() : l.GetPrevious()));
    }
  }
}

TEST(NUVSysList, CursorDuringAdd) {
  IntList unique(NUVSysListUnsorted, false);
  for (int v : {5, 6, 7}) unique.add(v);
  unique.GetFirst();
  EXPECT_NE(nullptr, unique.add(8));  // accepted: the cursor is restored
  EXPECT_EQ(6, value(unique.GetNext()));
  EXPECT_EQ(nullptr, unique.add(5));  // rejected: the cursor stays on the equal element
  EXPECT_EQ(6, value(unique.GetNext()));
  IntList sorted(NUVSysListSorted, false);
  for (int v : {10, 30, 40, 20}) sorted.add(v);  // the last walk stopped on 30
  EXPECT_EQ(40, value(sorted.GetNext()));
  EXPECT_EQ(nullptr, sorted.GetNext());  // past the end: no cursor any more
  EXPECT_EQ(nullptr, sorted.GetPrevious());
}

TEST(NUVSysList, InsertionsAndRemovals) {
  IntList l(NUVSysListSorted, true);  // the kind does not matter to these
  int v[] = {0, 1, 2, 3, 4};
  NUVSysListElementStruct* two = l.addtail(&v[2]);
  l.addhead(&v[0]);
  l.addbefore(&v[1], two);
  NUVSysListElementStruct* four = l.addafter(&v[4], two);
  NUVSysListElementStruct* three = l.addbefore(&v[3], four);
  EXPECT_EQ((Ints{0, 1, 2, 3, 4}), l.contents());
  EXPECT_NE(two->element, &v[2]);  // a copy is stored
  for (auto* n : {l.addhead(nullptr), l.addafter(nullptr, two), l.addbefore(&v[1], nullptr)}) EXPECT_EQ(nullptr, n);
  EXPECT_EQ(-1, value(l.addtail(nullptr)));  // addtail hands null to CopyElement

  EXPECT_EQ(4, value(l.removetail()));  // the new tail
  EXPECT_EQ(1, value(l.removehead()));  // the new head: 1 2 3 4 left
  EXPECT_EQ(three, l.removeat(two));    // the middle: its successor
  EXPECT_EQ(three, l.removeat(four));   // the tail: the new tail, not the successor
  EXPECT_EQ(nullptr, l.removeat(nullptr));
  EXPECT_EQ(three, l.removehead());
  l.GetFirst();
  EXPECT_EQ(nullptr, l.removeat(three));  // the last one; the cursor goes with its node
  EXPECT_EQ(nullptr, l.GetNext());
  EXPECT_EQ(0u, l.Count());
  for (auto* n : {l.removehead(), l.removetail()}) EXPECT_EQ(nullptr, n);
  EXPECT_EQ(nullptr, l.Head());

  for (int x : {5, 6, 7, 8}) l.add(x);
  EXPECT_EQ(0, l.Remove(2ul));  // 7, by position
  EXPECT_EQ(-1, l.Remove(3ul));
  int six = 6, nine = 9;
  EXPECT_EQ(0, l.Remove(&six));  // by CompareElements
  EXPECT_EQ(-1, l.Remove(&nine));
  EXPECT_EQ((Ints{5, 8}), l.contents());
  l.removeall();
  EXPECT_EQ(0u, l.Count());
  EXPECT_EQ(nullptr, l.GetFirst());
  EXPECT_TRUE(l.alive.empty());
}

TEST(NUVSysList, Copying) {
  IntList a(NUVSysListCircularSorted, false);
  for (int v : {3, 1, 2}) a.add(v);
  IntList b(a);
  EXPECT_EQ((Ints{1, 2, 3}), b.contents());
  EXPECT_NE(a.Head(), b.Head());  // copies of its own
  EXPECT_EQ(nullptr, b.add(2));   // kind and flag came along
  IntList c(NUVSysListUnsorted, true);
  c.add(9);
  c = a;  // copylist: this list's kind stays
  EXPECT_NE(nullptr, c.add(2));
  const IntList& same = c;
  c = same;  // onto itself: nothing changes
  EXPECT_EQ((Ints{1, 2, 3, 2}), c.contents());
}

// Borrowed elements, no removeall in the destructor, no copylist in the copy
// constructor: the base must never reach the pure operations.
class BorrowingList : public NUVSysList {
 public:
  BorrowingList() : NUVSysList(NUVSysListCircular, true) {}
  BorrowingList(const BorrowingList& other) : NUVSysList(other) {}
  void* CopyElement(const void* e) override { return const_cast<void*>(e); }
  void DeleteElement(void*) override {}
  int CompareElements(const void* a, const void* b) override { return a == b ? 0 : 1; }
};

TEST(NUVSysList, BaseNeverCallsPureOperations) {
  int v[3] = {};
  auto l = std::make_unique<BorrowingList>();
  for (int& x : v) l->addtail(&x);
  EXPECT_EQ(0u, BorrowingList(*l).Count());
  std::unique_ptr<NUVSysList> base(l.release());
  base.reset();  // LeakSanitizer checks that the nodes were freed
}

}  // namespace
