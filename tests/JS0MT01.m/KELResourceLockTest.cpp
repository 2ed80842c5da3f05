// KELResourceLock: readers together, writers alone, the recursive writer, and
// the debug-mode bookkeeping.
#include "KELResourceLock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "KELThreads.h"

namespace {

using namespace std::chrono_literals;

// Long enough for a thread that wrongly got through to have done so.
constexpr auto kSettle = 50ms;

// Runs `f` on another thread, which the test expects to block.
class Blocked {
 public:
  template <class F>
  explicit Blocked(F f) : thread_([this, f] {
    f();
    done_ = true;
  }) {}
  // Whether it got through within kSettle: it must not have.
  bool gotThrough() {
    std::this_thread::sleep_for(kSettle);
    return done_;
  }
  void join() { thread_.join(); }

 private:
  std::atomic<bool> done_{false};
  std::thread thread_;
};

class KELResourceLockTest : public testing::TestWithParam<unsigned char> {};

TEST_P(KELResourceLockTest, WriterWaitsForEveryReader) {
  KELResourceLock lock(GetParam());
  lock.ReadLock();
  lock.ReadLock();  // a second reader (readers never wait for readers)
  Blocked writer([&] { KELWriteLockGuard g(lock); });
  EXPECT_FALSE(writer.gotThrough());
  lock.ReadUnlock();
  EXPECT_FALSE(writer.gotThrough());
  lock.ReadUnlock();
  writer.join();
}

TEST_P(KELResourceLockTest, ReaderWaitsForTheWriter) {
  KELResourceLock lock(GetParam());
  lock.WriteLock();
  Blocked reader([&] { KELReadLockGuard g(lock); });
  EXPECT_FALSE(reader.gotThrough());
  lock.WriteUnlock();
  reader.join();
}

TEST_P(KELResourceLockTest, WriterMayNestReadsAndWrites) {
  KELResourceLock lock(GetParam());
  lock.WriteLock();
  lock.ReadLock();
  lock.ReadUnlock();
  lock.WriteLock();
  lock.ReadLock();
  lock.ReadUnlock();
  lock.WriteUnlock();
  Blocked other([&] { KELWriteLockGuard g(lock); });
  EXPECT_FALSE(other.gotThrough());  // still held once
  lock.WriteUnlock();
  other.join();
}

// Readers and writers hammer one lock; a writer must never share it and
// readers must really overlap only with readers.
TEST_P(KELResourceLockTest, InvariantsUnderMixedLoad) {
  KELResourceLock lock(GetParam());
  std::atomic<int> readersInside{0};
  std::atomic<int> writersInside{0};
  std::atomic<bool> violated{false};
  long guardedValue = 0;
  constexpr int kIterations = 20000;
  auto reader = [&] {
    for (int i = 0; i < kIterations; ++i) {
      KELReadLockGuard g(lock);
      readersInside.fetch_add(1);
      if (writersInside.load() != 0) violated = true;
      readersInside.fetch_sub(1);
    }
  };
  auto writer = [&] {
    for (int i = 0; i < kIterations; ++i) {
      KELWriteLockGuard g(lock);
      if (writersInside.fetch_add(1) != 0 || readersInside.load() != 0) violated = true;
      ++guardedValue;
      writersInside.fetch_sub(1);
    }
  };
  std::vector<std::thread> threads;
  threads.emplace_back(reader);
  threads.emplace_back(writer);
  threads.emplace_back(reader);
  threads.emplace_back(writer);
  for (auto& t : threads) t.join();
  EXPECT_FALSE(violated);
  EXPECT_EQ(guardedValue, 2L * kIterations);
}

INSTANTIATE_TEST_SUITE_P(BothKinds, KELResourceLockTest, testing::Values(0, 1));

// With the thread-debug flag on, the counter of lock operations under way
// drifts up by 2 on each read unlock and is balanced by every other operation.
TEST(KELResourceLockDebug, OperationCounterDrift) {
  ASSERT_NE(KELThrDebugOn, nullptr);
  KELResourceLock lock(1);
  // Without a record nothing is counted and nothing breaks.
  *KELThrDebugOn = 1;
  std::thread([&] {
    lock.ReadLock();
    lock.ReadUnlock();
    EXPECT_EQ(KELThreads::Find(), nullptr);
  }).join();

  KELThreads* self = KELThreads::GetCurrent();
  ASSERT_NE(self, nullptr);
  const int32_t start = self->GetLockOperations();
  lock.ReadLock();
  EXPECT_EQ(self->GetLockOperations(), start);
  lock.ReadUnlock();
  EXPECT_EQ(self->GetLockOperations(), start + 2);
  lock.WriteLock();
  lock.WriteUnlock();
  EXPECT_EQ(self->GetLockOperations(), start + 2);
  *KELThrDebugOn = 0;
  lock.ReadLock();
  lock.ReadUnlock();
  EXPECT_EQ(self->GetLockOperations(), start + 2);  // flag off: untouched
}

}  // namespace
