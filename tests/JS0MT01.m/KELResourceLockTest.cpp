// KELResourceLock: readers together, writers alone, the recursive writer, and
// the debug-mode bookkeeping in the per-thread records.
#include "KELResourceLock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "FaultInjection.h"
#include "KELThreads.h"

namespace {

using namespace std::chrono_literals;

// Whether a thread that must stay blocked is still blocked after long enough
// for it to have got through wrongly.
bool stillBlocked(const std::future<void>& f) { return f.wait_for(50ms) == std::future_status::timeout; }
template <class F>
auto start(F f) { return std::async(std::launch::async, f); }

class KELResourceLockTest : public testing::TestWithParam<unsigned char> {};

// A writer waits for every reader; a writer may nest reads and writes, and
// readers wait until it has unlocked as often as it locked.
TEST_P(KELResourceLockTest, ReadersTogetherWritersAlone) {
  KELResourceLock lock(GetParam());
  lock.ReadLock();
  lock.ReadLock();  // a second reader (readers never wait for readers)
  auto writer = start([&] { KELWriteLockGuard g(lock); });
  EXPECT_TRUE(stillBlocked(writer));
  lock.ReadUnlock();
  EXPECT_TRUE(stillBlocked(writer));
  lock.ReadUnlock();
  writer.get();
  for (int depth = 0; depth < 2; ++depth) {
    lock.WriteLock();
    lock.ReadLock();
    lock.ReadUnlock();
  }
  lock.WriteUnlock();
  auto reader = start([&] { KELReadLockGuard g(lock); });
  EXPECT_TRUE(stillBlocked(reader));  // still held once
  lock.WriteUnlock();
  reader.get();
}

// Readers and writers hammer one lock; a writer must never share it and
// readers must really overlap only with readers.
TEST_P(KELResourceLockTest, InvariantsUnderMixedLoad) {
  KELResourceLock lock(GetParam());
  std::atomic<int> readersInside{0}, writersInside{0};
  std::atomic<bool> violated{false};
  long guardedValue = 0;
  constexpr int kIterations = 20000;
  auto work = [&](bool write) {
    for (int i = 0; i < kIterations; ++i) {
      if (write) {
        KELWriteLockGuard g(lock);
        if (writersInside.fetch_add(1) != 0 || readersInside.load() != 0) violated = true;
        ++guardedValue;
        writersInside.fetch_sub(1);
      } else {
        KELReadLockGuard g(lock);
        readersInside.fetch_add(1);
        if (writersInside.load() != 0) violated = true;
        readersInside.fetch_sub(1);
      }
    }
  };
  std::thread threads[] = {std::thread(work, false), std::thread(work, true), std::thread(work, false),
                           std::thread(work, true)};
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
  *KELThrDebugOn = 1;
  KELThreads* self = KELThreads::GetCurrent();
  ASSERT_NE(self, nullptr);
  EXPECT_EQ(KELThreads::Find(), self);
  EXPECT_EQ(self->GetStatus(), 0u);
  // Another thread has no record until it asks, and without one nothing is
  // counted and nothing breaks; the record it asks for is freed as it ends
  // (LeakSanitizer would report it otherwise).
  std::thread([&] {
    { KELReadLockGuard g(lock); }
    EXPECT_EQ(KELThreads::Find(), nullptr);
    EXPECT_NE(KELThreads::GetCurrent(), self);
  }).join();
  const int32_t start = self->GetLockOperations();
  lock.ReadLock();
  EXPECT_EQ(self->GetLockOperations(), start);
  lock.ReadUnlock();
  EXPECT_EQ(self->GetLockOperations(), start + 2);
  { KELWriteLockGuard g(lock); }
  EXPECT_EQ(self->GetLockOperations(), start + 2);
  *KELThrDebugOn = 0;
  { KELReadLockGuard g(lock); }
  EXPECT_EQ(self->GetLockOperations(), start + 2);  // flag off: untouched
}

// ---- failures of the operating system ----

using systemts::detail::SysCalls;

// Checks in a child process (which reports the first broken check on stderr),
// since the key is made once per process.
#define CHILD_CHECK(cond) \
  do if (!(cond)) { std::fprintf(stderr, "broken: %s\n", #cond); std::exit(1); } while (0)

TEST(KELThreadsFaults, RecordsWithoutAKeyOrAPlaceUnderIt) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process: no key made yet
  EXPECT_EXIT(
      {
        {
          Fault<&SysCalls::keyCreate> f(EAGAIN, EAGAIN);
          CHILD_CHECK(KELThreads::GetCurrent() == nullptr);
          CHILD_CHECK(KELThreads::Find() == nullptr);
          CHILD_CHECK(f.failed() == 1);
          CHILD_CHECK(KELSysMTGetTheKey() != static_cast<unsigned>(-1));  // tried again: made now
        }
        {
          Fault<&SysCalls::setSpecific> f(ENOMEM, ENOMEM);
          std::thread([] { CHILD_CHECK(KELThreads::GetCurrent() == nullptr); }).join();  // the record is freed
          CHILD_CHECK(f.failed() == 1);
        }
        std::thread([] { KELThreads* s = KELThreads::GetCurrent(); CHILD_CHECK(s && KELThreads::Find() == s); }).join();
        std::fprintf(stderr, "all held");
        std::exit(0);
      },
      testing::ExitedWithCode(0), "all held");
}

}  // namespace
