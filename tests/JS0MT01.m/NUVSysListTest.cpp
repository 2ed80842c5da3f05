// The linked list through a subclass of int elements that owns a copy of each
// and checks that every copy is released once: the six kinds, the cursor,
// every insertion and removal, copying.
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
  // The documented way to copy and destroy: the subclass does the element work.
  IntList(const IntList& other) : NUVSysList(other) { copylist(other); }
  IntList& operator=(const IntList& other) {
    NUVSysList::operator=(other);  // copylist
    return *this;
  }
  ~IntList() override {
    removeall();
    EXPECT_TRUE(alive.empty()) << alive.size() << " elements never released";
  }

  void* CopyElement(const void* element) override {
    int* copy = new int(element != nullptr ? *static_cast<const int*>(element) : -1);
    alive.insert(copy);
    return copy;
  }
  void DeleteElement(void* element) override {
    EXPECT_EQ(1u, alive.erase(element)) << "released twice or never copied";
    delete static_cast<int*>(element);
  }
  // Ascending order: negative when `other` is smaller than `stored`.
  int CompareElements(const void* stored, const void* other) override {
    return *static_cast<const int*>(other) - *static_cast<const int*>(stored);
  }

  NUVSysListElementStruct* add(int v) { return Add(&v); }
  // The elements from the head, through the cursor.
  Ints contents() {
    Ints out;
    for (void* e = GetFirst(); e != nullptr && out.size() < Count(); e = GetNext()) out.push_back(*as(e));
    return out;
  }
  static int* as(void* e) { return static_cast<int*>(e); }

  std::set<void*> alive;
};

int value(void* e) { return e != nullptr ? *IntList::as(e) : 0; }

TEST(NUVSysList, KindsDecideOrderUniquenessAndWrapping) {
  const struct {
    NUVSysListType type;
    bool duplicates;
    Ints want;
    bool circular;
  } kCases[] = {
      {NUVSysListUnsorted, true, {3, 1, 3, 2}, false},     {NUVSysListUnsorted, false, {3, 1, 2}, false},
      {NUVSysListSorted, true, {1, 2, 3, 3}, false},       {NUVSysListSorted, false, {1, 2, 3}, false},
      {NUVSysListLinear, true, {3, 1, 3, 2}, false},       {NUVSysListLinear, false, {3, 1, 2}, false},
      {NUVSysListLinearSorted, true, {1, 2, 3, 3}, false}, {NUVSysListLinearSorted, false, {1, 2, 3}, false},
      {NUVSysListCircular, true, {3, 1, 3, 2}, true},      {NUVSysListCircular, false, {3, 1, 2}, true},
      {NUVSysListCircularSorted, true, {1, 2, 3, 3}, true}, {NUVSysListCircularSorted, false, {1, 2, 3}, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << "type " << c.type << (c.duplicates ? " with" : " without") << " duplicates");
    IntList l(c.type, c.duplicates);
    int rejected = 0;
    for (int v : {3, 1, 3, 2}) rejected += l.add(v) == nullptr;
    EXPECT_EQ(c.duplicates ? 0 : 1, rejected);
    EXPECT_EQ(c.want, l.contents());
    EXPECT_EQ(c.want.size(), l.Count());
    EXPECT_EQ(c.want.front(), value(l.Head()));
    EXPECT_EQ(c.want.back(), value(l.Tail()));

    // Past the last: null, or the first again on circular kinds.
    l.GetFirst();
    for (size_t i = 1; i < c.want.size(); ++i) l.GetNext();
    EXPECT_EQ(c.circular ? c.want.front() : 0, value(l.GetNext()));
    // Before the first: null, or the last on circular kinds.
    l.GetFirst();
    EXPECT_EQ(c.circular ? c.want.back() : 0, value(l.GetPrevious()));
    // Compatibility: GetLast on circular kinds is GetFirst.
    EXPECT_EQ(c.circular ? c.want.front() : c.want.back(), value(l.GetLast()));
    EXPECT_EQ(c.circular ? c.want[1] : c.want[c.want.size() - 2], value(c.circular ? l.GetNext() : l.GetPrevious()));
  }
}

TEST(NUVSysList, CursorDuringAdd) {
  IntList unique(NUVSysListUnsorted, false);
  for (int v : {5, 6, 7}) unique.add(v);
  unique.GetFirst();
  EXPECT_NE(nullptr, unique.add(8));  // accepted: the cursor is restored
  EXPECT_EQ(6, value(unique.GetNext()));
  EXPECT_EQ(nullptr, unique.add(6));  // rejected: the cursor stays on the equal element
  EXPECT_EQ(7, value(unique.GetNext()));

  IntList sorted(NUVSysListSorted, false);
  for (int v : {10, 30, 40}) sorted.add(v);
  sorted.add(20);  // the walk stopped on 30
  EXPECT_EQ(40, value(sorted.GetNext()));
  EXPECT_EQ(nullptr, sorted.GetNext());  // past the end: no cursor any more
  EXPECT_EQ(nullptr, sorted.GetPrevious());
}

TEST(NUVSysList, InsertionsAtAPlace) {
  IntList l(NUVSysListSorted, true);  // the kind does not matter here
  int v[] = {0, 1, 2, 3, 4, 5};
  NUVSysListElementStruct* two = l.addtail(&v[2]);
  l.addhead(&v[0]);
  l.addbefore(&v[1], two);
  NUVSysListElementStruct* four = l.addafter(&v[4], two);
  l.addbefore(&v[3], four);
  l.addafter(&v[5], four);
  EXPECT_EQ((Ints{0, 1, 2, 3, 4, 5}), l.contents());
  EXPECT_EQ(5, value(l.Tail()));
  EXPECT_NE(IntList::as(two->element), &v[2]);  // a copy is stored

  EXPECT_EQ(nullptr, l.addhead(nullptr));
  EXPECT_EQ(nullptr, l.addafter(nullptr, two));
  EXPECT_EQ(nullptr, l.addbefore(nullptr, two));
  EXPECT_EQ(nullptr, l.addafter(&v[1], nullptr));
  EXPECT_EQ(nullptr, l.addbefore(&v[1], nullptr));
  EXPECT_EQ(6u, l.Count());
  ASSERT_NE(nullptr, l.addtail(nullptr));  // addtail hands null to CopyElement
  EXPECT_EQ(-1, value(l.Tail()));
}

TEST(NUVSysList, Removals) {
  IntList l(NUVSysListUnsorted, true);
  NUVSysListElementStruct* n[9] = {};
  for (int v = 1; v <= 7; ++v) n[v] = l.add(v);
  EXPECT_EQ(n[2], l.removehead());    // the new head
  EXPECT_EQ(n[6], l.removetail());    // the new tail: 2 3 4 5 6
  EXPECT_EQ(n[4], l.removeat(n[3]));  // the middle: its successor
  EXPECT_EQ(n[5], l.removeat(n[6]));  // the tail: the new tail, not the successor
  EXPECT_EQ(n[4], l.removeat(n[2]));  // the head: the new head; 4 5 left
  l.GetFirst();
  l.removeat(n[4]);  // the cursor's node goes, and the cursor with it
  EXPECT_EQ(nullptr, l.GetNext());
  for (int v : {6, 7, 8}) n[v] = l.add(v);
  EXPECT_EQ(0, l.Remove(2ul));  // 7, by position
  EXPECT_EQ(-1, l.Remove(3ul));
  int six = 6, nine = 9;
  EXPECT_EQ(0, l.Remove(&six));  // by CompareElements
  EXPECT_EQ(-1, l.Remove(&nine));
  EXPECT_EQ((Ints{5, 8}), l.contents());
  EXPECT_EQ(nullptr, l.removeat(nullptr));
  EXPECT_EQ(n[5], l.removeat(n[8]));
  EXPECT_EQ(nullptr, l.removeat(n[5]));  // empty now: head and tail cleared
  EXPECT_EQ(0u, l.Count());
  EXPECT_EQ(nullptr, l.Head());
  EXPECT_EQ(nullptr, l.Tail());
  EXPECT_EQ(nullptr, l.removehead());
  EXPECT_EQ(nullptr, l.removetail());
  EXPECT_EQ(-1, l.Remove(0ul));
  EXPECT_EQ(nullptr, l.GetFirst());
  EXPECT_EQ(nullptr, l.GetLast());

  for (int v : {1, 2, 3}) l.add(v);
  l.GetLast();
  l.removeall();
  EXPECT_EQ(0u, l.Count());
  EXPECT_EQ(nullptr, l.GetPrevious());
  EXPECT_TRUE(l.alive.empty());
}

TEST(NUVSysList, Copying) {
  IntList a(NUVSysListCircularSorted, false);
  for (int v : {3, 1, 2}) a.add(v);
  IntList b(a);  // the subclass's copy constructor calls copylist
  EXPECT_EQ((Ints{1, 2, 3}), b.contents());
  EXPECT_EQ(nullptr, b.add(2));  // kind and flag came along
  EXPECT_EQ(1, value(b.GetLast()));

  IntList c(NUVSysListUnsorted, true);
  c.add(9);
  c = a;  // copylist: this list's kind stays
  EXPECT_EQ((Ints{1, 2, 3}), c.contents());
  EXPECT_NE(nullptr, c.add(2));
  EXPECT_EQ(2, value(c.Tail()));
  const IntList& same = c;
  c = same;  // onto itself: nothing changes
  EXPECT_EQ((Ints{1, 2, 3, 2}), c.contents());
  EXPECT_NE(a.Head(), b.Head());  // copies of their own
}

// Elements borrowed from the caller; no removeall in the destructor. The base
// destructor must free the nodes without the (then pure) DeleteElement, and
// its copy constructor must not call CopyElement.
class BorrowingList : public NUVSysList {
 public:
  explicit BorrowingList(NUVSysListType type) : NUVSysList(type, true) {}
  BorrowingList(const BorrowingList& other) : NUVSysList(other) {}  // no copylist: starts empty
  void* CopyElement(const void* e) override { return const_cast<void*>(e); }
  void DeleteElement(void*) override {}
  int CompareElements(const void* stored, const void* other) override { return stored == other ? 0 : 1; }
};

TEST(NUVSysList, BaseNeverCallsPureOperations) {
  int v[3] = {};
  auto l = std::make_unique<BorrowingList>(NUVSysListCircular);
  for (int& x : v) l->addtail(&x);
  BorrowingList copy(*l);
  EXPECT_EQ(0u, copy.Count());
  std::unique_ptr<NUVSysList> base(l.release());
  base.reset();  // LeakSanitizer checks that the nodes were freed
}

}  // namespace
