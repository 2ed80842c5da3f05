// Makes one entry of the library's table of OS calls fail on purpose.
//
//   using systemts::detail::SysCalls;
//   Fault<&SysCalls::iconvOpen> f(EMFILE, reinterpret_cast<iconv_t>(-1));  // the next call fails
//   Fault<&SysCalls::read> r(EIO, -1, /*nth=*/2, /*times=*/Fault<&SysCalls::read>::kAlways);
//   Fault<&SysCalls::dlopen> counter;  // fails nothing, counts calls
//
// While a Fault lives, every call through the entry is counted; calls number
// nth .. nth+times-1 (counted from the Fault's creation, 1 is the first) set
// errno to the chosen value and return the chosen result without calling the
// C library. The destructor puts the entry back as it was. The hook is
// thread-safe; installing and removing it is not (do it while no other thread
// calls through the entry). One Fault per entry at a time.
#ifndef SYSTEMTS_TESTS_FAULT_INJECTION_H
#define SYSTEMTS_TESTS_FAULT_INJECTION_H

#include <atomic>
#include <cerrno>
#include <climits>
#include <type_traits>

#include "SysCalls.h"

namespace faultinjection_detail {
template <auto Member, class Fn = std::remove_reference_t<decltype(systemts::detail::g_sys.*Member)>>
class FaultImpl;

template <auto Member, class R, class... A>
class FaultImpl<Member, R (*)(A...)> {
 public:
  static constexpr long kAlways = LONG_MAX / 2;
  using Result = std::conditional_t<std::is_void_v<R>, int, R>;

  // Counts calls only.
  FaultImpl() : FaultImpl(0, Result{}, 0, 0) {}
  FaultImpl(int err, Result failResult, long nth = 1, long times = 1) {
    s_original = systemts::detail::g_sys.*Member;
    s_err = err;
    s_result = failResult;
    s_first = nth;
    s_last = times >= kAlways ? LONG_MAX : nth + times - 1;
    s_calls.store(0);
    s_failed.store(0);
    systemts::detail::g_sys.*Member = &Hook;
  }
  ~FaultImpl() { systemts::detail::g_sys.*Member = s_original; }
  FaultImpl(const FaultImpl&) = delete;
  FaultImpl& operator=(const FaultImpl&) = delete;

  // Calls made through the entry since this Fault was installed.
  long calls() const { return s_calls.load(); }
  // Calls that were made to fail.
  long failed() const { return s_failed.load(); }
  // Stops failing; calls go on being counted.
  void heal() { s_last = 0; }

 private:
  static R Hook(A... args) {
    const long n = s_calls.fetch_add(1) + 1;
    if (n >= s_first && n <= s_last) {
      s_failed.fetch_add(1);
      errno = s_err;
      if constexpr (std::is_void_v<R>) {
        return;
      } else {
        return s_result;
      }
    }
    return s_original(args...);
  }

  static inline R (*s_original)(A...);
  static inline int s_err;
  static inline Result s_result;
  static inline long s_first;
  static inline std::atomic<long> s_last;
  static inline std::atomic<long> s_calls;
  static inline std::atomic<long> s_failed;
};
}  // namespace faultinjection_detail

template <auto Member>
using Fault = faultinjection_detail::FaultImpl<Member>;

#endif  // SYSTEMTS_TESTS_FAULT_INJECTION_H
