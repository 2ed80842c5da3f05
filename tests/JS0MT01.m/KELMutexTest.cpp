// KELMutex, KELSmartMutex, the global mutex and once-only creation (the
// per-thread records are checked with the resource lock's bookkeeping).
#include "KELMutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "KELResourceLock.h"
#include "KELSmartMutex.h"

namespace {

#if defined(__SANITIZE_THREAD__)
constexpr int kIncrements = 100000;  // TSan makes each lock operation costly
#else
constexpr int kIncrements = 1000000;
#endif

// TryLock from another thread, which unlocks again what it got.
int otherTries(KELMutex* m) {
  int rc = -7;
  std::thread([&] {
    if ((rc = m->TryLock()) == 0) m->Unlock();
  }).join();
  return rc;
}

// Starts `n` threads that run `fn(t)` all at once and joins them.
template <class Fn>
void together(int n, Fn fn) {
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < n; ++t) {
    threads.emplace_back([&, t] {
      for (ready.fetch_add(1); ready.load() < n;) std::this_thread::yield();
      fn(t);
    });
  }
  for (auto& th : threads) th.join();
}

// Must stay first: under ctest every test runs in a process of its own, and
// running the program whole starts here too. The first unlock (op 2) fetches
// the mutex and unlocks nothing; unknown ops and arguments are refused. Op 8
// destroys it as at shutdown (in a child process).
TEST(KELMutexGlobalDeathTest, OpsFirstUnlockAndOp8) {
  EXPECT_EQ(KELSysMTGlobalMutex(2, nullptr, 0), 0);
  EXPECT_EQ(KELSysMTGlobalMutex(1, nullptr, 0), 1);
  EXPECT_EQ(KELSysMTGlobalMutex(1, nullptr, 0), 1);  // recursive
  EXPECT_EQ(KELSysMTGlobalMutex(2, nullptr, 0), 0);
  EXPECT_EQ(otherTries(GetMyGlobalMutex()), 1);
  EXPECT_EQ(KELSysMTGlobalMutex(1, "x", 0), -1);
  EXPECT_EQ(KELSysMTGlobalMutex(1, nullptr, 1), -1);
  for (int op : {0, 3, 4, 7, 9, -1}) EXPECT_EQ(KELSysMTGlobalMutex(op, nullptr, 0), -1) << op;
  EXPECT_EQ(KELSysMTGlobalMutex(2, nullptr, 0), 0);
  EXPECT_EQ(otherTries(GetMyGlobalMutex()), 0);
  EXPECT_EXIT(std::exit(KELSysMTGlobalMutex(8, nullptr, 0) == 0 ? 7 : 1), testing::ExitedWithCode(7), "");
}

// Two threads each increment a counter under the lock; the total is exact.
// Fresh locks each round: the deferred ones are made by racing first locks.
// (The resource lock's writers are checked in KELResourceLockTest.)
TEST(KELMutex, MutualExclusionUnderEveryKind) {
  for (int round = 0; round < 20; ++round) {
    KELMutex normal(0, 0, 0), recursive(0, 1, 0), deferred(0, 0, 1);
    KELSmartMutex smart(0), smartDeferred(1);
    const std::function<void(bool)> kLocks[] = {
        [&](bool l) { l ? normal.Lock() : normal.Unlock(); },
        [&](bool l) { l ? recursive.Lock() : recursive.Unlock(); },
        [&](bool l) { l ? deferred.Lock() : deferred.Unlock(); },
        [&](bool l) { l ? smart.Lock() : smart.Unlock(); },
        [&](bool l) { l ? smartDeferred.Lock() : smartDeferred.Unlock(); }};
    for (const auto& lock : kLocks) {
      long counter = 0;
      together(2, [&](int) {
        for (int i = 0; i < kIncrements / 20; ++i) lock(true), ++counter, lock(false);
      });
      ASSERT_EQ(counter, kIncrements / 10) << "lock " << &lock - kLocks << ", round " << round;
    }
  }
}

// (locked, recursive, deferred): a deferred mutex is made at its first Lock or
// TryLock, unlocked and recursive whatever it was asked to be.
TEST(KELMutex, ConstructionFlags) {
  const struct { int locked, recursive, deferred; } kCases[] = {
      {0, 0, 0}, {0, 1, 0}, {1, 1, 0}, {0, 0, 1}, {1, 1, 1}, {1, 0, 1}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.locked << c.recursive << c.deferred);
    KELMutex m(c.locked, c.recursive, c.deferred);
    EXPECT_EQ(c.deferred ? m.Unlock() : 0, 0);  // never made: nothing happens
    int held = c.locked && !c.deferred;
    EXPECT_EQ(otherTries(&m), held);  // makes a deferred one
    const bool nests = c.recursive || c.deferred;
    EXPECT_EQ(m.Lock(), 0);
    EXPECT_EQ(m.TryLock(), nests ? 0 : 1);  // not recursive: the holder itself is refused
    for (held += nests ? 2 : 1; held > 0; --held) {
      EXPECT_EQ(otherTries(&m), 1);
      EXPECT_EQ(m.Unlock(), 0);
    }
    EXPECT_EQ(otherTries(&m), 0);
  }
}

// Mode 1 makes the object only into a null pointer, mode 0 always (the old
// object stays the caller's), any other mode does nothing. Mode 1 raced from
// several threads into one null pointer makes one object that all of them see.
template <class T, class Create>
void checkCreation(Create create) {
  T* p = nullptr;
  for (unsigned mode : {2u, 7u}) create(p, mode);
  EXPECT_EQ(p, nullptr);
  create(p, 1);
  T* const first = p;
  create(p, 1);
  EXPECT_EQ(p, first);
  create(p, 0);
  EXPECT_NE(p, first);
  ASSERT_NE(first, nullptr);
  delete first;
  delete p;
  for (int round = 0; round < 100; ++round) {
    T* shared = nullptr;
    std::vector<T*> seen(6);
    together(6, [&](int t) {
      create(shared, 1);
      seen[t] = __atomic_load_n(&shared, __ATOMIC_ACQUIRE);
    });
    ASSERT_NE(shared, nullptr);
    for (T* s : seen) ASSERT_EQ(s, shared) << "round " << round;
    delete shared;
  }
}

TEST(KELMutex, NUVCreateModesAndOnceOnlyRace) {
  checkCreation<KELMutex>(NUVCreateMutex);
  checkCreation<KELResourceLock>(NUVCreateResourceLock);
  KELMutex* m = nullptr;
  NUVCreateMutex(m, 0);
  EXPECT_EQ(m->TryLock() + m->TryLock(), 0);  // made recursive
  m->Unlock();
  m->Unlock();
  delete m;
}

}  // namespace
