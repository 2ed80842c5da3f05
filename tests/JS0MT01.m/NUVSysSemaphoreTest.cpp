// Semaphores of both kinds: creation rules, the maximum under concurrent
// Signal, exact results of the timed waits, hand-offs to sleeping and
// timing-out waiters, waits interrupted by signal handlers, n-unit changes.
#include "NUVSysSemaphore.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Sem = std::unique_ptr<NUVSysSemaphore>;
Sem make(int max, int initial, char kind) { return Sem(NUVSysSemaphore::NUVSysCreateSemaphore(max, initial, kind)); }
int count(const Sem& s) {
  int n = -1;
  EXPECT_EQ(0, s->GetCurrentCount(n));
  return n;
}
const char kKinds[] = {0, 1};

// Waits for a condition with a generous deadline; never decides by sleeping.
template <class F>
bool eventually(F done) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// True while thread `tid` of this process sleeps in the kernel.
bool asleep(pid_t tid) {
  std::ifstream f("/proc/self/task/" + std::to_string(tid) + "/stat");
  const std::string s{std::istreambuf_iterator<char>(f), {}};
  const auto p = s.rfind(") ");
  return p != std::string::npos && s[p + 2] == 'S';
}

std::atomic<int> g_handled{0};
void onSignal(int) { g_handled.fetch_add(1); }

TEST(NUVSysSemaphore, CreationRules) {
  struct Case { int max, initial; char kind; bool made; int reportedMax; };
  const Case kCases[] = {{-1, 0, 0, true, 0x7fffffff}, {-1, 7, 1, true, 0x7fffffff}, {2, 2, 0, true, 2},
                         {0, 0, 1, true, 0},           {2, 3, 0, false, 0},          {2, 3, 1, false, 0},
                         {-2, 0, 0, false, 0},         {5, -1, 1, false, 0},         {5, 1, 2, false, 0},
                         {5, 1, -1, false, 0}};
  for (const Case& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.max << ", " << c.initial << ", kind " << int(c.kind));
    const Sem s = make(c.max, c.initial, c.kind);
    ASSERT_EQ(c.made, s != nullptr);
    if (!s) continue;
    int max = 0;
    EXPECT_EQ(0, s->GetMaxCount(max));
    EXPECT_EQ(c.reportedMax, max);
    EXPECT_EQ(c.initial, count(s));
  }
}

TEST(NUVSysSemaphore, MaximumAndTryResults) {
  for (char kind : kKinds) {
    SCOPED_TRACE(int(kind));
    const Sem s = make(2, 1, kind);
    EXPECT_EQ(0, s->Signal());
    EXPECT_EQ(static_cast<int>(0x80004005u), s->Signal());  // at the maximum: refused
    EXPECT_EQ(2, count(s));
    EXPECT_EQ(static_cast<int>(0x80070057u), s->TimedWait(-2));  // takes nothing
    EXPECT_EQ(2, count(s));
    EXPECT_EQ(0, s->TimedWait(0));
    EXPECT_EQ(0, s->Wait());
    EXPECT_EQ(1, s->TimedWait(0));
    EXPECT_EQ(1, s->TimedWait(30));
    EXPECT_EQ(0, count(s));
    const Sem never = make(0, 0, kind);  // maximum 0: can never be signalled
    EXPECT_EQ(E_FAIL, never->Signal());
    EXPECT_EQ(1, never->TimedWait(0));
  }
}

// A waiter asleep in Wait or TimedWait is interrupted by handlers installed
// without SA_RESTART; it keeps waiting (a timed one to its deadline) and
// returns 0 only once signalled.
TEST(NUVSysSemaphore, WaitsSurviveSignalHandlers) {
  struct sigaction sa {}, old{};
  sa.sa_handler = onSignal;
  sigemptyset(&sa.sa_mask);
  ASSERT_EQ(0, sigaction(SIGUSR1, &sa, &old));
  for (char kind : kKinds) {
    for (int ms : {-1, 60000, 300}) {
      SCOPED_TRACE(testing::Message() << "kind " << int(kind) << ", " << ms << " ms");
      const Sem s = make(1, 0, kind);
      std::atomic<pid_t> tid{0};
      std::atomic<bool> signalled{false}, returned{false};
      int rc = -7;
      std::thread waiter([&] {
        tid = static_cast<pid_t>(syscall(SYS_gettid));
        rc = s->TimedWait(ms);
        if (rc == 0) {
          EXPECT_TRUE(signalled.load());
        }
        returned = true;
      });
      for (int i = 0; i < 3; ++i) {
        const int before = g_handled.load();
        EXPECT_TRUE(eventually([&] { return returned || (tid != 0 && asleep(tid)); }));
        if (returned) break;
        pthread_kill(waiter.native_handle(), SIGUSR1);
        EXPECT_TRUE(eventually([&] { return g_handled.load() > before; }));
      }
      if (ms != 300) {
        EXPECT_TRUE(eventually([&] { return returned || asleep(tid); }));
        EXPECT_FALSE(returned);  // still waiting after the handlers ran
        signalled = true;
        EXPECT_EQ(0, s->Signal());
      }
      waiter.join();
      EXPECT_EQ(ms == 300 ? 1 : 0, rc);
      EXPECT_EQ(0, count(s));
    }
  }
  sigaction(SIGUSR1, &old, nullptr);
}

TEST(NUVSysSemaphore, ConcurrentSignalsNeverPassTheMaximum) {
  for (char kind : kKinds) {
    SCOPED_TRACE(int(kind));
    const Sem s = make(3, 0, kind);
    std::atomic<int> given{0}, running{4};
    std::vector<std::thread> signallers;
    for (int t = 0; t < 4; ++t) {
      signallers.emplace_back([&] {
        for (int i = 0; i < 20000; ++i) given += s->Signal() == 0;
        --running;
      });
    }
    int taken = 0, highest = 0;
    while (running > 0) {
      highest = std::max(highest, count(s));
      taken += s->TimedWait(0) == 0;
    }
    for (auto& t : signallers) t.join();
    EXPECT_LE(highest, 3);
    EXPECT_EQ(given - taken, count(s));
  }
}

// Every unit given reaches exactly one waiter: three waiters sleeping without
// limit, or one whose 1 ms waits keep timing out while units come at sweeping
// intervals, so that a time-out meets a hand-off now and then.
TEST(NUVSysSemaphore, HandOffsUnderContention) {
  struct Case { int ms, waiters, each, pauseUs; };
  for (char kind : kKinds) {
    for (const Case c : {Case{-1, 3, 20000, 0}, Case{1, 1, 1500, 100}}) {
      SCOPED_TRACE(testing::Message() << "kind " << int(kind) << ", " << c.ms << " ms");
      const Sem s = make(4, 0, kind);
      std::vector<std::thread> threads;
      for (int w = 0; w < c.waiters; ++w) {
        threads.emplace_back([&] {
          for (int got = 0; got < c.each;) {
            const int rc = s->TimedWait(c.ms);
            ASSERT_TRUE(rc == 0 || (rc == 1 && c.ms > 0)) << rc;
            got += rc == 0;
          }
        });
      }
      for (int given = 0; given < c.waiters * c.each;) {
        if (s->Signal() == 0) ++given;
        if (c.pauseUs != 0) std::this_thread::sleep_for(std::chrono::microseconds(given % 13 * c.pauseUs));
      }
      for (auto& t : threads) t.join();
      EXPECT_EQ(0, count(s));
      EXPECT_EQ(1, s->TimedWait(20));  // no unit left over, in the count or in a wake-up
    }
  }
}

TEST(NUVSysSemaphore, IncreaseAndDecreaseCount) {
  struct Step { bool increase; int n, partial, rc, count; };
  const Step kSteps[] = {{true, 5, 0, 0, 7},      {true, 5, 0, E_FAIL, 7},          {true, 5, 1, 1, 10},
                         {true, 1, 1, 1, 10},     {true, 0, 0, 0, 10},              {true, -1, 0, E_INVALIDARG, 10},
                         {false, 4, 0, 0, 6},     {false, -1, 0, E_INVALIDARG, 6},  {false, 0, 0, 0, 6},
                         {false, 6, 0, 0, 0}};
  for (char kind : kKinds) {
    const Sem s = make(10, 2, kind);
    for (const Step& st : kSteps) {
      SCOPED_TRACE(testing::Message() << "kind " << int(kind) << (st.increase ? " +" : " -") << st.n);
      EXPECT_EQ(st.rc, st.increase ? s->IncreaseCount(st.n, st.partial) : s->DecreaseCount(st.n));
      EXPECT_EQ(st.count, count(s));
    }
  }
  EXPECT_EQ(E_INVALIDARG, make(10, 10, 1)->DecreaseCount(11));  // could never be met
  // The variable-count kind takes n units at once: a taker of 3 leaves 2 alone.
  const Sem v = make(10, 2, 1);
  std::atomic<bool> enough{false};
  std::atomic<pid_t> tid{0};
  std::thread taker([&] {
    tid = static_cast<pid_t>(syscall(SYS_gettid));
    EXPECT_EQ(0, v->DecreaseCount(3));
    EXPECT_TRUE(enough.load());
  });
  ASSERT_TRUE(eventually([&] { return tid != 0 && asleep(tid); }));
  EXPECT_EQ(2, count(v));
  enough = true;
  EXPECT_EQ(0, v->IncreaseCount(1, 0));
  taker.join();
  EXPECT_EQ(0, count(v));
}

}  // namespace
