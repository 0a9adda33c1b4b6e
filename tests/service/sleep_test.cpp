// The system's sleep and wake, from a logind of the test's own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "service_process.h"
#include "studio_peer.h"

namespace {

int logind(const std::string& command) {
  return std::system(("mock-logind " + command).c_str());
}

// The service's power thread has registered once its lock is listed; it tells nobody else.
bool waitForLock() {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (logind("locks | grep -q delay") != 0) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

TEST(Sleep, AWakeHarmsNothingAndASleepIsLetThroughAndEndsTheService) {
  ServiceProcess service("");
  StudioPeer studio(service.name());
  studio.send({{"Init", ""}, {"sessionId", "room"}, {"token", "t"}});
  ASSERT_TRUE(waitForLock());

  ASSERT_EQ(logind("wake"), 0);
  EXPECT_EQ(studio.ask({{"There", ""}}), "world");

  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(logind("sleep"), 0);
  EXPECT_EQ(service.waitForEnd(30), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_THAT(service.systemLog(),
              testing::ContainsRegex("Guest process going to sleep\n(.*\n)*.*Guest process exiting\n$"));
}

}  // namespace
