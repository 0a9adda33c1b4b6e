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
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "child.h"
#include "guest_page.h"
#include "stage/janus_client.h"
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
    connectReports();
  }
  void connectReports() {
    int ends[2];  // the test's, and the studio's for its input and output
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const timeval deadline{kDeadline.count(), 0};
    setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
    reports_ = fdopen(ends[0], "r");
    studioEnd_ = ends[1];
  }
  ~StudioTest() override { fclose(reports_); }

  // Takes its commands from the test, or from `input`, and reports to the test.
  void start(int input = -1, int errors = STDERR_FILENO, const std::string& state = "") {
    begin(studio_, state, input < 0 ? studioEnd_ : input, errors);
    close(std::exchange(studioEnd_, -1));
    link_ = report("ready").value("link", "");
  }
  void begin(std::optional<Child>& studio, const std::string& state, int input, int errors) {
    studio.emplace(
        std::vector<std::string>{ZARVO_STUDIO, "--service", STUB_SERVICE, "--web", ZARVO_WEB, "--show",
                                 "videotestsrc is-live=true", "--width", "64", "--height", "64", "--state",
                                 state, "--port", port_, "--janus-port", janusPort_, "--away", "2"},
        std::map<int, int>{{0, input}, {1, studioEnd_}, {2, errors}}, [&] {
          setenv("TMPDIR", (directory_ / "temporary").c_str(), 1);
          unsetenv("XDG_RUNTIME_DIR");
        });
  }
  static std::string freePort() {
    g_autoptr(GSocketListener) listener = g_socket_listener_new();
    return std::to_string(g_socket_listener_add_any_inet_port(listener, nullptr, nullptr));
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
    const auto end = std::chrono::steady_clock::now() + kDeadline;
    for (json event = next(); !event.empty() && std::chrono::steady_clock::now() < end; event = next()) {
      if (event.value("event", "") == name) return event;
    }
    ADD_FAILURE() << "no report \"" << name << "\"";
    return json::object();
  }

  // A guest who has asked for a seat; `seat_` is what they were given.
  std::unique_ptr<GuestPage> guest(const std::string& name) {
    auto page = std::make_unique<GuestPage>(link_);
    page->say({{"ask", {{"invite", link_.substr(link_.find('=') + 1)}, {"name", name}}}});
    seat_ = page->next("seat");
    EXPECT_EQ(report("ring").value("name", ""), name);
    return page;
  }
  std::unique_ptr<GuestPage> back(const json& seat) {
    auto page = std::make_unique<GuestPage>(link_);
    page->say({{"return", {{"key", seat.value("key", "")}}}});
    seat_ = page->next("seat");
    return page;
  }
  // What the service of that guest is told next, sound and pictures apart.
  std::string told(int guest) {
    json log = report("log");
    while (!log.empty() && log.value("guest", -1) != guest) log = report("log");
    return log.value("logMessage", "");
  }
  void expectTold(int guest, std::initializer_list<const char*> lines) {
    for (const char* line : lines) EXPECT_EQ(told(guest), line);
  }
  // Asked of the session server itself.
  bool roomExists(const std::string& room) const {
    std::optional<bool> exists;
    std::optional<studio::JanusClient> client;
    const auto ask = [&](studio::JanusClient::Handle handle) {
      client->request(handle, {{"request", "exists"}, {"room", room}},
                      [&](const json& data, const std::string&) { exists = data.value("exists", false); });
    };
    client.emplace("ws://127.0.0.1:" + janusPort_,
                   studio::JanusClient::Listener{[&] { client->attach("videoroom", ask); },
                                                 [](const std::string& fault) { ADD_FAILURE() << fault; }});
    EXPECT_TRUE(runUntil([&] { return exists.has_value(); }));
    return exists.value_or(false);
  }
  void untilState(int guest, const std::string& state) {
    for (json event = report("guest"); !event.empty(); event = report("guest")) {
      if (event.value("guest", -1) == guest && event.value("state", "") == state) return;
    }
  }

  // All that it has started, once there are so many: the session server and services.
  std::vector<pid_t> children(std::size_t count) const {
    std::vector<pid_t> found;
    EXPECT_TRUE(eventually([&] {
      found.clear();
      for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(studio_->pid()) + "/task")) {
        std::ifstream list(task.path() / "children");
        for (pid_t child = 0; list >> child;) found.push_back(child);
      }
      return found.size() == count;
    })) << found.size();
    return found;
  }
  pid_t sessionServer() const {
    for (const pid_t child : children(4)) {
      std::string name;
      std::ifstream("/proc/" + std::to_string(child) + "/comm") >> name;
      if (name == "janus") return child;
    }
    return -1;
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
  const std::string port_ = freePort();
  const std::string janusPort_ = freePort();
  FILE* reports_;
  int studioEnd_;
  std::string link_;
  json seat_;
};

TEST_F(StudioTest, FromTheLinkToTheEndOfInput) {
  start();
  EXPECT_THAT(link_, testing::MatchesRegex("http://127.0.0.1:[0-9]+/#invite=[0-9a-f]{32}"));
  const auto started = children(3);  // the session server, the program's service, a spare
  const auto ann = guest("Ann");
  EXPECT_EQ(children(4).size(), 4u) << "another spare is started";
  say("invite");
  const std::string other = report("invitation").value("link", "");
  EXPECT_NE(other, link_);
  GuestPage late(link_);
  late.say({{"ask", {{"invite", link_.substr(link_.find('=') + 1)}, {"name", "Bo"}}}});
  EXPECT_EQ(late.next("refused").value("reason", ""), "invitation");
  say("live ann");
  say("guests");
  EXPECT_EQ(report("guests")["guests"][0].value("state", ""), "ringing") << "not without \"admit\"";
  shutdown(fileno(reports_), SHUT_WR);
  EXPECT_EQ(studio_->waitForEnd(), 0);
  expectNothingLeft(started);
  EXPECT_TRUE(fs::is_empty(directory_ / "temporary"));
}

TEST_F(StudioTest, AGuestIsPutBackWhereTheyWere) {
  start();
  say("golive");
  say("viewers 5");
  say("pref {}");
  const auto ann = guest("Ann");
  EXPECT_TRUE(ann->next("program").is_null()) << "who only rings is given no pin";
  say("mute #1");
  expectTold(1, {"RemoteMute yes abc"});
  say("admit Ann");
  say("live 1");
  expectTold(1, {"LiveStatus yes no", "SetOffAirAudio no", "RemoteMute yes abc", "StartBroadcast abc",
                 "PrefUpdate {}", "ViewerCount ", "ViewerCount 5", "GreenroomStatus no abc"});
  EXPECT_EQ(ann->next("program").value("pin", "").size(), 32u);

  // Away: the old stream stays until the new one rings.
  say("comment Host: drop abc");
  untilState(1, "away");
  say("comment Host: ring def");
  expectTold(1, {"CommentText ring def Host", "StopBroadcast abc", "LiveStatus yes no", "SetOffAirAudio no",
                 "RemoteMute yes def", "StartBroadcast def", "GreenroomStatus no def", "PrefUpdate {}",
                 "ViewerCount ", "ViewerCount 5"});

  // One screen, the newest, where the guest is.
  say("comment Host: screen s1");
  expectTold(1, {"CommentText screen s1 Host", "StartBroadcast s1", "GreenroomStatus no s1"});
  say("comment Host: screen s2");
  expectTold(
      1, {"CommentText screen s2 Host", "StopBroadcast s1", "StartBroadcast s2", "GreenroomStatus no s2"});
  say("greenroom #1");
  expectTold(1, {"GreenroomStatus yes def", "GreenroomStatus yes s2"});
  say("comment Host: drop s2");
  expectTold(1, {"CommentText drop s2 Host", "StopBroadcast s2"});
  say("unmute 1");
  expectTold(1, {"RemoteMute no def"});
  say("live 1");
  expectTold(1, {"GreenroomStatus no def"});

  // The host hears a guest alone, who is off the air: their off-air audio is on for as long.
  say("alone 1");
  expectTold(1, {"SetOffAirAudio yes"});
  say("alone off");
  expectTold(1, {"SetOffAirAudio no"});
}

TEST_F(StudioTest, AServiceThatEndsConcernsItsGuestAlone) {
  start();
  const auto ann = guest("Ann");
  const std::string annsRoom = seat_.value("room", "");
  const auto bo = guest("Bo");
  for (const char* line : {"admit 1", "live 1", "mute 1", "admit 2"}) say(line);
  untilState(2, "greenRoom");
  constexpr std::pair<const char*, const char*> ends[] = {{"die", "killed by signal 9 (Killed)"},
                                                          {"leave", "ended with status 3"},
                                                          {"drop all", "has lost its session"}};
  for (const auto& [verb, reason] : ends) {
    say("comment Host: " + annsRoom + " " + verb);
    json event = report("serviceLost");
    EXPECT_EQ(event.value("guest", 0), 1);
    EXPECT_EQ(event.value("reason", ""), reason);
    for (event = next(); event.value("event", "") != "serviceBack"; event = next()) {
      ASSERT_FALSE(event.empty());
      EXPECT_NE(event.value("event", ""), "serviceLost");
      if (event.value("event", "") == "guest") {
        EXPECT_EQ(event.value("guest", 0), 1);
      }
    }
    say("guests");
    const json guests = report("guests")["guests"];
    EXPECT_EQ(guests[0].value("state", ""), "live") << verb;
    EXPECT_EQ(guests[1].value("state", ""), "greenRoom");
  }
}

TEST_F(StudioTest, WhoIsRemovedLeavesNothingBehind) {
  start();
  const auto ann = guest("Ann");
  const json seat = seat_;
  const auto bo = guest("Bo");
  GuestPage session(link_, seat.value("key", ""));
  session.say({{"janus", "create"}, {"transaction", "1"}});
  json message = {{"transaction", "2"}, {"session_id", session.next("data").value("id", std::uint64_t{0})}};
  // Eight handles at a time, counted by what the server says.
  message.update({{"janus", "attach"}, {"plugin", "janus.plugin.videoroom"}});
  std::uint64_t last = 0;
  for (int handle = 0; handle < 8; ++handle) {
    session.say(message);
    last = session.next("data").value("id", std::uint64_t{0});
  }
  message["janus"] = "detach";
  message["handle_id"] = last;
  session.say(message);
  EXPECT_EQ(session.next("sender"), last) << "it says that the handle is no more";
  message["janus"] = "attach";
  message.erase("handle_id");
  session.say(message);
  EXPECT_TRUE(session.next("data").is_object());
  say("admit 1");
  say("admit 2");
  untilState(2, "greenRoom");
  EXPECT_TRUE(bo->next("program").is_null());
  const std::string pin = bo->next("program").value("pin", "");
  const auto before = children(5);
  say("remove ann");
  EXPECT_TRUE(ann->next("removed").is_object());
  EXPECT_EQ(report("gone").value("guest", 0), 1);
  EXPECT_TRUE(session.closed());
  EXPECT_TRUE(GuestPage(link_, seat.value("key", "")).refused());
  GuestPage again(link_);
  again.say({{"return", {{"key", seat.value("key", "")}}}});
  EXPECT_EQ(again.next("refused").value("reason", ""), "seat");
  EXPECT_EQ(children(4).size(), 4u);
  const std::string now = bo->next("program").value("pin", "");
  EXPECT_NE(now, pin) << "the program's pin is another";
  EXPECT_FALSE(roomExists(seat.value("room", "")));
  EXPECT_TRUE(roomExists(seat_.value("room", "")));

  // Who stays away goes likewise.
  say("comment Host: drop abc");
  untilState(2, "away");
  EXPECT_EQ(report("gone").value("guest", 0), 2);
  EXPECT_EQ(children(3).size(), 3u);
}

TEST_F(StudioTest, TalkGoesRoundOnce) {
  start();
  const auto ann = guest("Ann");
  const std::string annsRoom = seat_.value("room", "");
  const auto bo = guest("Bo");
  say("admit 1");
  say("admit 2");
  untilState(2, "greenRoom");
  say("chat Host: hello");
  expectTold(2, {"LiveStatus no no", "SetOffAirAudio no", "StartBroadcast abc", "ViewerCount ",
                 "ChatText hello Host"});
  say("comment Host: " + annsRoom + " write line-1");
  const json line = report("chat");
  EXPECT_EQ(line.value("guest", 0), 1);
  EXPECT_EQ(line.value("name", ""), "Ann") << "the seat's name, whatever the guest says";
  EXPECT_EQ(line.value("uuid", ""), "line-1");
  std::string heard = told(2);
  if (heard.starts_with("CommentText")) heard = told(2);  // the order to Ann's, which goes to all
  EXPECT_EQ(heard, "ChatText from the guest Ann") << "and none of the host's lines for a second time";
  say("comment Host: " + annsRoom + " mark u");
  EXPECT_EQ(report("fav").value("guest", 0), 1);
  for (int flip = 0; flip < 20; ++flip) say(flip % 2 ? "fav u off" : "fav u on");

  // A flood holds nothing up.
  say("comment Host: " + annsRoom + " flood");
  std::size_t passed = 0;
  for (json event = next(); event.value("logMessage", "") != "flooded"; event = next()) {
    ASSERT_FALSE(event.empty());
    EXPECT_NE(event.value("event", ""), "fav") << "the host's own marks are nobody's news";
    passed += event.value("event", "") == "chat" ? 1 : 0;
  }
  EXPECT_GT(passed, 0u);
  EXPECT_LT(passed, 100u);
  EXPECT_EQ(report("talkLeftOut").value("lines", 0u), 3000 - passed);

  // Who comes later gets the last lines.
  const auto cy = guest("Cy");
  say("admit 3");
  expectTold(3, {"LiveStatus no no", "SetOffAirAudio no", "StartBroadcast abc", "ViewerCount "});
  EXPECT_THAT(told(3), testing::StartsWith("ChatText "));
}

TEST_F(StudioTest, AStudioThatComesBackHasTheSameLinkAndSeats) {
  const std::string state = directory_ / "state/lobby.json";
  start(-1, STDERR_FILENO, state);
  const std::string link = link_;
  auto ann = guest("Ann");
  const json seat = seat_;
  for (const char* line : {"admit 1", "live 1", "mute 1"}) say(line);
  untilState(1, "live");

  // The file is one studio's.
  std::optional<Child> second;
  const std::string errors = directory_ / "errors";
  const int file = open(errors.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  begin(second, state, STDERR_FILENO, file);
  EXPECT_EQ(second->waitForEnd(), 1);
  close(file);
  std::ifstream said(errors);
  EXPECT_THAT(std::string(std::istreambuf_iterator<char>(said), {}), HasSubstr("in use by another studio"));

  say("guests");
  report("guests");
  studio_->sendSignal(SIGTERM);
  EXPECT_EQ(studio_->waitForEnd(), 0);
  fclose(reports_);
  connectReports();
  start(-1, STDERR_FILENO, state);
  EXPECT_EQ(link_, link);
  say("guests");
  json guests = report("guests")["guests"];
  ASSERT_EQ(guests.size(), 1u);
  EXPECT_EQ(guests[0].value("state", ""), "away");
  ann = back(seat);
  EXPECT_EQ(seat_.value("number", 0), 1);
  EXPECT_NE(seat_.value("room", ""), seat.value("room", ""));
  expectTold(1, {"LiveStatus no no", "SetOffAirAudio no", "RemoteMute yes abc", "StartBroadcast abc",
                 "GreenroomStatus no abc"});
}

TEST_F(StudioTest, TheSessionServerComesBackWithAllSeats) {
  start();
  const auto ann = guest("Ann");
  const json before = seat_;
  say("admit 1");
  say("live 1");
  untilState(1, "live");
  kill(sessionServer(), SIGKILL);
  report("sessionServerEnded");
  report("sessionServerBack");
  const json seat = ann->next("seat");
  EXPECT_EQ(seat.value("key", ""), before.value("key", ""));
  EXPECT_NE(seat.value("room", ""), before.value("room", ""));
  expectTold(1, {"LiveStatus no no", "SetOffAirAudio no", "StartBroadcast abc", "GreenroomStatus no abc"});
  EXPECT_EQ(children(4).size(), 4u);
  studio_->sendSignal(SIGTERM);
  EXPECT_EQ(studio_->waitForEnd(), 0);
  EXPECT_TRUE(fs::is_empty(directory_ / "temporary"));
}

// A terminal that is not the studio's controlling one sends no SIGHUP when it goes.
TEST_F(StudioTest, ATerminalThatGoesAwayEndsIt) {
  int terminal = -1;
  int far = -1;
  ASSERT_EQ(openpty(&far, &terminal, nullptr, nullptr, nullptr), 0);
  fcntl(far, F_SETFD, FD_CLOEXEC);
  start(terminal, terminal);
  close(terminal);
  close(far);
  EXPECT_EQ(studio_->waitForEnd(), 0);
}

TEST_F(StudioTest, NothingOutlivesAKilledStudio) {
  start();
  const auto ann = guest("Ann");
  const auto started = children(4);
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
