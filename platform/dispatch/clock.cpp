#include <dispatch/clock.h>
#include <dispatch/object.h>
#include <dispatch/thread.h>

#include <asio/executor_work_guard.hpp>

namespace platform {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

asio::io_context& timerContext() {
  static asio::io_context& context = *[] {
    auto* made = new asio::io_context;
    const bool started = startThread("timers", [made] {
      const auto work = asio::make_work_guard(*made);
      made->run();
    });
    if (!started) dispatchFatal("the timers' thread cannot be started");
    return made;
  }();
  return context;
}

steady_clock::time_point timePoint(dispatch_time_t when) {
  if (when == DISPATCH_TIME_NOW) return steady_clock::now();
  return steady_clock::time_point(nanoseconds(static_cast<nanoseconds::rep>(when)));
}

}  // namespace platform

dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta) {
  if (when == DISPATCH_TIME_FOREVER) return DISPATCH_TIME_FOREVER;
  const auto base = platform::timePoint(when).time_since_epoch().count();
  int64_t sum = 0;
  if (__builtin_add_overflow(base, delta, &sum)) return DISPATCH_TIME_FOREVER;
  // Zero would mean now, and what has passed is past however long ago.
  return sum > 0 ? static_cast<dispatch_time_t>(sum) : 1;
}
