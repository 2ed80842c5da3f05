// Module loading from several threads at once: the library cache under eight
// threads loading twenty modules and looking up their symbols, and the
// life-cycle registry attributing registrations made while two threads load
// two modules at once. Run under ThreadSanitizer too.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "DynamicLoadInternal.h"
#include "KELThrLibraryManager.h"
#include "LifeCycleEvents.h"
#include "NUVSysLifeCycleDynamicLoadManagerImplement.h"
#include "NUVSysLifeCycleObject.h"

// The dynamic loader serialises dlopen and dlclose under its own lock, which
// it takes through an internal pointer ThreadSanitizer does not see; the
// loader's own bookkeeping (its global scope array, grown and freed inside
// dlopen) then shows up as a race between two loads. Races whose stack holds a
// loader frame are the loader's, not ours.
#if defined(__SANITIZE_THREAD__)
#define SYSTEMTS_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SYSTEMTS_TSAN 1
#endif
#endif
#ifdef SYSTEMTS_TSAN
extern "C" const char* __tsan_default_suppressions() {
  return "race:ld-linux-x86-64.so.2\n";
}
#endif

namespace {

using IntFn = int (*)();

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

TEST(DynamicLoadConcurrency, EightThreadsLoadTwentyModulesAndFindTheirSymbols) {
  constexpr int kThreads = 8, kModules = 20, kRounds = 3;
  KELThrLibraryManager::_Cleanup();
  std::atomic<int> wrong{0};
  together(kThreads, [&](int t) {
    for (int step = 0; step < kRounds * kModules; ++step) {
      const int i = (step * (t % 2 == 0 ? 1 : kModules - 1) + t * 7) % kModules;
      const std::string name = (i < 10 ? "dlmod_0" : "dlmod_") + std::to_string(i), only = name + "_only";
      const char* module = name.c_str();
      if (KELThrLibraryManager::LoadLibrary(module) == nullptr) wrong.fetch_add(1);
      auto value = reinterpret_cast<IntFn>(KELThrLibraryManager::GetFunctionAddress(module, "dlmod_value"));
      auto own = reinterpret_cast<IntFn>(KELThrLibraryManager::GetFunctionAddress(module, only.c_str()));
      if (value == nullptr || value() != i || own == nullptr || own() != 1000 + i) wrong.fetch_add(1);
      if (KELThrLibraryManager::GetFunctionAddress(module, "dlmod_absent") != nullptr) wrong.fetch_add(1);
    }
  });
  EXPECT_EQ(wrong.load(), 0);
  const auto view = systemts::detail::libraryCacheView();
  ASSERT_EQ(view.modules.size(), size_t{kModules});
  EXPECT_TRUE(std::is_sorted(view.modules.begin(), view.modules.end()));
  EXPECT_EQ(std::count(view.failed.begin(), view.failed.end(), true), 0);
  // Each symbol recorded once, however many threads found it at once.
  ASSERT_EQ(view.symbols.size(), size_t{2 * kModules});
  EXPECT_EQ(std::adjacent_find(view.symbols.begin(), view.symbols.end()), view.symbols.end());
  EXPECT_EQ(view.symbolCapacity, size_t{2 * kModules});
}

// Both threads have a load context open while each loads: A opens, B opens,
// A loads and closes, then B. A registry that kept one stack of contexts for
// the process would hand A's objects to B's context. Each thread loads with a
// manager of its own (the process-wide one would serialise the loads).
TEST(DynamicLoadConcurrency, TwoThreadsLoadingAtOnceEachGetTheirOwnObjects) {
  std::mutex lock;
  std::condition_variable changed;
  int step = 0;
  // Waits for `step` to reach `from`, then runs `fn` and moves it on.
  auto inTurn = [&](int from, auto fn) {
    std::unique_lock<std::mutex> guard(lock);
    ASSERT_TRUE(changed.wait_for(guard, std::chrono::seconds(30), [&] { return step == from; }));
    guard.unlock();
    fn();
    guard.lock();
    ++step;
    changed.notify_all();
  };
  void* handles[2] = {nullptr, nullptr};
  together(2, [&](int t) {
    NUVSysLifeCycleDynamicLoadManagerImplement manager;
    NUVSysLifeCycleContext* context = nullptr;
    inTurn(t, [&] { context = NUVSysLifeCycleDynamicPrepareLoadContext(); });
    inTurn(2 + t, [&] {
      EXPECT_EQ(manager.DoLoad(t == 0 ? "liblcmod_a.so" : "liblcmod_b.so", &handles[t]), 0);
      // b has an object that fails to initialise.
      EXPECT_EQ(NUVSysLifeCycleDynamicProcessLoadContext(context, handles[t]), t == 0 ? 0 : -1);
    });
  });
  for (int t = 0; t < 2; ++t) {
    const std::string m = t == 0 ? "a" : "b";
    SCOPED_TRACE(m);
    ASSERT_NE(handles[t], nullptr);
    takeEvents();
    EXPECT_EQ(NUVSysLifeCycleDispatchDynamicProcessUnloadContext(
                  NUVSysLifeCycleDispatchDynamicPrepareUnloadContext(handles[t])), 0);
    EXPECT_EQ(takeEvents(), (Events{m + ":second:fini:0", m + ":first:fini:0"}));
    EXPECT_EQ(NUVSysLifeCycleDynamicLoadManagerImplement().DoUnload(&handles[t]), 0);
  }
}

}  // namespace
