#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "waiting.h"

namespace {

std::size_t threadCount() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("Threads:")) return std::stoul(line.substr(8));
  }
  return 0;
}

}  // namespace

TEST(Block, KeepsWhatItCapturesWhateverItsSize) {
  auto token = std::make_shared<int>(0);
  const std::array<char, 100> large{};
  const auto check = [&](dispatch_block_t block) {
    ASSERT_EQ(token.use_count(), 2);
    dispatch_block_t copy = block;
    dispatch_block_t moved = std::move(block);
    EXPECT_FALSE(block);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(token.use_count(), 3);
    copy();
    copy = moved;
    copy();
    copy = nullptr;
    EXPECT_EQ(token.use_count(), 2);
    moved();
  };
  check([token] { ++*token; });
  check([token, large] { *token += 1 + large[0]; });
  EXPECT_EQ(token.use_count(), 1);
  EXPECT_EQ(*token, 6);
}

TEST(SerialQueue, RunsEachThreadsBlocksInOrderAndOneAtATimeAndMayBeReleasedByThem) {
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

  // With its last reference gone, the queue lives until its blocks have run.
  Mailbox<std::string> labels;
  dispatch_async(queue, [&, queue] {
    dispatch_async(queue, [&] { labels.put(dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL)); });
    dispatch_release(queue);
  });
  EXPECT_EQ(labels.next(), "order");
}

TEST(SerialQueue, SharesTheOrderOfASerialTarget) {
  dispatch_queue_t target = dispatch_queue_create("target", DISPATCH_QUEUE_SERIAL);
  dispatch_queue_t queue = dispatch_queue_create("above", DISPATCH_QUEUE_SERIAL);
  dispatch_set_target_queue(queue, target);
  int count = 0;  // guarded by the target alone
  constexpr int kBlocks = 1000;
  for (int i = 0; i < kBlocks; ++i) {
    for (dispatch_queue_t each : {queue, target}) dispatch_async(each, [&] { ++count; });
    dispatch_sync(i % 2 ? queue : target, [&] { ++count; });
  }
  // The queue's blocks may still wait for their turn on the target when the target's own are through.
  dispatch_sync(queue, [] {});
  dispatch_sync(target, [&] { EXPECT_EQ(count, 3 * kBlocks); });
  for (dispatch_queue_t each : {queue, target}) dispatch_release(each);
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
  queues.insert(queues.end(), 100, dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0));
  queues.push_back(serial);
  // All must be running at once for any to end.
  const auto meeting = std::make_shared<std::latch>(static_cast<std::ptrdiff_t>(queues.size()));
  for (dispatch_queue_t queue : queues) dispatch_async(queue, [meeting] { meeting->arrive_and_wait(); });
  EXPECT_TRUE(eventually([&] { return meeting->try_wait(); }));
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
