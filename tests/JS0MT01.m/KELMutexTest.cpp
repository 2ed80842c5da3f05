// KELMutex, KELSmartMutex, the global mutex, once-only creation and the
// per-thread records.
#include "KELMutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "KELResourceLock.h"
#include "KELSmartMutex.h"
#include "KELThreads.h"

namespace {

#if defined(__SANITIZE_THREAD__)
constexpr int kIncrements = 100000;  // TSan makes each lock operation costly
#else
constexpr int kIncrements = 1000000;
#endif

// Runs `fn` on another thread and returns its result.
template <class Fn>
auto onOtherThread(Fn fn) {
  decltype(fn()) result{};
  std::thread t([&] { result = fn(); });
  t.join();
  return result;
}

// Must stay first: under ctest every test runs in a process of its own, and
// running the program whole starts here too.
TEST(KELSysMTGlobalMutex, FirstUnlockFetchesAndUnlocksNothing) {
  EXPECT_EQ(KELSysMTGlobalMutex(2, nullptr, 0), 0);
  EXPECT_EQ(KELSysMTGlobalMutex(1, nullptr, 0), 1);
  EXPECT_EQ(KELSysMTGlobalMutex(1, nullptr, 0), 1);  // recursive
  EXPECT_EQ(KELSysMTGlobalMutex(2, nullptr, 0), 0);
  EXPECT_EQ(onOtherThread([] { return GetMyGlobalMutex()->TryLock(); }), 1);
  EXPECT_EQ(KELSysMTGlobalMutex(2, nullptr, 0), 0);
  EXPECT_EQ(onOtherThread([] { return GetMyGlobalMutex()->TryLock() + GetMyGlobalMutex()->Unlock(); }), 0);
}

TEST(KELSysMTGlobalMutex, RejectsArgumentsAndUnknownOps) {
  EXPECT_EQ(KELSysMTGlobalMutex(1, "x", 0), -1);
  EXPECT_EQ(KELSysMTGlobalMutex(1, nullptr, 1), -1);
  for (int op : {0, 3, 4, 7, 9, -1}) EXPECT_EQ(KELSysMTGlobalMutex(op, nullptr, 0), -1) << op;
  EXPECT_EQ(onOtherThread([] { return GetMyGlobalMutex()->TryLock() + GetMyGlobalMutex()->Unlock(); }), 0);
}

TEST(KELSysMTGlobalMutexDeathTest, Op8DestroysAtShutdown) {
  EXPECT_EXIT(
      {
        KELSysMTGlobalMutex(1, nullptr, 0);
        KELSysMTGlobalMutex(2, nullptr, 0);
        std::exit(KELSysMTGlobalMutex(8, nullptr, 0) == 0 ? 7 : 1);
      },
      testing::ExitedWithCode(7), "");
}

// Two threads each increment a counter under the lock; the total is exact.
template <class Lock, class Unlock>
long incrementTogether(Lock lock, Unlock unlock) {
  long counter = 0;
  auto work = [&] {
    for (int i = 0; i < kIncrements; ++i) {
      lock();
      ++counter;
      unlock();
    }
  };
  std::thread a(work), b(work);
  a.join();
  b.join();
  return counter;
}

TEST(KELMutex, MutualExclusionUnderEveryKind) {
  KELMutex normal(0, 0, 0), recursive(0, 1, 0), deferred(0, 0, 1);
  KELSmartMutex smart(0), smartDeferred(1);
  for (KELMutex* m : {&normal, &recursive, &deferred, static_cast<KELMutex*>(&smart),
                      static_cast<KELMutex*>(&smartDeferred)}) {
    EXPECT_EQ(incrementTogether([m] { m->Lock(); }, [m] { m->Unlock(); }), 2L * kIncrements);
  }
  KELResourceLock rw(1);
  EXPECT_EQ(incrementTogether([&] { rw.WriteLock(); }, [&] { rw.WriteUnlock(); }), 2L * kIncrements);
}

TEST(KELMutex, DeferredIsRecursiveWhateverItWasAskedToBe) {
  KELMutex m(0, 0, 1);
  EXPECT_EQ(m.Unlock(), 0);  // never made: nothing happens
  ASSERT_EQ(m.Lock(), 0);
  ASSERT_EQ(m.Lock(), 0);  // would deadlock on a normal mutex
  EXPECT_EQ(onOtherThread([&] { return m.TryLock(); }), 1);
  m.Unlock();
  EXPECT_EQ(onOtherThread([&] { return m.TryLock(); }), 1);
  m.Unlock();
  EXPECT_EQ(onOtherThread([&] { return m.TryLock() + m.Unlock(); }), 0);
}

TEST(KELMutex, DeferredMadeByTryLock) {
  KELMutex m(0, 0, 1);
  EXPECT_EQ(m.TryLock(), 0);
  EXPECT_EQ(m.TryLock(), 0);  // recursive
  m.Unlock();
  m.Unlock();
}

TEST(KELMutex, NormalMutexTryLockSense) {
  KELMutex m(0, 0, 0);
  EXPECT_EQ(m.TryLock(), 0);
  EXPECT_EQ(m.TryLock(), 1);  // not recursive: the holder itself is refused
  EXPECT_EQ(onOtherThread([&] { return m.TryLock(); }), 1);
  EXPECT_EQ(m.Unlock(), 0);
  EXPECT_EQ(onOtherThread([&] { return m.TryLock() + m.Unlock(); }), 0);
}

TEST(KELMutex, LockedAtCreation) {
  KELMutex m(1, 1, 0);
  EXPECT_EQ(onOtherThread([&] { return m.TryLock(); }), 1);
  m.Unlock();
  EXPECT_EQ(onOtherThread([&] { return m.TryLock() + m.Unlock(); }), 0);
  KELMutex deferred(1, 1, 1);  // deferred wins: not locked
  EXPECT_EQ(onOtherThread([&] { return deferred.TryLock() + deferred.Unlock(); }), 0);
}

TEST(KELMutex, FirstLockOfADeferredMutexRacedFromManyThreads) {
  for (int round = 0; round < 50; ++round) {
    KELMutex m(0, 0, 1);
    long counter = 0;
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&] {
        while (!go.load()) std::this_thread::yield();
        for (int i = 0; i < 100; ++i) {
          KELMutexGuard g(m);
          ++counter;
        }
      });
    }
    go = true;
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, 400);
  }
}

// Many threads race to create into one null pointer; all must see one object.
template <class T, class Create>
void raceCreation(Create create) {
  constexpr int kThreads = 6;
  for (int round = 0; round < 100; ++round) {
    T* shared = nullptr;
    std::atomic<int> ready{0};
    std::vector<T*> seen(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        ready.fetch_add(1);
        while (ready.load() < kThreads) std::this_thread::yield();
        create(shared, 1);
        seen[t] = __atomic_load_n(&shared, __ATOMIC_ACQUIRE);
      });
    }
    for (auto& t : threads) t.join();
    ASSERT_NE(shared, nullptr);
    for (T* p : seen) ASSERT_EQ(p, shared) << "round " << round;
    delete shared;
  }
}

TEST(NUVCreate, OnceOnlyUnderARace) {
  raceCreation<KELMutex>(NUVCreateMutex);
  raceCreation<KELResourceLock>(NUVCreateResourceLock);
}

// Mode 1 makes the object only into a null pointer, mode 0 always (the old
// object stays the caller's), any other mode does nothing.
template <class T, class Create>
void checkModes(Create create) {
  T* p = nullptr;
  for (unsigned mode : {2u, 7u}) create(p, mode);
  EXPECT_EQ(p, nullptr);
  create(p, 1);
  ASSERT_NE(p, nullptr);
  T* const first = p;
  create(p, 1);
  EXPECT_EQ(p, first);
  create(p, 0);
  EXPECT_NE(p, first);
  delete first;
  delete p;
}

TEST(NUVCreate, Modes) {
  checkModes<KELMutex>(NUVCreateMutex);
  checkModes<KELResourceLock>(NUVCreateResourceLock);
  KELMutex* m = nullptr;
  NUVCreateMutex(m, 0);
  EXPECT_EQ(m->Lock(), 0);
  EXPECT_EQ(m->Lock(), 0);  // made recursive
  m->Unlock();
  m->Unlock();
  delete m;
}

TEST(KELThreads, OneRecordPerThreadMadeOnRequest) {
  KELThreads* mine = KELThreads::GetCurrent();
  ASSERT_NE(mine, nullptr);
  EXPECT_EQ(KELThreads::GetCurrent(), mine);
  EXPECT_EQ(KELThreads::Find(), mine);
  EXPECT_EQ(mine->GetStatus(), 0u);
  // A new thread has none until it asks; its record is freed as it ends
  // (LeakSanitizer would report it otherwise).
  KELThreads* other = nullptr;
  std::thread([&] {
    EXPECT_EQ(KELThreads::Find(), nullptr);
    other = KELThreads::GetCurrent();
  }).join();
  EXPECT_NE(other, nullptr);
  EXPECT_NE(other, mine);
}

}  // namespace
