// The thread-safe queue: the five creation cases and the exact results of
// each shape, blocked calls woken by the other side, first in first out with
// two producers, and the reference count and ownership of values.
#include "NUVSysTSDataQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FaultInjection.h"

namespace {

struct Releaser {
  void operator()(NUVSysTSDataQueue* q) const { q->Release(); }
};
using Queue = std::unique_ptr<NUVSysTSDataQueue, Releaser>;
Queue make(bool blocking, int capacity) { return Queue(NUVSysTSDataQueue::CreateEmptyQ(blocking, capacity)); }
void* val(uintptr_t i) { return reinterpret_cast<void*>(i); }
// PopLast's result and value; the value starts as a marker that a failed pop must clear.
using Popped = std::pair<int, void*>;
Popped pop(NUVSysTSDataQueue* q, int ms) {
  void* v = val(7);
  const int rc = q->PopLast(&v, ms);
  return {rc, v};
}

struct Shape { bool blocking; int capacity; };
const Shape kShapes[] = {{false, 0}, {true, 0}, {true, 3}, {false, 3}};
template <class S>
std::string shape(const S& s) {
  return "blocking " + std::to_string(s.blocking) + ", capacity " + std::to_string(s.capacity);
}

TEST(NUVSysTSDataQueue, CreationCasesAndResults) {
  for (bool blocking : {false, true}) EXPECT_EQ(nullptr, make(blocking, -1));
  for (const Shape& s : kShapes) {
    SCOPED_TRACE(shape(s));
    const Queue q = make(s.blocking, s.capacity);
    ASSERT_NE(nullptr, q);
    const bool bounded = s.capacity > 0;
    // Unbounded queues take any number (a thousand crosses node slabs).
    const uintptr_t room = bounded ? s.capacity : 1000;
    for (int round = 0; round < 2; ++round) {
      for (uintptr_t i = 1; i <= room; ++i) ASSERT_EQ(1, q->PushFirst(val(i), 0));
      // Full: a blocking queue times out (0); a non-blocking one answers 0 at
      // once, even when asked to wait without limit.
      if (bounded) {
        EXPECT_EQ(0, q->PushFirst(val(99), s.blocking ? 20 : -1));
      }
      for (uintptr_t i = 1; i <= room; ++i) ASSERT_EQ(Popped(1, val(i)), pop(q.get(), 0));  // in the order they went in
      // Empty: a blocking queue times out (0), a non-blocking one gives -1 at
      // once. On a bounded one that empty pop gives a place back that its
      // semaphore refuses, so the second round finds the same bound.
      EXPECT_EQ(Popped(s.blocking ? 0 : -1, nullptr), pop(q.get(), s.blocking ? 20 : -1));
    }
    EXPECT_EQ(-1, q->PushFirst(nullptr, 0));
    EXPECT_EQ(-1, q->PopLast(nullptr, 0));
    EXPECT_EQ(Popped(-1, nullptr), pop(q.get(), -2));  // on a blocking one the wait itself fails
  }
}

TEST(NUVSysTSDataQueue, BlockedCallsReturnOnlyWhenTheOtherSideActs) {
  const Queue q = make(true, 1);
  ASSERT_EQ(1, q->PushFirst(val(1), 0));
  std::atomic<bool> acted{false};
  std::thread pusher([&] {
    EXPECT_EQ(1, q->PushFirst(val(2), -1));  // full: waits for the pop below
    EXPECT_TRUE(acted.exchange(false));
  });
  acted = true;
  ASSERT_EQ(Popped(1, val(1)), pop(q.get(), 0));
  pusher.join();
  EXPECT_EQ(Popped(1, val(2)), pop(q.get(), 0));
  std::thread popper([&] {
    EXPECT_EQ(Popped(1, val(5)), pop(q.get(), 60000));  // empty: waits for the push below
    EXPECT_TRUE(acted.load());
  });
  acted = true;
  ASSERT_EQ(1, q->PushFirst(val(5), 0));
  popper.join();
}

// Each producer's values come out in its own order; nothing is lost or
// duplicated. The non-blocking bounded shape is left out: there an empty pop
// racing a push may hand out a place early, and a later pop may then drop its
// value (a documented compatibility result).
TEST(NUVSysTSDataQueue, FirstInFirstOutWithTwoProducers) {
  constexpr uintptr_t kEach = 50000;
  for (const Shape& s : {Shape{true, 0}, Shape{true, 16}, Shape{false, 0}}) {
    SCOPED_TRACE(shape(s));
    const Queue q = make(s.blocking, s.capacity);
    auto produce = [&](uintptr_t producer) {
      for (uintptr_t i = 1; i <= kEach; ++i) ASSERT_EQ(1, q->PushFirst(val(producer << 32 | i), -1));
    };
    std::thread a(produce, 1), b(produce, 2);
    uintptr_t next[3] = {0, 1, 1};
    for (uintptr_t got = 0; got < 2 * kEach;) {
      void* v = nullptr;
      const int rc = q->PopLast(&v, -1);
      if (rc == -1 && !s.blocking) {  // empty for now
        std::this_thread::yield();
        continue;
      }
      ASSERT_EQ(1, rc);
      const auto bits = reinterpret_cast<uintptr_t>(v), producer = bits >> 32;
      ASSERT_TRUE(producer == 1 || producer == 2) << bits;
      ASSERT_EQ(next[producer]++, bits & 0xffffffffu);
      ++got;
    }
    a.join();
    b.join();
    EXPECT_EQ(s.blocking ? 0 : -1, pop(q.get(), 0).first);
  }
}

// The last Release destroys the queue with values still inside; the values
// belong to the caller and stay valid (ASan reports a double free or a use
// after free otherwise, LeakSanitizer any node left behind).
TEST(NUVSysTSDataQueue, LastReleaseDestroysButNeverFreesValues) {
  NUVSysTSDataQueue* q = NUVSysTSDataQueue::CreateEmptyQ(true, 0);
  ASSERT_NE(nullptr, q);
  std::vector<std::unique_ptr<int>> values;
  size_t popped = 0;
  for (int round = 0; round < 4; ++round) {  // reuses emptied node slabs
    for (int i = 0; i < 200; ++i) {
      values.push_back(std::make_unique<int>(static_cast<int>(values.size())));
      ASSERT_EQ(1, q->PushFirst(values.back().get(), 0));
    }
    for (int i = 0; i < 150; ++i) ASSERT_EQ(Popped(1, values[popped++].get()), pop(q, 0));
  }
  EXPECT_EQ(2, q->AddRef());
  EXPECT_EQ(1, q->Release());
  EXPECT_EQ(1, pop(q, 0).first);  // still alive after the first Release
  EXPECT_EQ(0, q->Release());
  for (size_t i = 0; i < values.size(); ++i) EXPECT_EQ(static_cast<int>(i), *values[i]);
}


// ---- failures of the operating system ----

using systemts::detail::SysCalls;

// A blocking queue makes its items semaphore first; a bounded one then its
// space semaphore. A value without a node is refused and its room given back.
TEST(NUVSysTSDataQueueFaults, MissingSemaphoresAndNodes) {
  const struct { bool blocking; int capacity; long nth; } kCases[] = {
      {true, 0, 1}, {true, 3, 1}, {true, 3, 2}, {false, 3, 1}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(shape(c) + ", init " + std::to_string(c.nth));
    {
      Fault<&SysCalls::semInit> f(ENOMEM, -1, c.nth);
      EXPECT_EQ(nullptr, make(c.blocking, c.capacity));
      EXPECT_EQ(1, f.failed());
    }
    EXPECT_NE(nullptr, make(c.blocking, c.capacity));
  }
  for (const Shape& s : kShapes) {
    SCOPED_TRACE(shape(s));
    const Queue q = make(s.blocking, s.capacity == 0 ? 0 : 1);
    {
      Fault<&SysCalls::alignedAlloc> f(ENOMEM, nullptr);
      EXPECT_EQ(-1, q->PushFirst(val(1), 0));
      EXPECT_EQ(1, f.failed());
    }
    // With capacity 1 this needs the room the failed push took; and from
    // another thread, the mutex must be free.
    std::thread([&] { EXPECT_EQ(1, q->PushFirst(val(2), 0)); }).join();
    EXPECT_EQ(Popped(1, val(2)), pop(q.get(), 0));
    EXPECT_EQ(s.blocking ? 0 : -1, pop(q.get(), 0).first);  // the refused value is not there
  }
}

TEST(NUVSysTSDataQueueFaults, AWaitThatCannotReadTheClockIsMinusOne) {
  const Queue q = make(true, 1);
  Fault<&SysCalls::clockGetTime> f(EINVAL, -1, 1, Fault<&SysCalls::clockGetTime>::kAlways);
  EXPECT_EQ(Popped(-1, nullptr), pop(q.get(), 100));  // empty: the wait needs a deadline
  EXPECT_EQ(1, q->PushFirst(val(1), 100));  // room there: no wait, no clock
  EXPECT_EQ(-1, q->PushFirst(val(2), 100));
  f.heal();
  std::thread([&] {
    EXPECT_EQ(Popped(1, val(1)), pop(q.get(), 100));
    EXPECT_EQ(0, pop(q.get(), 1).first);
  }).join();
}

}  // namespace
