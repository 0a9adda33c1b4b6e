// The studio as a program, with a real session server and a service that plays its part.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "child.h"
#include "studio/service_process.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::HasSubstr;
using testing::ThrowsMessage;

class StudioTest : public testing::Test {
 protected:
  StudioTest() {
    fs::create_directory(directory_ / "temporary");
    int ends[2];  // the test's, and the studio's for its input and output
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const timeval deadline{kDeadline.count(), 0};
    setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
    reports_ = fdopen(ends[0], "r");
    studioEnd_ = ends[1];
  }
  ~StudioTest() override { fclose(reports_); }

  // Takes its commands from the test, or from `input`, and reports to the test.
  void start(int input = -1, int errors = STDERR_FILENO) {
    studio_.emplace(
        std::vector<std::string>{ZARVO_STUDIO, "--service", STUB_SERVICE, "--web", ZARVO_WEB, "--show",
                                 "videotestsrc is-live=true", "--width", "64", "--height", "64"},
        std::map<int, int>{{0, input < 0 ? studioEnd_ : input}, {1, studioEnd_}, {2, errors}}, [&] {
          setenv("TMPDIR", (directory_ / "temporary").c_str(), 1);
          unsetenv("XDG_RUNTIME_DIR");
        });
    close(std::exchange(studioEnd_, -1));
  }

  void say(const std::string& line) {
    const std::string text = line + "\n";
    ASSERT_EQ(send(fileno(reports_), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }

  // The next report; an empty object when none comes.
  json next() {
    char line[4096];
    if (!fgets(line, sizeof line, reports_)) return json::object();
    json event = json::parse(line, nullptr, false);
    EXPECT_TRUE(event.is_object()) << "every line is a JSON object";
    return event;
  }
  // The next report of that name.
  json report(const std::string& name) {
    for (json event = next(); !event.empty(); event = next()) {
      if (event.value("event", "") == name) return event;
    }
    ADD_FAILURE() << "no report \"" << name << "\"";
    return json::object();
  }

  // The session server and the service.
  std::vector<pid_t> children() const {
    std::vector<pid_t> found;
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(studio_->pid()) + "/task")) {
      std::ifstream list(task.path() / "children");
      for (pid_t child = 0; list >> child;) found.push_back(child);
    }
    EXPECT_EQ(found.size(), 2u);
    return found;
  }
  // Whose parent has ended belongs to init, which may take a moment to notice.
  static void expectNothingLeft(const std::vector<pid_t>& children) {
    for (const pid_t child : children) {
      EXPECT_TRUE(eventually([&] {
        std::ifstream stat("/proc/" + std::to_string(child) + "/stat");
        const std::string state(std::istreambuf_iterator<char>(stat), {});
        return state.empty() || state.find(") Z ") != std::string::npos;
      })) << child;
    }
  }

  TemporaryFolder directory_;
  std::optional<Child> studio_;
  FILE* reports_;
  int studioEnd_;
};

TEST_F(StudioTest, FromTheLinkToTheEndOfInput) {
  start();
  EXPECT_THAT(report("ready").value("link", ""),
              testing::MatchesRegex("http://127.0.0.1:[0-9]+/#room=[0-9a-f]{32}&token=[0-9a-f]{32}"));
  EXPECT_EQ(report("ring").value("ring", ""), "abc");
  const auto started = children();
  shutdown(fileno(reports_), SHUT_WR);
  EXPECT_EQ(studio_->waitForEnd(), 0);
  expectNothingLeft(started);
  EXPECT_TRUE(fs::is_empty(directory_ / "temporary"));
}

TEST_F(StudioTest, AServiceThatEndsIsStartedAnew) {
  start();
  report("ring");
  say("chat Host: die");
  const json end = report("serviceEnded");
  EXPECT_EQ(end.value("reason", ""), "killed by signal 9 (Killed)");
  EXPECT_EQ(end.value("lastLog", ""), "the last words");
  report("ring");
  say("chat Host: leave");
  EXPECT_EQ(report("serviceEnded").value("reason", ""), "ended with status 3");
  report("ring");
  studio_->sendSignal(SIGTERM);
  EXPECT_EQ(studio_->waitForEnd(), 0);
  EXPECT_TRUE(fs::is_empty(directory_ / "temporary"));
}

TEST_F(StudioTest, AGuestIsPutBackWhereTheyWere) {
  start();
  report("ring");
  const auto expectLog = [&](std::initializer_list<const char*> lines) {
    for (const char* line : lines) EXPECT_EQ(report("log").value("logMessage", ""), line);
  };
  for (const char* command : {"admit #1", "admit #1", "live abc", "mute Abc"}) say(command);
  expectLog({"brought in", "greenroom no", "mute yes"});
  say("chat Host: die");
  expectLog({"the last words"});
  report("serviceEnded");
  expectLog({"mute yes", "brought in", "greenroom no"});
}

TEST_F(StudioTest, WhatMattersDoesNotWaitBehindTalk) {
  start();
  report("ring");
  say("chat Host: flood");
  std::size_t passed = 0;
  for (json event = next(); event.value("event", "") != "dropped"; event = next()) {
    ASSERT_FALSE(event.empty());
    passed += event.value("event", "") == "chat" ? 1 : 0;
  }
  EXPECT_GT(passed, 0u);
  EXPECT_LT(passed, 100u);
  EXPECT_EQ(report("talkLeftOut").value("lines", 0u), 3000 - passed);
}

// A terminal that is not the studio's controlling one sends no SIGHUP when it goes.
TEST_F(StudioTest, ATerminalThatGoesAwayEndsIt) {
  int terminal = -1;
  int far = -1;
  ASSERT_EQ(openpty(&far, &terminal, nullptr, nullptr, nullptr), 0);
  fcntl(far, F_SETFD, FD_CLOEXEC);
  start(terminal, terminal);
  close(terminal);
  report("ring");
  close(far);
  EXPECT_EQ(studio_->waitForEnd(), 0);
}

TEST_F(StudioTest, NothingOutlivesAKilledStudio) {
  start();
  report("ring");
  const auto started = children();
  studio_->sendSignal(SIGKILL);
  EXPECT_EQ(studio_->waitForEnd(), -SIGKILL);
  expectNothingLeft(started);
}

TEST(ServiceProcess, ThatDoesNotStartSaysSo) {
  const auto starting = [](const char* program) {
    return [=] {
      const studio::ServiceProcess process({program, "name", "/tmp", {}, 2}, [](auto) { ADD_FAILURE(); });
    };
  };
  EXPECT_THAT(starting("/nowhere/service"), ThrowsMessage<std::runtime_error>(HasSubstr("No such file")));
  EXPECT_THAT(starting("/bin/false"), ThrowsMessage<std::runtime_error>(HasSubstr("ended at its start")));
}

}  // namespace
