// KELWaitingPoint: manual and auto reset, timed waits, broadcast to many.
#include "KELWaitingPoint.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

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

// Broadcast wakes every waiter, limited or not, whichever reset it has.
TEST(KELWaitingPoint, BroadcastWakesAllWaiters) {
  for (int autoReset : {0, 1}) {
    KELWaitingPoint wp(autoReset, -1);
    std::atomic<int> inside{0}, woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) {
      waiters.emplace_back([&, i] {
        inside.fetch_add(1);
        woken += wp.Wait(i % 2 == 0 ? -1 : 60000) == 0;
      });
    }
    while (inside.load() < 4) std::this_thread::yield();
    std::this_thread::sleep_for(20ms);  // let them block
    wp.Broadcast();
    for (auto& t : waiters) t.join();
    EXPECT_EQ(woken, 4) << "autoReset " << autoReset;
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
