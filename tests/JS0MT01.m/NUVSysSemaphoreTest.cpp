// Semaphores of both kinds: creation rules, the maximum under concurrent
// Signal, exact results of the timed waits, hand-offs to sleeping and
// timing-out waiters, waits interrupted by signal handlers, n-unit changes.
#include "NUVSysSemaphore.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <vector>

#include "FaultInjection.h"
#include "TestSupport.h"

namespace {

using Sem = std::unique_ptr<NUVSysSemaphore>;
Sem make(int max, int initial, char kind) { return Sem(NUVSysSemaphore::NUVSysCreateSemaphore(max, initial, kind)); }
template <class P>
int count(const P& s) {
  int n = -1;
  EXPECT_EQ(0, s->GetCurrentCount(n));
  return n;
}
const char kKinds[] = {0, 1};

std::atomic<int> g_handled{0};

TEST(NUVSysSemaphore, CreationRules) {
  struct Case { int max, initial; char kind; bool made; int reportedMax; };
  const Case kCases[] = {{-1, 0, 0, true, 0x7fffffff}, {-1, 7, 1, true, 0x7fffffff}, {2, 2, 0, true, 2},
                         {0, 0, 1, true, 0},           {0, 0, 0, true, 0},           {2, 3, 0, false, 0},
                         {2, 3, 1, false, 0},          {-2, 0, 0, false, 0},         {5, -1, 1, false, 0},
                         {5, 1, 2, false, 0},          {5, 1, -1, false, 0}};
  for (const Case& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.max << ", " << c.initial << ", kind " << int(c.kind));
    const Sem s = make(c.max, c.initial, c.kind);
    ASSERT_EQ(c.made, s != nullptr);
    if (!s) continue;
    int max = 0;
    EXPECT_EQ(0, s->GetMaxCount(max));
    EXPECT_EQ(c.reportedMax, max);
    EXPECT_EQ(c.initial, count(s));
    EXPECT_EQ(c.initial < max ? 0 : E_FAIL, s->Signal());  // at the maximum: refused
    EXPECT_EQ(c.initial < max || c.initial > 0 ? 0 : 1, s->TimedWait(0));
  }
}

// A waiter asleep in Wait or TimedWait is interrupted by handlers installed
// without SA_RESTART; it keeps waiting (a timed one to its deadline) and
// returns 0 only once signalled.
TEST(NUVSysSemaphore, WaitsSurviveSignalHandlers) {
  struct sigaction sa {}, old{};
  sa.sa_handler = [](int) { g_handled.fetch_add(1); };
  sigemptyset(&sa.sa_mask);
  ASSERT_EQ(0, sigaction(SIGUSR1, &sa, &old));
  for (char kind : kKinds) {
    for (int ms : {-1, 60000, 300}) {
      SCOPED_TRACE(testing::Message() << "kind " << int(kind) << ", " << ms << " ms");
      const Sem s = make(1, 0, kind);
      std::atomic<bool> signalled{false};
      int rc = -7;
      Sleeper waiter([&] { EXPECT_TRUE((rc = s->TimedWait(ms)) != 0 || signalled); });
      for (int i = 0; i < 3 && waiter.sleeping(); ++i) {
        const int before = g_handled.load();
        pthread_kill(waiter.thread.native_handle(), SIGUSR1);
        EXPECT_TRUE(eventually([&] { return g_handled.load() > before; }));
      }
      if (ms != 300) {
        EXPECT_TRUE(waiter.sleeping());  // still waiting after the handlers ran
        signalled = true;
        EXPECT_EQ(0, s->Signal());
      }
      waiter.thread.join();
      EXPECT_EQ(ms == 300 ? 1 : 0, rc);
      EXPECT_EQ(0, count(s));
    }
  }
  sigaction(SIGUSR1, &old, nullptr);
}

// Two signallers give units (again while refused at the maximum) and waiters
// take them: the count never passes the maximum and every unit reaches exactly
// one waiter. Three waiters sleep without limit, or one's 1 ms waits keep timing
// out while units come at sweeping intervals, so that a time-out meets a
// hand-off now and then.
TEST(NUVSysSemaphore, HandOffsUnderContention) {
  struct Case { int ms, waiters, each, pauseUs; };
  for (char kind : kKinds) {
    for (const Case c : {Case{-1, 3, 10000, 0}, Case{1, 1, 1500, 100}}) {
      SCOPED_TRACE(testing::Message() << "kind " << int(kind) << ", " << c.ms << " ms");
      const Sem s = make(3, 0, kind);
      std::atomic<int> running{c.waiters + 2};
      std::vector<std::thread> threads;
      for (int w = 0; w < c.waiters; ++w) {
        threads.emplace_back([&] {
          for (int got = 0; got < c.each;) {
            const int rc = s->TimedWait(c.ms);
            EXPECT_TRUE(rc == 0 || (rc == 1 && c.ms > 0)) << rc;
            got += rc == 0;
          }
          --running;
        });
      }
      for (int g = 0; g < 2; ++g) {
        threads.emplace_back([&] {
          for (int given = 0; given < c.waiters * c.each / 2;) {
            given += s->Signal() == 0;
            if (c.pauseUs != 0) std::this_thread::sleep_for(std::chrono::microseconds(given % 13 * c.pauseUs));
          }
          --running;
        });
      }
      int highest = 0;
      while (running > 0) highest = std::max(highest, count(s));
      for (auto& t : threads) t.join();
      EXPECT_LE(highest, 3);
      EXPECT_EQ(0, count(s));
      EXPECT_EQ(1, s->TimedWait(20));  // no unit left over, in the count or in a wake-up
    }
  }
}

// One sequence of Signal (s), Wait (W), TimedWait (w), IncreaseCount (+) and
// DecreaseCount (-) with the exact result and count after each.
TEST(NUVSysSemaphore, ExactResultsOfEachCall) {
  struct Step { char op; int n, partial, rc, count; };
  const Step kSteps[] = {{'+', 5, 0, 0, 7},         {'+', 5, 0, E_FAIL, 7},   {'+', 5, 1, 1, 10},
                         {'+', 1, 1, 1, 10},        {'s', 0, 0, E_FAIL, 10},  {'+', 0, 0, 0, 10},
                         {'+', -1, 0, E_INVALIDARG, 10}, {'w', -2, 0, E_INVALIDARG, 10}, {'w', 0, 0, 0, 9},
                         {'-', 4, 0, 0, 5},         {'-', -1, 0, E_INVALIDARG, 5}, {'-', 0, 0, 0, 5},
                         {'W', 0, 0, 0, 4},         {'-', 4, 0, 0, 0},        {'w', 0, 0, 1, 0},
                         {'w', 30, 0, 1, 0},        {'s', 0, 0, 0, 1}};
  for (char kind : kKinds) {
    const Sem s = make(10, 2, kind);
    for (const Step& st : kSteps) {
      SCOPED_TRACE(testing::Message() << "kind " << int(kind) << " " << st.op << st.n);
      EXPECT_EQ(st.rc, st.op == 's'   ? s->Signal()
                       : st.op == 'W' ? s->Wait()
                       : st.op == 'w' ? s->TimedWait(st.n)
                       : st.op == '+' ? s->IncreaseCount(st.n, st.partial)
                                      : s->DecreaseCount(st.n));
      EXPECT_EQ(st.count, count(s));
    }
  }
  EXPECT_EQ(E_INVALIDARG, make(10, 10, 1)->DecreaseCount(11));  // could never be met
  // The variable-count kind takes n units at once: a taker of 3 leaves 2 alone.
  const Sem v = make(10, 2, 1);
  std::atomic<bool> enough{false};
  Sleeper taker([&] { EXPECT_TRUE(v->DecreaseCount(3) == 0 && enough); });
  EXPECT_TRUE(taker.sleeping());
  EXPECT_EQ(2, count(v));
  enough = true;
  EXPECT_EQ(0, v->IncreaseCount(1, 0));
  taker.thread.join();
  EXPECT_EQ(0, count(v));
}


// ---- failures of the operating system ----

using systemts::detail::SysCalls;

TEST(NUVSysSemaphoreFaults, CreationNeedsThePosixSemaphoreAndTimedWaitTheClock) {
  {
    Fault<&SysCalls::semInit> f(ENOSPC, -1, 1, Fault<&SysCalls::semInit>::kAlways);
    EXPECT_EQ(nullptr, make(1, 0, 0));
    EXPECT_NE(nullptr, make(1, 0, 1));  // the variable-count kind has none
    EXPECT_EQ(1, f.failed());
  }
  const Sem s = make(1, 0, 0);
  {
    Fault<&SysCalls::clockGetTime> f(EINVAL, -1);
    EXPECT_EQ(SystemTSResultFromErrno(EINVAL), s->TimedWait(50));  // and takes nothing
  }
  EXPECT_EQ(0, s->Signal());
  EXPECT_EQ(1, count(s));
  EXPECT_EQ(0, s->TimedWait(50));
}

// A sleep that fails for good (EINVAL; EINTR is retried, see
// WaitsSurviveSignalHandlers): the waiter counts itself out, so a unit given
// afterwards stays for the next taker.
template <auto Entry, class Wait>
void failedSleep(const char* what, Wait wait) {
  SCOPED_TRACE(what);
  const Sem s = make(1, 0, 0);
  {
    Fault<Entry> f(EINVAL, -1);
    EXPECT_EQ(SystemTSResultFromErrno(EINVAL), wait(*s));
  }
  EXPECT_EQ(0, s->Signal());
  EXPECT_EQ(1, count(s));
  EXPECT_EQ(0, s->TimedWait(0));
}

TEST(NUVSysSemaphoreFaults, SleepsThatFail) {
  failedSleep<&SysCalls::semWait>("Wait", [](NUVSysSemaphore& s) { return s.Wait(); });
  failedSleep<&SysCalls::semTimedWait>("TimedWait", [](NUVSysSemaphore& s) { return s.TimedWait(600000); });
}

// A wake-up the C library refuses leaves the sleeper asleep and the count as
// it was; the next Signal wakes it.
TEST(NUVSysSemaphoreFaults, AFailedWakeUpIsReportedAndUndone) {
  auto s = std::shared_ptr<NUVSysSemaphore>(make(1, 0, 0));
  auto rc = std::make_shared<std::atomic<int>>(-1);
  Fault<&SysCalls::semWait> sleeps;
  std::thread t([s, rc] { *rc = s->Wait(); });
  ASSERT_TRUE(eventually([&] { return sleeps.calls() >= 1; }));
  {
    Fault<&SysCalls::semPost> post(EINVAL, -1);
    EXPECT_EQ(SystemTSResultFromErrno(EINVAL), s->Signal());
  }
  EXPECT_EQ(0, count(s));
  EXPECT_EQ(-1, rc->load());
  EXPECT_EQ(0, s->Signal());
  const bool woken = eventually([&] { return rc->load() == 0; });
  woken ? t.join() : t.detach();  // a sleeper never woken owns what it uses
  EXPECT_TRUE(woken) << "the sleeper was never woken";
  EXPECT_EQ(0, count(s));
}

// A timed waiter whose time runs out just as a Signal hands it a unit takes
// that unit and the post that goes with it (its wait for the post
// interrupted once here), leaving no stale post behind.
NUVSysSemaphore* g_late = nullptr;

TEST(NUVSysSemaphoreFaults, AUnitHandedOverAsTheTimeRunsOutIsTaken) {
  const Sem s = make(1, 0, 0);
  g_late = s.get();
  systemts::detail::g_sys.semTimedWait = [](sem_t*, const struct timespec*) {
    EXPECT_EQ(0, g_late->Signal());
    errno = ETIMEDOUT;
    return -1;
  };
  {
    Fault<&SysCalls::semWait> f(EINTR, -1);
    EXPECT_EQ(0, s->TimedWait(60000));
    EXPECT_EQ(2, f.calls());
  }
  systemts::detail::g_sys.semTimedWait = systemts::detail::kDefaultSysCalls.semTimedWait;
  EXPECT_EQ(0, count(s));
  EXPECT_EQ(1, s->TimedWait(10));  // a stale post would let this through
}

}  // namespace
