// How the service's process ends: always with status 0, and with the right last words.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "service_process.h"
#include "studio_peer.h"

namespace {

using std::chrono::steady_clock;

void init(StudioPeer& studio) {
  studio.send({{"Init", ""}, {"sessionId", "room"}, {"token", "t"}});
}

TEST(Process, EndsOnExitWithoutAnAnswer) {
  ServiceProcess service("");
  StudioPeer studio(service.name());
  init(studio);
  EXPECT_EQ(studio.ask({{"Exit", ""}}), "no answer");
  EXPECT_EQ(service.waitForEnd(20), 0);
  EXPECT_TRUE(studio.waitForLog("Received Exit"));
}

TEST(Process, EndsUnderLoadWithStatusZero) {
  ServiceProcess service("");
  StudioPeer studio(service.name());
  init(studio);
  for (int i = 0; i < 2000; i++) studio.send({{"PrefUpdate", "more"}});
  studio.send({{"Exit", ""}});
  EXPECT_EQ(service.waitForEnd(20), 0);
}

TEST(Process, AnSdkErrorEndsItAfterASecond) {
  ServiceProcess service("error");
  StudioPeer studio(service.name());
  const auto start = steady_clock::now();
  init(studio);
  EXPECT_TRUE(studio.waitForLog("open_tok_logger: [ERROR] broken"));
  EXPECT_TRUE(studio.waitForLog("Exiting because of [ERROR]"));
  EXPECT_EQ(service.waitForEnd(20), 0);
  EXPECT_GE(steady_clock::now() - start, std::chrono::seconds(1));
}

TEST(Process, AnSdkErrorWithAGuestInDoesNotEndIt) {
  ServiceProcess service("error with a guest");
  StudioPeer studio(service.name());
  init(studio);
  ASSERT_TRUE(studio.next("ring"));
  studio.send({{"StartBroadcast", ""}, {"ID", "cam"}});
  EXPECT_TRUE(studio.waitForLog("open_tok_logger: [ERROR] broken"));
  EXPECT_EQ(service.waitForEnd(2), -1);
  EXPECT_EQ(studio.ask({{"There", ""}}), "world");
}

TEST(Process, AHungConnectEndsItAfterThirtySeconds) {
  ServiceProcess service("connect hangs");
  StudioPeer studio(service.name());
  init(studio);
  EXPECT_EQ(service.waitForEnd(29), -1);
  EXPECT_EQ(service.waitForEnd(20), 0);
  EXPECT_TRUE(studio.waitForLog("otc_session_connect timed out. exiting process."));
}

TEST(Process, WithNobodyAtItsSocketItEnds) {
  ServiceProcess service("");
  {
    StudioPeer studio(service.name());
    EXPECT_EQ(studio.ask({{"There", ""}}), "world");
  }
  EXPECT_EQ(service.waitForEnd(20), 0);
  EXPECT_THAT(service.systemLog(), testing::HasSubstr("XPC connection invalid, releasing."));
}

}  // namespace
