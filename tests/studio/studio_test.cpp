// The studio as a program, with a real session server and a service that plays its part.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "child.h"
#include "studio/service_process.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::HasSubstr;

std::string contentOf(const fs::path& file) {
  std::ostringstream text;
  text << std::ifstream(file).rdbuf();
  return text.str();
}

class Program {
 public:
  explicit Program(const TemporaryFolder& directory) {
    fs::create_directory(directory / "temporary");
    int in[2];
    int out[2];
    EXPECT_EQ(pipe2(in, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    const int notes = open((directory / "notes").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    process_.emplace(
        std::vector<std::string>{ZARVO_STUDIO, "--service", STUB_SERVICE, "--web", ZARVO_WEB, "--show",
                                 "videotestsrc is-live=true", "--width", "64", "--height", "64"},
        std::map{std::pair(0, in[0]), {1, out[1]}, {2, notes}}, [&] {
          setenv("TMPDIR", (directory / "temporary").c_str(), 1);
          unsetenv("XDG_RUNTIME_DIR");
        });
    for (const int descriptor : {in[0], out[1], notes}) close(descriptor);
    in_ = in[1];
    out_ = out[0];
  }
  ~Program() {
    closeInput();
    close(out_);
  }

  void say(const std::string& line) const {
    const std::string text = line + "\n";
    ASSERT_EQ(write(in_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void closeInput() {
    if (in_ >= 0) close(std::exchange(in_, -1));
  }

  /// The next report of that name; an empty object when none comes.
  json report(const std::string& name) {
    const auto end = std::chrono::steady_clock::now() + kDeadline;
    for (;;) {
      for (std::size_t line = 0; (line = unread_.find('\n')) != std::string::npos;) {
        json event = json::parse(unread_.substr(0, line), nullptr, false);
        unread_.erase(0, line + 1);
        EXPECT_TRUE(event.is_object()) << "every line is a JSON object";
        if (event.value("event", "") == name) return event;
      }
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      pollfd waiting{out_, POLLIN, 0};
      char piece[4096];
      const bool ready = left.count() > 0 && poll(&waiting, 1, static_cast<int>(left.count())) > 0;
      const ssize_t count = ready ? read(out_, piece, sizeof piece) : 0;
      if (count <= 0) {
        ADD_FAILURE() << "no report \"" << name << "\"";
        return json::object();
      }
      unread_.append(piece, static_cast<std::size_t>(count));
    }
  }

  Child& process() { return *process_; }

  std::vector<pid_t> children() const {
    std::vector<pid_t> found;
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(process_->pid()) + "/task")) {
      std::ifstream list(task.path() / "children");
      for (pid_t child = 0; list >> child;) found.push_back(child);
    }
    return found;
  }

 private:
  std::optional<Child> process_;
  int in_;
  int out_;
  std::string unread_;
};

class StudioTest : public testing::Test {
 protected:
  StudioTest() { signal(SIGPIPE, SIG_IGN); }
  ~StudioTest() override {
    if (HasFailure()) ADD_FAILURE() << "the studio's notes:\n" << contentOf(directory_ / "notes");
  }

  // Whose parent has ended belongs to init, which may take a moment to notice.
  static void expectNothingLeft(const std::vector<pid_t>& children) {
    for (const pid_t child : children) {
      EXPECT_TRUE(eventually([&] {
        const std::string state = contentOf("/proc/" + std::to_string(child) + "/stat");
        return state.empty() || state.find(") Z ") != std::string::npos;
      })) << child;
    }
  }

  TemporaryFolder directory_;
  Program studio_{directory_};
};

TEST_F(StudioTest, FromTheLinkToTheEndOfInput) {
  EXPECT_THAT(studio_.report("ready").value("link", ""),
              testing::MatchesRegex("http://127.0.0.1:[0-9]+/#room=[0-9a-f]{32}&token=[0-9a-f]{32}"));
  EXPECT_EQ(studio_.report("ring").value("ring", ""), "abc");
  studio_.say("admit a");
  studio_.say("guests");
  EXPECT_EQ(studio_.report("guests").at("guests").at(0).value("state", ""), "green room");

  // The last guest ends the session: the studio joins anew, and who is there rings again.
  studio_.say("remove #1");
  EXPECT_EQ(studio_.report("dropped").value("dropped", ""), "abc");
  EXPECT_EQ(studio_.report("ring").value("ring", ""), "abc");

  studio_.say("nonsense");
  studio_.say("admit nobody");
  const auto children = studio_.children();
  EXPECT_EQ(children.size(), 2u) << "the session server and the service";
  studio_.closeInput();
  EXPECT_EQ(studio_.process().waitForEnd(), 0);
  EXPECT_THAT(contentOf(directory_ / "notes"), HasSubstr("there is no command \"nonsense\""));
  EXPECT_THAT(contentOf(directory_ / "notes"), HasSubstr("no guest is called \"nobody\""));
  expectNothingLeft(children);
  EXPECT_TRUE(fs::is_empty(directory_ / "temporary"));
}

TEST_F(StudioTest, AServiceThatEndsIsStartedAnew) {
  studio_.report("ring");
  studio_.say("chat Host: die");
  const json end = studio_.report("serviceEnded");
  EXPECT_EQ(end.value("reason", ""), "killed by signal 9 (Killed)");
  EXPECT_EQ(end.value("lastLog", ""), "the last words");
  EXPECT_EQ(studio_.report("ring").value("ring", ""), "abc");

  studio_.say("chat Host: leave");
  EXPECT_EQ(studio_.report("serviceEnded").value("reason", ""), "ended with status 3");
  studio_.report("ring");
  studio_.say("there");
  EXPECT_TRUE(studio_.report("there").value("alive", false));
  studio_.process().sendSignal(SIGTERM);
  EXPECT_EQ(studio_.process().waitForEnd(), 0);
  EXPECT_TRUE(fs::is_empty(directory_ / "temporary"));
}

TEST_F(StudioTest, ASessionServerThatEndsIsStartedAnewAndJoined) {
  studio_.report("ring");
  for (const pid_t child : studio_.children()) {
    if (contentOf("/proc/" + std::to_string(child) + "/comm") == "janus\n") kill(child, SIGKILL);
  }
  EXPECT_THAT(studio_.report("sessionServerEnded").value("reason", ""), HasSubstr("signal 9"));
  studio_.report("joining");
  EXPECT_EQ(studio_.report("ring").value("ring", ""), "abc");
}

TEST_F(StudioTest, NothingOutlivesAKilledStudio) {
  studio_.report("ring");
  const auto children = studio_.children();
  EXPECT_EQ(children.size(), 2u);
  studio_.process().sendSignal(SIGKILL);
  EXPECT_EQ(studio_.process().waitForEnd(), -SIGKILL);
  expectNothingLeft(children);
}

TEST(ServiceProcess, ThatDoesNotStartSaysSo) {
  const auto start = [](const char* program) -> std::string {
    try {
      const studio::ServiceProcess process({program, "name", "/tmp", {}, 2}, [](auto) { ADD_FAILURE(); });
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "it started";
  };
  EXPECT_THAT(start("/nowhere/service"), HasSubstr("No such file"));
  EXPECT_THAT(start("/bin/false"), HasSubstr("ended at its start"));
}

}  // namespace
