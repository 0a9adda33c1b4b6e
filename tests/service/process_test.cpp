// How the service's process ends: always with status 0, and with the right last words. Run by
// with-mock-logind, whose mock-logind plays the system's sleep and wake.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "service_process.h"
#include "studio_peer.h"

namespace {

using std::chrono::steady_clock;

// A service that a studio has joined to a session.
class Process : public testing::Test {
 protected:
  void start(const std::string& scenario = "") {
    service.emplace(scenario);
    studio.emplace(ServiceProcess::kName);
    studio->send({{"Init", ""}, {"sessionId", "room"}, {"token", "t"}});
  }

  std::optional<ServiceProcess> service;
  std::optional<StudioPeer> studio;
};

TEST_F(Process, EndsOnExitWithoutAnAnswer) {
  start();
  EXPECT_EQ(studio->ask({{"Exit", ""}}), "no answer");
  EXPECT_EQ(service->waitForEnd(20), 0);
  EXPECT_TRUE(studio->waitForLog("Received Exit"));
}

TEST_F(Process, EndsUnderLoadWithStatusZero) {
  start();
  for (int i = 0; i < 2000; i++) studio->send({{"PrefUpdate", "more"}});
  studio->send({{"Exit", ""}});
  EXPECT_EQ(service->waitForEnd(20), 0);
}

TEST_F(Process, AnSdkErrorEndsItAfterASecond) {
  const auto begin = steady_clock::now();
  start("error");
  EXPECT_TRUE(studio->waitForLog("open_tok_logger: [ERROR] broken"));
  EXPECT_TRUE(studio->waitForLog("Exiting because of [ERROR]"));
  EXPECT_EQ(service->waitForEnd(20), 0);
  EXPECT_GE(steady_clock::now() - begin, std::chrono::seconds(1));
}

TEST_F(Process, AnSdkErrorWithAGuestInDoesNotEndIt) {
  start("error with a guest");
  ASSERT_TRUE(studio->next("ring"));
  studio->send({{"StartBroadcast", ""}, {"ID", "cam"}});
  EXPECT_TRUE(studio->waitForLog("open_tok_logger: [ERROR] broken"));
  EXPECT_EQ(service->waitForEnd(2), Child::kRuns);
  EXPECT_EQ(studio->ask({{"There", ""}}), "world");
}

TEST_F(Process, AHungConnectEndsItAfterThirtySeconds) {
  start("connect hangs");
  EXPECT_EQ(service->waitForEnd(29), Child::kRuns);
  EXPECT_EQ(service->waitForEnd(20), 0);
  EXPECT_TRUE(studio->waitForLog("otc_session_connect timed out. exiting process."));
}

TEST_F(Process, WithNobodyAtItsSocketItEnds) {
  service.emplace();
  studio.emplace(ServiceProcess::kName);
  EXPECT_EQ(studio->ask({{"There", ""}}), "world");
  studio.reset();
  EXPECT_EQ(service->waitForEnd(20), 0);
  EXPECT_THAT(service->systemLog(), testing::HasSubstr("XPC connection invalid, releasing."));
}

TEST_F(Process, AWakeHarmsNothingAndASleepIsLetThroughAndEndsIt) {
  const auto logind = [](const std::string& command) { return system(("mock-logind " + command).c_str()); };
  start();
  // The service's power thread has registered once its lock is listed; it tells nobody else.
  ASSERT_TRUE(eventually([&] { return logind("locks | grep -q delay") == 0; }));
  ASSERT_EQ(logind("wake"), 0);
  EXPECT_EQ(studio->ask({{"There", ""}}), "world");

  const auto begin = steady_clock::now();
  ASSERT_EQ(logind("sleep"), 0);
  EXPECT_EQ(service->waitForEnd(30), 0);
  EXPECT_GE(steady_clock::now() - begin, std::chrono::seconds(2));
  EXPECT_THAT(service->systemLog(),
              testing::ContainsRegex("Guest process going to sleep\n(.*\n)*.*Guest process exiting\n$"));
}

}  // namespace
