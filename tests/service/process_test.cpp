// How the service's process ends: always with status 0, and with the right last words. Run by
// with-mock-logind, whose mock-logind plays the system's sleep and wake.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <sstream>

#include "child.h"
#include "studio_peer.h"

namespace {

using std::chrono::steady_clock;

// A service process with the scripted SDK in the SDK's place, which a studio has joined to a session. It is
// given its listening socket, so that the studio may connect at once.
class Process : public testing::Test {
 protected:
  void start(const std::string& scenario = "") {
    const int socket = listeningSocket(folder / "service");
    const int log = open((folder / "log").c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
    service.emplace(std::vector<std::string>{SERVICE_PROGRAM}, std::map{std::pair(2, log), {3, socket}}, [&] {
      setenv("LD_LIBRARY_PATH", SCRIPTED_SDK_FOLDER, 1);
      setenv("SDK_SCENARIO", scenario.c_str(), 1);
    });
    close(socket);
    close(log);
    studio.emplace("service");
    studio->send({{"Init", ""}, {"sessionId", "room"}, {"token", "t"}});
  }

  TemporaryFolder folder;
  std::optional<Child> service;
  std::optional<StudioPeer> studio;
};

TEST_F(Process, EndsUnderLoadOnExitWithoutAnAnswer) {
  start();
  for (int i = 0; i < 2000; i++) studio->send({{"PrefUpdate", "more"}});
  EXPECT_EQ(studio->ask({{"Exit", ""}}), "no answer");
  EXPECT_EQ(service->waitForEnd(), 0);
  EXPECT_TRUE(studio->waitForLog("Received Exit"));
}

TEST_F(Process, EndsWhenItIsAskedToWithoutWaiting) {
  start();
  EXPECT_EQ(studio->ask({{"There", ""}}), "world");
  service->sendSignal(SIGTERM);
  EXPECT_EQ(service->waitForEnd(std::chrono::seconds(4)), 0);
}

TEST_F(Process, AnSdkErrorEndsItAfterASecond) {
  const auto begin = steady_clock::now();
  start("error");
  EXPECT_TRUE(studio->waitForLog("Exiting because of [ERROR]"));
  EXPECT_EQ(service->waitForEnd(), 0);
  EXPECT_GE(steady_clock::now() - begin, std::chrono::seconds(1));
}

TEST_F(Process, NeitherAnSdkErrorWithAGuestInNorAStudiosEndEndsIt) {
  start("error with a guest");
  ASSERT_TRUE(studio->next("ring"));
  studio->send({{"StartBroadcast", ""}, {"ID", "cam"}});
  EXPECT_TRUE(studio->waitForLog("open_tok_logger: [ERROR] broken"));
  studio.reset();
  EXPECT_EQ(service->waitForEnd(std::chrono::seconds(2)), Child::kRuns);
  studio.emplace("service");
  EXPECT_EQ(studio->ask({{"There", ""}}), "world");
}

TEST_F(Process, AHungConnectEndsItAfterThirtySeconds) {
  start("connect hangs");
  EXPECT_EQ(service->waitForEnd(std::chrono::seconds(29)), Child::kRuns);
  EXPECT_EQ(service->waitForEnd(), 0);
  EXPECT_TRUE(studio->waitForLog("otc_session_connect timed out. exiting process."));
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
  EXPECT_EQ(service->waitForEnd(), 0);
  EXPECT_GE(steady_clock::now() - begin, std::chrono::seconds(2));
  std::ostringstream systemLog;
  systemLog << std::ifstream(folder / "log").rdbuf();
  EXPECT_THAT(systemLog.str(),
              testing::ContainsRegex("Guest Came out of sleep\n(.*\n)*.*Guest process going to sleep\n"
                                     "(.*\n)*.*Guest process exiting\n$"));
}

}  // namespace
