// The string-keyed table through a subclass that owns copies of its values
// and checks that each is released exactly once (ASan and LeakSanitizer do
// the rest), and one that borrows them. Diagnostic lines compared byte for byte.
#include "NUVSysHashTable.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <set>
#include <string>

#include "FaultInjection.h"

namespace {

struct CountingTable : NUVSysHashTable {
  CountingTable(int size, int allowCollisions) : NUVSysHashTable(size, allowCollisions) {}
  ~CountingTable() override { Erase(); }  // the documented way: values need the subclass
  void* CopyValue(const void* value) override {
    ++copies;
    if (value == nullptr || std::exchange(failNextCopy, false)) return nullptr;
    return *alive.insert(strdup(static_cast<const char*>(value))).first;
  }
  void DeleteValue(void* value) override {
    ++deletes;
    EXPECT_EQ(value != nullptr ? 1u : 0u, alive.erase(value)) << "released twice or never copied";
    std::free(value);
  }
  int CompareValue(const void* a, const void* b) override { return std::strcmp((const char*)a, (const char*)b); }
  std::string value(const char* key) {
    const void* v = Get(key);
    return v != nullptr ? static_cast<const char*>(v) : "<none>";
  }
  using NUVSysHashTable::DelPair;
  using NUVSysHashTable::NewPair;
  int copies = 0, deletes = 0;
  bool failNextCopy = false;
  std::set<void*> alive;
};

// Stores the caller's pointers; its destructor does not call Erase, so the
// base destructor has to do without DeleteValue.
struct BorrowingTable : NUVSysHashTable {
  BorrowingTable(int size, int allowCollisions) : NUVSysHashTable(size, allowCollisions) {}
  void* CopyValue(const void* value) override { return const_cast<void*>(value); }
  void DeleteValue(void*) override {}
  int CompareValue(const void* a, const void* b) override { return a == b ? 0 : 1; }
};

std::string line(int number, const std::string& message) {
  char prefix[64];
  std::snprintf(prefix, sizeof prefix, "SystemTS/JS0MT01.m/src/NUVSysHashTable(%8d) : ", number);
  return prefix + message + "\n";
}

// What `f` prints.
template <class F>
std::string printed(F f) {
  testing::internal::CaptureStdout();
  f();
  return testing::internal::GetCapturedStdout();
}

// One slot (3) of 7: djb2 of one character is 177573 + c, and these are 7 apart.
const char* const kSameSlot[] = {"a", "h", "o", "v"};

TEST(NUVSysHashTable, Djb2OverSignedChars) {
  BorrowingTable t(101, 1), seven(7, 1);
  const struct { const char* key; unsigned long hash; int slot; } kCases[] = {
      {"", 5381, 28}, {"abc", 193485963, 61}, {"\xe9t\xe9", 193355755, 42},  // bytes above 0x7F subtract
      {"\xff", 177572, 14}, {"KELInstallPath", 9791683473807209317ul, 65},   // wraps modulo 2^64
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.hash, t.ChildHashFunction(c.key)) << c.key;
    EXPECT_EQ(c.slot, t.GetHashSlotIndex(c.key)) << c.key;
  }
  EXPECT_EQ(-1, t.GetHashSlotIndex(nullptr));
  for (const char* key : kSameSlot) EXPECT_EQ(3, seven.GetHashSlotIndex(key));
}

// A key that sorts before a slot's head becomes the head whatever the flag;
// after it, only with collisions allowed (and a line), else refused and its
// copy released. The same key replaces the value quietly.
TEST(NUVSysHashTable, CollisionRuleBothOrders) {
  CountingTable strict(7, 0), t(7, 1);
  EXPECT_EQ("", printed([&] {
    for (auto kv : {std::pair{"h", 0}, {"a", 0}, {"o", -1}}) EXPECT_EQ(kv.second, strict.Add(kv.first, "1"));
  }));
  EXPECT_EQ(3, strict.copies);
  EXPECT_EQ(1, strict.deletes);
  EXPECT_EQ(line(102, "Collision @ 3 ('o' <--> 'v')") + line(102, "Collision @ 3 ('a' <--> 'h')"), printed([&] {
              for (const char* key : {"o", "a", "v", "h", "h"}) EXPECT_EQ(0, t.Add(key, key));
            }));
  EXPECT_EQ(1, t.deletes);
}

// The chains in strcmp order. BorrowingTable's destructor does not call
// Erase: the base destructor must free the pairs without calling the (by
// then pure) DeleteValue, which would abort; LeakSanitizer checks the rest.
TEST(NUVSysHashTable, PrintAndBaseDestructor) {
  static const char kValue[] = "v";
  auto t = std::make_unique<BorrowingTable>(7, 1);
  printed([&] {
    for (const char* key : {"v", "a", "o", "h"}) t->Add(key, kValue);
  });
  char pointer[32];
  std::snprintf(pointer, sizeof pointer, "%p", static_cast<const void*>(kValue));
  std::string want = line(255, "==========================================");
  for (int slot = 0; slot < 7; ++slot) {
    want += line(259, "Slot [" + std::to_string(slot) + "]");
    for (const char* key : kSameSlot)
      if (slot == 3) want += line(264, std::string("Key '") + key + "' (" + pointer + ")");
  }
  EXPECT_EQ(want + line(268, "------------------------------------------"), printed([&] { t->Print(); }));
  std::unique_ptr<NUVSysHashTable>(t.release()).reset();
}

TEST(NUVSysHashTable, RemoveTakesOnlyItsPair) {
  CountingTable t(7, 1);
  printed([&] {
    for (const char* key : kSameSlot) ASSERT_EQ(0, t.Add(key, key));
  });
  EXPECT_EQ(line(194, "Duplicated pair 'h' == 'h'") + line(194, "Duplicated pair 'a' == 'a'") +
                line(490, "Duplicated pair 'o' == 'o'") + line(490, "Duplicated pair 'o' == 'o'") +
                line(490, "Duplicated pair 'v' == 'v'"),
            printed([&] {
              EXPECT_EQ(0, t.Remove("h"));
              EXPECT_EQ(0, t.Remove("a"));  // the head
              for (const char* key : {"a", "b", static_cast<const char*>(nullptr)}) EXPECT_EQ(-1, t.Remove(key));
              EXPECT_EQ("v", t.value("v"));       // passes over "o"
              EXPECT_EQ("<none>", t.value("h"));  // passes over both
            }));
  EXPECT_EQ(2, t.deletes);
  // Two pairs left in the slot: DelPair of its head says so.
  EXPECT_EQ(line(422, "!! Collision slot for key 'o' !!"), printed([&] { EXPECT_EQ(0, t.Erase()); }));
  EXPECT_EQ(4, t.deletes);
  EXPECT_EQ(0, t.Erase());  // no record left: every operation fails
  EXPECT_EQ(-1, t.Add("a", "1"));
  EXPECT_EQ(nullptr, t.Get("a"));
}

TEST(NUVSysHashTable, ReplaceAndFailures) {
  CountingTable t(101, 1);
  EXPECT_EQ(0, t.Add("key", "one"));
  EXPECT_EQ(0, t.Replace("key", "two"));
  EXPECT_EQ("two", t.value("key"));
  EXPECT_EQ(-1, t.Replace("absent", "x"));
  EXPECT_EQ(-1, t.Add(nullptr, "x"));
  EXPECT_EQ(-1, t.Add("new", nullptr));
  t.failNextCopy = true;
  EXPECT_EQ(-1, t.Add("new", "x"));  // the copy failed: nothing stored
  EXPECT_EQ(nullptr, t.Get("new"));
  t.failNextCopy = true;
  EXPECT_EQ(-1, t.Replace("key", "three"));  // old value released, null stored
  EXPECT_EQ(nullptr, t.Get("key"));
  EXPECT_EQ(0, t.Replace("key", "four"));
  NUVSysHashTableEntryStruct* pair = t.NewPair("loose", "v");
  EXPECT_EQ(0, t.DelPair(pair));
  EXPECT_EQ(-1, t.DelPair(pair));  // set to null by the first
  CountingTable none(0, 1);        // no record: everything fails, quietly
  EXPECT_EQ("", printed([&] {
    for (int rc : {none.Add("a", "1"), none.Remove("a"), none.Replace("a", "1"), none.GetHashSlotIndex("a")})
      EXPECT_EQ(-1, rc);
    EXPECT_EQ(nullptr, none.Get("a"));
    none.Print();
  }));
}


// ---- failures of the operating system ----

using systemts::detail::SysCalls;

TEST(NUVSysHashTableFaults, FailedAllocationsLeaveTheTableAsItWas) {
  // Construction: the record, then its slots. Without them every operation fails.
  {
    Fault<&SysCalls::malloc> f(ENOMEM, nullptr);
    CountingTable t(7, 1);
    EXPECT_EQ(-1, t.Add("a", "1"));
    EXPECT_EQ(-1, t.GetHashSlotIndex("a"));
  }
  {
    Fault<&SysCalls::calloc> f(ENOMEM, nullptr);
    EXPECT_EQ(-1, CountingTable(7, 1).Add("a", "1"));
  }
  // A new pair: the pair, then the key copy (calls 1 and 2).
  for (long nth : {1, 2}) {
    SCOPED_TRACE(nth);
    CountingTable t(7, 1);
    ASSERT_EQ(0, t.Add("a", "1"));
    {
      Fault<&SysCalls::malloc> f(ENOMEM, nullptr, nth);
      EXPECT_EQ(-1, t.Add("b", "2"));
      EXPECT_EQ(1, f.failed());
    }
    EXPECT_EQ("<none>", t.value("b"));
    EXPECT_EQ(1, t.copies);  // the value is copied only once the pair and key are there
    EXPECT_EQ(1u, t.alive.size());
    EXPECT_EQ(0, t.Add("b", "2"));
    EXPECT_EQ("2", t.value("b"));
    EXPECT_EQ("1", t.value("a"));
  }
}

}  // namespace
