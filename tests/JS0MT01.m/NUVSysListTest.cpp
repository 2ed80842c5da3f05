// The linked list through a subclass that owns a heap copy of each int element,
// so that ASan and LeakSanitizer check every copy is released once: the six
// kinds, the cursor, insertions, removals and copying; and that the base never
// calls the pure operations from its destructor or copy constructor.
#include "NUVSysList.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Ints = std::vector<int>;

int value(const void* e) { return e != nullptr ? *static_cast<const int*>(e) : 0; }
int value(const NUVSysListElementStruct* n) { return n != nullptr ? value(n->element) : 0; }

struct IntList : NUVSysList {
  using NUVSysList::NUVSysList;
  // The documented way: the subclass copies and releases the elements.
  IntList(const IntList& other) : NUVSysList(other) { copylist(other); }
  ~IntList() override { removeall(); }
  void* CopyElement(const void* e) override { return new int(e != nullptr ? value(e) : -1); }
  void DeleteElement(void* e) override { delete static_cast<int*>(e); }
  // Ascending: negative when `other` is below `stored`.
  int CompareElements(const void* stored, const void* other) override { return value(other) - value(stored); }
  NUVSysListElementStruct* add(int v) { return Add(&v); }
  // From the head, through the cursor, which ends on the last.
  Ints contents() {
    Ints out;
    for (void* e = GetFirst(); e != nullptr; e = out.size() < Count() ? GetNext() : nullptr) out.push_back(value(e));
    return out;
  }
};

const struct { NUVSysListType type; bool sorted, circular; } kKinds[] = {
    {NUVSysListUnsorted, false, false},    {NUVSysListSorted, true, false},   {NUVSysListLinear, false, false},
    {NUVSysListLinearSorted, true, false}, {NUVSysListCircular, false, true}, {NUVSysListCircularSorted, true, true}};

// Every kind with and without duplicates, the copy constructor included: it takes the kind and the flag.
TEST(NUVSysList, KindsDecideOrderUniquenessAndWrapping) {
  for (const auto& k : kKinds) {
    for (bool duplicates : {true, false}) {
      SCOPED_TRACE(testing::Message() << "type " << k.type << (duplicates ? " with" : " without") << " duplicates");
      IntList l(k.type, duplicates);
      for (int v : {3, 1}) l.add(v);
      l.GetFirst();  // on 3
      // Adding 2 restores the cursor after an unsorted walk; a sorted walk stops on the 3 it inserts before, which is
      // the last, so the next move falls off a linear list and leaves no cursor.
      l.add(2);
      const int afterThree = k.sorted && !k.circular ? 0 : 1;
      EXPECT_EQ(afterThree, value(l.GetNext()));
      EXPECT_EQ(afterThree == 0 ? 0 : 3, value(l.GetPrevious()));
      IntList c(l);  // copies of its own, or ASan sees each element released twice
      EXPECT_EQ(duplicates, c.add(3) != nullptr);
      EXPECT_TRUE(duplicates || value(c.GetNext()) == afterThree) << "the rejecting walk stops on the equal 3";
      Ints want = k.sorted ? Ints{1, 2, 3} : Ints{3, 1, 2};
      if (duplicates) want.push_back(3);
      EXPECT_EQ(want, c.contents());
      c.GetFirst();
      EXPECT_EQ(k.circular ? want.back() : 0, value(c.GetPrevious()));  // before the first
      // Compatibility: on circular kinds GetLast is GetFirst.
      EXPECT_EQ(k.circular ? want.front() : want.back(), value(c.GetLast()));
      EXPECT_EQ(k.circular ? want[1] : want[want.size() - 2], value(k.circular ? c.GetNext() : c.GetPrevious()));
      c.removeall();
      EXPECT_EQ(nullptr, c.GetNext());  // no cursor left
    }
  }
}

TEST(NUVSysList, InsertionsAndRemovals) {
  for (const auto& k : kKinds) {  // placed insertions and removals are the same on every kind
    SCOPED_TRACE(testing::Message() << "type " << k.type);
    IntList l(k.type, true);
    int v[] = {0, 1, 2, 3, 4, 5, 6};
    NUVSysListElementStruct* n[7] = {};  // by value; n[0] stays null
    n[3] = l.addtail(&v[3]);
    n[1] = l.addhead(&v[1]);
    n[2] = l.addbefore(&v[2], n[3]);
    n[5] = l.addafter(&v[5], n[3]);
    n[4] = l.addbefore(&v[4], n[5]);
    n[6] = l.addafter(&v[6], n[5]);
    for (auto* r : {l.addhead(nullptr), l.addafter(nullptr, n[2]), l.addbefore(&v[1], nullptr)}) EXPECT_EQ(nullptr, r);
    EXPECT_EQ(-1, value(l.addtail(nullptr)));  // addtail hands null to CopyElement
    EXPECT_EQ((Ints{1, 2, 3, 4, 5, 6, -1}), l.contents());

    // h removehead, t removetail, @ removeat(n[at]), p Remove(position at), v Remove(&at). want: the value of the
    // node returned (0 for null), or what Remove returns. removeat gives the successor in the middle but the new
    // tail at the tail. contents() leaves the cursor on the tail, so each removal of the tail takes the cursor.
    const struct { char op; int at, want; Ints left; } kSteps[] = {
        {'p', 7, -1, {1, 2, 3, 4, 5, 6, -1}}, {'p', 6, 0, {1, 2, 3, 4, 5, 6}}, {'v', 7, -1, {1, 2, 3, 4, 5, 6}},
        {'v', 3, 0, {1, 2, 4, 5, 6}},         {'h', 0, 2, {2, 4, 5, 6}},       {'t', 0, 5, {2, 4, 5}},
        {'@', 4, 5, {2, 5}},                  {'@', 0, 0, {2, 5}},             {'@', 5, 2, {2}},
        {'@', 2, 0, {}},                      {'h', 0, 0, {}},                 {'t', 0, 0, {}},
        {'p', 0, -1, {}}};
    for (const auto& s : kSteps) {
      SCOPED_TRACE(testing::Message() << s.op << s.at);
      void* tail = l.Tail();
      const int got = s.op == 'h'   ? value(l.removehead())
                      : s.op == 't' ? value(l.removetail())
                      : s.op == '@' ? value(l.removeat(n[s.at]))
                      : s.op == 'p' ? l.Remove(static_cast<unsigned long>(s.at))
                                    : l.Remove(&s.at);
      EXPECT_EQ(s.want, got);
      // A removed tail took the cursor with it; otherwise it is still on the tail.
      EXPECT_EQ(k.circular && l.Tail() == tail ? value(l.Head()) : 0, value(l.GetNext()));
      EXPECT_EQ(s.left, l.contents());
    }
  }
}

TEST(NUVSysList, AssignmentIsCopylist) {
  IntList a(NUVSysListCircularSorted, false), c(NUVSysListUnsorted, true);
  for (int v : {3, 1, 2}) a.add(v);
  c.add(9);
  NUVSysList& base = c;  // assignment is the base's
  base = a;  // this list's kind and flag stay
  base = c;  // onto itself: nothing changes
  EXPECT_NE(nullptr, c.add(2));
  EXPECT_EQ((Ints{1, 2, 3, 2}), c.contents());
}

// Borrowed elements, no removeall in the destructor, no copylist in the copy
// constructor: the base must never reach the pure operations.
struct BorrowingList : NUVSysList {
  using NUVSysList::NUVSysList;
  void* CopyElement(const void* e) override { return const_cast<void*>(e); }
  void DeleteElement(void*) override {}
  int CompareElements(const void*, const void*) override { return 1; }
};

TEST(NUVSysList, BaseNeverCallsPureOperations) {
  BorrowingList l(NUVSysListCircular, true);  // its nodes are left to the base; LeakSanitizer checks it frees them
  for (const char* e : {"a", "b", "c"}) l.addtail(e);
  EXPECT_EQ(0u, BorrowingList(l).Count());
}

}  // namespace
