#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <future>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "waiting.h"

namespace {

dispatch_queue_t global() {
  return dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0);
}

std::size_t threadCount() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("Threads:")) return std::stoul(line.substr(8));
  }
  return 0;
}

// A block on each queue; all must be running at once for any to end. Returns whether that happened.
bool allMeet(const std::vector<dispatch_queue_t>& queues) {
  const auto count = static_cast<std::ptrdiff_t>(queues.size());
  auto meeting = std::make_shared<std::latch>(count);
  auto left = std::make_shared<std::atomic<std::ptrdiff_t>>(count);
  auto done = std::make_shared<std::promise<void>>();
  for (dispatch_queue_t queue : queues) {
    dispatch_async(queue, [=] {
      meeting->arrive_and_wait();
      if (--*left == 0) done->set_value();
    });
  }
  return done->get_future().wait_for(kDeadline) == std::future_status::ready;
}

}  // namespace

TEST(SerialQueue, RunsEachThreadsBlocksInOrderAndOneAtATime) {
  constexpr int kThreads = 4;
  constexpr int kBlocks = 2000;
  dispatch_queue_t queue = dispatch_queue_create(
      "order", dispatch_queue_attr_make_with_qos_class(DISPATCH_QUEUE_SERIAL, QOS_CLASS_USER_INTERACTIVE, 0));
  // Guarded by the queue alone.
  std::vector<int> last(kThreads, -1);
  int wrong = 0;

  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kBlocks; ++i) {
        const auto step = [&, thread, i] { wrong += std::exchange(last[thread], i) != i - 1; };
        if (i % 3 == 0) {
          dispatch_sync(queue, [&, caller = std::this_thread::get_id()] {
            step();
            wrong += std::this_thread::get_id() != caller;
          });
        } else {
          dispatch_async(queue, step);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  dispatch_sync(queue, [&] {
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(last, std::vector<int>(kThreads, kBlocks - 1));
    EXPECT_STREQ(dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL), "order");
  });
  EXPECT_STREQ(dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL), "");
  dispatch_release(queue);
}

TEST(SerialQueue, LivesUntilItsBlocksHaveRunAndMayBeReleasedByThem) {
  for (int round = 0; round < 200; ++round) {
    std::promise<std::string> last;
    dispatch_queue_t queue = dispatch_queue_create("brief", DISPATCH_QUEUE_SERIAL);
    dispatch_async(queue, [queue] { dispatch_release(queue); });
    dispatch_queue_t next = dispatch_queue_create("kept by its blocks", DISPATCH_QUEUE_SERIAL);
    dispatch_async(next, [] {});
    dispatch_async(next, [&] { last.set_value(dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL)); });
    dispatch_release(next);
    ASSERT_EQ(last.get_future().get(), "kept by its blocks");
  }
}

TEST(SerialQueue, SharesTheOrderOfASerialTarget) {
  dispatch_queue_t target = dispatch_queue_create("target", DISPATCH_QUEUE_SERIAL);
  dispatch_queue_t queues[] = {dispatch_queue_create("a", DISPATCH_QUEUE_SERIAL),
                               dispatch_queue_create("b", DISPATCH_QUEUE_CONCURRENT), target};
  for (dispatch_queue_t queue : {queues[0], queues[1]}) dispatch_set_target_queue(queue, target);
  // Guarded by the target alone.
  int count = 0;

  constexpr int kBlocks = 1000;
  for (int i = 0; i < kBlocks; ++i) {
    for (dispatch_queue_t queue : queues) dispatch_async(queue, [&] { ++count; });
    dispatch_sync(queues[i % 3], [&] { ++count; });
  }
  // A queue's blocks may still wait for their turn on the target when the target's own are through.
  for (dispatch_queue_t queue : queues) dispatch_sync(queue, [] {});
  dispatch_sync(target, [&] { EXPECT_EQ(count, 4 * kBlocks); });
  for (dispatch_queue_t queue : queues) dispatch_release(queue);
}

TEST(SerialQueueDeathTest, EndsTheProcessWhereItWouldWaitForItself) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  dispatch_queue_t queue = dispatch_queue_create("self", DISPATCH_QUEUE_SERIAL);
  EXPECT_DEATH(dispatch_sync(queue, [&] { dispatch_sync(queue, [] {}); }), "already runs on");
  dispatch_release(queue);
}

TEST(ConcurrentQueue, RunsAllItsBlocksAtOnceHoldsNobodyUpAndGivesTheThreadsBack) {
  const std::size_t before = threadCount();
  dispatch_queue_t crowd = dispatch_queue_create("crowd", DISPATCH_QUEUE_CONCURRENT);
  dispatch_queue_t serial = dispatch_queue_create("urgent", DISPATCH_QUEUE_SERIAL);
  std::vector<dispatch_queue_t> queues(100, crowd);
  queues.insert(queues.end(), 100, global());
  queues.push_back(serial);
  EXPECT_TRUE(allMeet(queues));
  EXPECT_GE(threadCount(), queues.size());
  EXPECT_TRUE(eventually([&] { return threadCount() <= before + 8; }));
  dispatch_release(crowd);
  dispatch_release(serial);
}

TEST(Once, RunsOnceAndEverybodyWaitsForItsEnd) {
  for (int round = 0; round < 50; ++round) {
    dispatch_once_t once = 0;
    int runs = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
        dispatch_once(&once, [&] { ++runs; });
        EXPECT_EQ(runs, 1);
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
}

TEST(ProcessDeathTest, ExitsWithZeroFromAnyThreadWhileOthersRun) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (int round = 0; round < 5; ++round) {
    EXPECT_EXIT(
        {
          static dispatch_queue_t queue = dispatch_queue_create("busy", DISPATCH_QUEUE_SERIAL);
          static void (*again)() = [] {
            dispatch_async(global(), [] { dispatch_sync(queue, [] {}); });
            dispatch_async(queue, [] { dispatch_async(global(), [] { again(); }); });
          };
          for (int i = 0; i < 4; ++i) again();
          static dispatch_source_t timer = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue);
          dispatch_source_set_event_handler(timer, [] {});
          dispatch_source_set_timer(timer, DISPATCH_TIME_NOW, 10 * NSEC_PER_USEC, 0);
          dispatch_resume(timer);
          dispatch_after(dispatch_time(DISPATCH_TIME_NOW, 20 * NSEC_PER_MSEC), global(),
                         [] { std::exit(0); });
          std::this_thread::sleep_for(kDeadline);
        },
        testing::ExitedWithCode(0), "^$");
  }
}
