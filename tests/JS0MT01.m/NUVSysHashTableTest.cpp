// The string-keyed table through two subclasses: one that owns copies of its
// values and counts them (every copy released once, checked under ASan), one
// that borrows the caller's values. Diagnostic lines are compared byte for byte.
#include "NUVSysHashTable.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

// Owns a strdup copy of each value; counts copies and releases, and knows
// which copies are alive, so a double release or a leak shows.
class CountingTable : public NUVSysHashTable {
 public:
  CountingTable(int size, int allowCollisions) : NUVSysHashTable(size, allowCollisions) {}
  ~CountingTable() override { Erase(); }
  void* CopyValue(const void* value) override {
    ++copies;
    if (value == nullptr || failNextCopy) {
      failNextCopy = false;
      return nullptr;
    }
    char* copy = strdup(static_cast<const char*>(value));
    alive.insert(copy);
    return copy;
  }
  void DeleteValue(void* value) override {
    ++deletes;
    if (value == nullptr) return;
    EXPECT_EQ(1u, alive.erase(value)) << "released twice or never copied";
    std::free(value);
  }
  int CompareValue(const void* a, const void* b) override {
    return std::strcmp(static_cast<const char*>(a), static_cast<const char*>(b));
  }
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

// Stores the caller's pointers as they are. Its destructor does not call
// Erase, on purpose: the base destructor must then manage without DeleteValue.
class BorrowingTable : public NUVSysHashTable {
 public:
  BorrowingTable(int size, int allowCollisions) : NUVSysHashTable(size, allowCollisions) {}
  void* CopyValue(const void* value) override { return const_cast<void*>(value); }
  void DeleteValue(void*) override { ++deletes; }
  int CompareValue(const void* a, const void* b) override { return a == b ? 0 : 1; }
  int deletes = 0;
};

std::string line(int number, const std::string& message) {
  char prefix[64];
  std::snprintf(prefix, sizeof prefix, "SystemTS/JS0MT01.m/src/NUVSysHashTable(%8d) : ", number);
  return prefix + message + "\n";
}

std::string pointer(const void* p) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", p);
  return text;
}

// Keys on one slot (3) of 7: djb2 of one character is 177573 + c, and these
// characters are 7 apart.
const char* const kSameSlot[] = {"a", "h", "o", "v"};

TEST(NUVSysHashTable, Djb2OverSignedChars) {
  BorrowingTable t(101, 1);
  const struct { const char* key; unsigned long hash; int slot; } kCases[] = {
      {"", 5381, 28},
      {"a", 177670, 11},
      {"abc", 193485963, 61},
      {"\xe9t\xe9", 193355755, 42},  // bytes above 0x7F add negative values
      {"\xff", 177572, 14},
      {"KELInstallPath", 9791683473807209317ul, 65},  // wraps modulo 2^64
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.key);
    EXPECT_EQ(c.hash, t.ChildHashFunction(c.key));
    EXPECT_EQ(c.slot, t.GetHashSlotIndex(c.key));
  }
  EXPECT_EQ(-1, t.GetHashSlotIndex(nullptr));
  BorrowingTable seven(7, 1);
  for (const char* key : kSameSlot) EXPECT_EQ(3, seven.GetHashSlotIndex(key));
}

TEST(NUVSysHashTable, CollisionRuleBothOrders) {
  {
    CountingTable t(7, 0);  // collisions not allowed
    CaptureStdout();
    EXPECT_EQ(0, t.Add("h", "1"));
    EXPECT_EQ(0, t.Add("a", "2"));   // sorts first: becomes the head
    EXPECT_EQ(-1, t.Add("o", "3"));  // sorts after "h": refused
    EXPECT_EQ(-1, t.Add("v", "4"));
    EXPECT_EQ("", GetCapturedStdout());
    EXPECT_EQ(4, t.copies);
    EXPECT_EQ(2, t.deletes);  // both refused copies released
    EXPECT_EQ(2u, t.alive.size());
    CaptureStdout();
    EXPECT_EQ("1", t.value("h"));
    EXPECT_EQ(line(490, "Duplicated pair 'a' == '2'"), GetCapturedStdout());
  }
  {
    CountingTable t(7, 1);
    CaptureStdout();
    EXPECT_EQ(0, t.Add("o", "1"));
    EXPECT_EQ(0, t.Add("a", "2"));
    EXPECT_EQ(0, t.Add("v", "3"));
    EXPECT_EQ(0, t.Add("h", "4"));
    EXPECT_EQ(line(102, "Collision @ 3 ('o' <--> 'v')") + line(102, "Collision @ 3 ('a' <--> 'h')"),
              GetCapturedStdout());
    EXPECT_EQ(0, t.Add("h", "5"));  // same key: value replaced, no line
    EXPECT_EQ(5, t.copies);
    EXPECT_EQ(1, t.deletes);
    std::string values[4];
    CaptureStdout();  // GetPair writes lines of its own
    for (int i = 0; i < 4; ++i) values[i] = pointer(t.GetPair(kSameSlot[i])->value);
    GetCapturedStdout();
    std::string want = line(255, "==========================================");
    for (int slot = 0; slot < 7; ++slot) {
      want += line(259, "Slot [" + std::to_string(slot) + "]");
      if (slot == 3)  // the chain in strcmp order
        for (int i = 0; i < 4; ++i) want += line(264, std::string("Key '") + kSameSlot[i] + "' (" + values[i] + ")");
    }
    want += line(268, "------------------------------------------");
    CaptureStdout();
    t.Print();
    EXPECT_EQ(want, GetCapturedStdout());
  }
}

TEST(NUVSysHashTable, RemoveTakesOnlyItsPair) {
  CountingTable t(7, 1);
  CaptureStdout();
  for (const char* key : {"a", "h", "o", "v"}) ASSERT_EQ(0, t.Add(key, key));
  GetCapturedStdout();
  CaptureStdout();
  EXPECT_EQ(0, t.Remove("h"));
  EXPECT_EQ(0, t.Remove("a"));  // the head
  EXPECT_EQ(-1, t.Remove("a"));
  EXPECT_EQ(-1, t.Remove("b"));
  EXPECT_EQ(-1, t.Remove(nullptr));
  EXPECT_EQ(line(194, "Duplicated pair 'h' == 'h'") + line(194, "Duplicated pair 'a' == 'a'"),
            GetCapturedStdout());
  EXPECT_EQ(2, t.deletes);
  CaptureStdout();
  EXPECT_EQ("o", t.value("o"));
  EXPECT_EQ("v", t.value("v"));
  EXPECT_EQ("<none>", t.value("h"));
  EXPECT_EQ(line(490, "Duplicated pair 'o' == 'o'") +                                   // passed over for "v"
                line(490, "Duplicated pair 'o' == 'o'") + line(490, "Duplicated pair 'v' == 'v'"),  // "h" absent
            GetCapturedStdout());
  // Erase: the slot still holds two pairs, so DelPair of its head says so.
  CaptureStdout();
  EXPECT_EQ(0, t.Erase());
  EXPECT_EQ(line(422, "!! Collision slot for key 'o' !!"), GetCapturedStdout());
  EXPECT_EQ(4, t.deletes);
  EXPECT_TRUE(t.alive.empty());
  EXPECT_EQ(0, t.Erase());  // no record left
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
  EXPECT_EQ(-1, t.Replace("key", "three"));  // the old value is gone, null stored
  EXPECT_EQ(nullptr, t.Get("key"));
  EXPECT_EQ(0, t.Replace("key", "four"));
  EXPECT_EQ("four", t.value("key"));
  EXPECT_EQ(nullptr, t.GetPair(nullptr));
  NUVSysHashTableEntryStruct* none = nullptr;
  EXPECT_EQ(-1, t.DelPair(none));
  NUVSysHashTableEntryStruct* pair = t.NewPair("loose", "v");
  ASSERT_NE(nullptr, pair);
  EXPECT_EQ(0, t.DelPair(pair));
  EXPECT_EQ(nullptr, pair);
  EXPECT_EQ(nullptr, t.NewPair("k", nullptr));
  EXPECT_EQ(nullptr, t.NewPair(nullptr, "v"));

  for (int size : {0, -3}) {  // no record: every operation fails quietly
    SCOPED_TRACE(size);
    CountingTable none(size, 1);
    CaptureStdout();
    EXPECT_EQ(-1, none.Add("a", "1"));
    EXPECT_EQ(-1, none.Remove("a"));
    EXPECT_EQ(-1, none.Replace("a", "1"));
    EXPECT_EQ(nullptr, none.Get("a"));
    EXPECT_EQ(-1, none.GetHashSlotIndex("a"));
    none.Print();
    EXPECT_EQ(0, none.Erase());
    EXPECT_EQ("", GetCapturedStdout());
    EXPECT_EQ(0, none.copies);
  }
}

// The base destructor runs after the subclass is gone: it must not call the
// pure DeleteValue (that would abort), and must free keys and pairs.
TEST(NUVSysHashTable, BaseDestructorNeverCallsPureOperations) {
  static const char kValue[] = "borrowed";
  auto t = std::make_unique<BorrowingTable>(1, 1);
  CaptureStdout();
  for (const char* key : {"x", "y", "z"}) ASSERT_EQ(0, t->Add(key, kValue));
  GetCapturedStdout();
  std::unique_ptr<NUVSysHashTable> base(t.release());
  base.reset();  // LeakSanitizer checks that keys, pairs and record were freed
}

}  // namespace
