// KELWaitingPoint: manual and auto reset, timed waits, broadcast to many.
#include "KELWaitingPoint.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;

TEST(KELWaitingPoint, InitialStateResetAndTimeOut) {
  KELWaitingPoint manualOn(0, 0), manualOff(0, -1), autoOn(1, 0);
  EXPECT_EQ(manualOn.Wait(0), 0);
  EXPECT_EQ(manualOn.Wait(0), 0);  // manual: stays signalled
  EXPECT_EQ(autoOn.Wait(0), 0);
  EXPECT_EQ(autoOn.Wait(0), -1);  // auto: the first wait took the signal
  manualOn.Reset();
  EXPECT_EQ(manualOn.Wait(0), -1);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(manualOff.Wait(30), -1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
  manualOff.Broadcast();
  EXPECT_EQ(manualOff.Wait(-1), 0);
}

// Broadcast wakes every waiter, limited or not, whichever reset it has. The
// broadcast comes only once all four are seen asleep: an auto-reset waiter
// arriving after it would find the point not signalled.
TEST(KELWaitingPoint, BroadcastWakesAllWaiters) {
  for (int autoReset : {0, 1}) {
    SCOPED_TRACE(autoReset ? "auto reset" : "manual reset");
    KELWaitingPoint wp(autoReset, -1);
    std::atomic<int> woken{0};
    std::vector<std::unique_ptr<Sleeper>> waiters;
    for (int i = 0; i < 4; ++i) {
      waiters.push_back(std::make_unique<Sleeper>([&, i] { woken += wp.Wait(i % 2 == 0 ? -1 : 60000) == 0; }));
    }
    for (auto& w : waiters) EXPECT_TRUE(w->sleeping());
    EXPECT_EQ(woken, 0);  // nobody passes before the broadcast
    wp.Broadcast();
    for (auto& w : waiters) w->thread.join();
    EXPECT_EQ(woken, 4);
    // Auto reset falls back to not signalled once it woke waiters.
    EXPECT_EQ(wp.Wait(0), autoReset ? -1 : 0);
  }
}

// A ping-pong through two auto-reset points: a lost wake-up hangs the test.
TEST(KELWaitingPoint, NoLostWakeUps) {
  KELWaitingPoint ping(1, -1), pong(1, -1);
  constexpr int kRounds = 20000;
  std::thread other([&] {
    for (int i = 0; i < kRounds; ++i) {
      ASSERT_EQ(ping.Wait(-1), 0);
      pong.Broadcast();
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    ping.Broadcast();
    ASSERT_EQ(pong.Wait(-1), 0);
  }
  other.join();
}

}  // namespace
