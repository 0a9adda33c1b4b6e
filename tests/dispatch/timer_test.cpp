#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <thread>

#include "waiting.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

struct TimerTest : testing::Test {
  ~TimerTest() override {
    dispatch_release(timer);
    dispatch_release(queue);
  }

  void start(dispatch_time_t first, uint64_t interval) {
    dispatch_source_set_timer(timer, first, interval, 0);
    dispatch_resume(timer);
  }
  static void wait(std::promise<void>& event) {
    ASSERT_EQ(event.get_future().wait_for(kDeadline), std::future_status::ready);
  }
  // Cancels the timer; afterwards none of its handlers runs any more.
  void end() {
    std::promise<void> ended;
    dispatch_source_set_cancel_handler(timer, [&] { ended.set_value(); });
    dispatch_source_cancel(timer);
    wait(ended);
  }

  dispatch_queue_t queue = dispatch_queue_create("timer", DISPATCH_QUEUE_CONCURRENT);
  dispatch_source_t timer = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue);
};

}  // namespace

TEST_F(TimerTest, KeepsItsBeatWithoutDriftAndNeverRunsTwiceAtOnce) {
  constexpr auto kBeat = 4ms;
  constexpr std::size_t kBeats = 100;
  const auto begin = Clock::now();
  std::size_t beats = 0;
  Clock::duration leastLate = Clock::duration::max();
  std::atomic<int> running = 0;
  std::promise<void> done;
  dispatch_source_set_event_handler(timer, [&] {
    EXPECT_EQ(++running, 1);
    const bool before = beats >= kBeats;
    beats += dispatch_source_get_data(timer);
    // Beat n is due n - 1 intervals after the start.
    const auto late = Clock::now() - begin - kBeat * static_cast<int>(beats - 1);
    EXPECT_GE(late, 0ms);
    if (beats > kBeats / 2) leastLate = std::min(leastLate, late);
    std::this_thread::sleep_for(1ms);
    --running;
    if (!before && beats >= kBeats) done.set_value();
  });
  start(DISPATCH_TIME_NOW, static_cast<uint64_t>(std::chrono::nanoseconds(kBeat).count()));
  wait(done);
  end();
  // A timer that counted from its last beat would have lost its handler's millisecond fifty times by then.
  EXPECT_LT(leastLate, 40ms);
}

TEST_F(TimerTest, GivesTheTicksThatItsHandlerMissedAsOne) {
  std::size_t calls = 0;
  std::size_t ticks = 0;
  std::promise<void> held;
  std::promise<void> release;
  std::promise<void> caughtUp;
  dispatch_source_set_event_handler(timer, [&] {
    const bool before = ticks >= 40;
    ticks += dispatch_source_get_data(timer);
    if (++calls == 1) {
      held.set_value();
      release.get_future().wait();
    }
    if (!before && ticks >= 40) caughtUp.set_value();
  });
  start(DISPATCH_TIME_NOW, NSEC_PER_MSEC);
  held.get_future().wait();
  std::this_thread::sleep_for(30ms);
  release.set_value();
  wait(caughtUp);
  end();
  EXPECT_LE(calls, ticks - 20);
}

TEST_F(TimerTest, FiresOnceOrNeverAndCanBeSetAnew) {
  std::atomic<int> fired = 0;
  std::promise<void> once;
  dispatch_source_set_event_handler(timer, [&] {
    if (++fired == 1) once.set_value();
  });
  start(DISPATCH_TIME_FOREVER, NSEC_PER_MSEC);
  dispatch_source_set_timer(timer, dispatch_time(DISPATCH_TIME_NOW, 3600 * NSEC_PER_SEC), NSEC_PER_MSEC, 0);
  EXPECT_EQ(fired, 0);
  dispatch_source_set_timer(timer, DISPATCH_TIME_NOW, DISPATCH_TIME_FOREVER, 0);
  wait(once);
  std::this_thread::sleep_for(20ms);
  end();
  EXPECT_EQ(fired, 1);
}

TEST_F(TimerTest, LetsGoOfItsHandlersWhenCancelledFromWithin) {
  auto token = std::make_shared<int>();
  const std::weak_ptr<int> watched = token;
  std::promise<void> cancelled;
  std::atomic<int> late = 0;
  bool ended = false;
  dispatch_source_set_event_handler(timer, [&, token] {
    late += ended;
    dispatch_source_cancel(timer);
  });
  dispatch_source_set_cancel_handler(timer, [&, token] {
    ended = true;
    cancelled.set_value();
  });
  token.reset();
  start(DISPATCH_TIME_NOW, NSEC_PER_MSEC);
  wait(cancelled);
  EXPECT_TRUE(eventually([&] { return watched.expired(); }));
  EXPECT_EQ(late, 0);
}

TEST(After, ComesInTimeOnItsQueueThatItKeeps) {
  dispatch_queue_t queue = dispatch_queue_create("after", DISPATCH_QUEUE_SERIAL);
  const auto start = Clock::now();
  std::promise<Clock::duration> passed;
  dispatch_after(DISPATCH_TIME_FOREVER, queue, [] { ADD_FAILURE() << "forever has come"; });
  dispatch_after(dispatch_time(DISPATCH_TIME_NOW, 30 * NSEC_PER_MSEC), queue, [&] {
    EXPECT_STREQ(dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL), "after");
    passed.set_value(Clock::now() - start);
  });
  dispatch_release(queue);
  auto future = passed.get_future();
  ASSERT_EQ(future.wait_for(kDeadline), std::future_status::ready);
  EXPECT_GE(future.get(), 30ms);

  EXPECT_EQ(dispatch_time(DISPATCH_TIME_FOREVER, -1), DISPATCH_TIME_FOREVER);
  EXPECT_EQ(dispatch_time(DISPATCH_TIME_NOW, INT64_MAX), DISPATCH_TIME_FOREVER);
  EXPECT_EQ(dispatch_time(1000, -10), 990u);
}
