#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>

#include "waiting.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TEST(Timer, KeepsItsBeatWithoutDriftAndGivesTheTicksThatItsHandlerMissedAsOne) {
  constexpr auto kBeat = 4ms;
  constexpr std::size_t kBeats = 100;
  dispatch_queue_t queue = dispatch_queue_create("timer", DISPATCH_QUEUE_CONCURRENT);
  dispatch_source_t timer = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue);
  const auto begin = Clock::now();
  std::size_t calls = 0;
  std::size_t beats = 0;
  Clock::duration leastLate = Clock::duration::max();
  std::atomic<int> running = 0;
  std::promise<void> done;
  dispatch_source_set_event_handler(timer, [&] {
    EXPECT_EQ(++running, 1);
    beats += dispatch_source_get_data(timer);
    // Beat n is due n - 1 intervals after the start.
    const auto late = Clock::now() - begin - kBeat * static_cast<int>(beats - 1);
    EXPECT_GE(late, 0ms);
    if (beats > kBeats / 2) leastLate = std::min(leastLate, late);
    std::this_thread::sleep_for(++calls == 1 ? 10 * kBeat : 1ms);
    --running;
    if (beats >= kBeats) dispatch_source_cancel(timer);
  });
  dispatch_source_set_cancel_handler(timer, [&] { done.set_value(); });
  dispatch_source_set_timer(timer, DISPATCH_TIME_NOW,
                            static_cast<uint64_t>(std::chrono::nanoseconds(kBeat).count()), 0);
  dispatch_resume(timer);
  ASSERT_EQ(done.get_future().wait_for(kDeadline), std::future_status::ready);
  // A timer that counted from its last beat would have lost its handler's millisecond fifty times by then.
  EXPECT_LT(leastLate, 40ms);
  EXPECT_LE(calls, beats - 8) << "the first call lasted ten beats";
  dispatch_release(timer);
  dispatch_release(queue);
}
