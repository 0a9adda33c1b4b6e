// The studio of the measurements with real guests: a real session server, service and engine. It brings in
// whoever rings, sends the test picture with the time painted into it, and tells each second how many
// pictures came and how old the times in them were. "leave" and "join" on standard input are what they say;
// its end ends the program. It speaks in lines of JSON.

#include <fmt/format.h>
#include <gst/gst.h>
#include <studio/client.h>
#include <studio/service_process.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "app/show.h"
#include "stage/janus_server.h"
#include "stage/loop.h"
#include "stage/private_directory.h"
#include "stage/rooms.h"
#include "stage/web_server.h"
#include "time_code.h"

namespace bench {

namespace {

using nlohmann::json;

void say(const json& line) {
  std::cout << line.dump() << std::endl;
}

class MediaStudio final : public studio::Client::Listener,
                          public studio::JanusServer::Listener,
                          public studio::WebServer::Listener,
                          public studio::Show::Sink {
 public:
  MediaStudio()
      : room_(studio::Room::unguessable(2)),
        janus_({"janus", 0}, *this),
        web_({"127.0.0.1", 0, WEB_DIRECTORY, janus_.url(), {}, {}}, *this),
        show_({}, *this, [](const std::string&, const std::string& text) { std::cerr << text << '\n'; }) {
    setenv("XDG_RUNTIME_DIR", directory_.path().c_str(), 1);
    room_.publishers = kMostStreams;
    janus_.start();
  }

  void join() { client_->init(room_.id, room_.tokens[0]); }
  void leave() { client_->stop(); }

 private:
  void onServing(studio::Rooms& rooms) override {
    rooms.make(room_, [this](const std::string& fault) { fault.empty() ? start() : onJanusFailed(fault); });
  }
  void start() {
    service_ = std::make_unique<studio::ServiceProcess>(
        studio::ServiceProcess::Settings{studio::besideThisProgram("zarvo-guest-service"),
                                         kServiceName,
                                         directory_.path(),
                                         {{"ZARVO_SESSION_SERVER", janus_.url()}}},
        [](studio::ServiceProcess::End end) { std::cerr << "the service " << end.describe() << '\n'; });
    client_ = std::make_unique<studio::Client>(kServiceName, *this);
    if (const std::string fault = show_.play("test"); !fault.empty()) onJanusFailed(fault);
    eachSecond_.every(std::chrono::seconds(1), [this] { tellFrames(); });
    say({{"link", fmt::format("{}#room={}&token={}", web_.pageUrl(), room_.id, room_.tokens[1])},
         {"room", room_.id},
         {"secret", room_.secret},
         {"service", service_->pid()}});
  }
  void onJanusEnded(const std::string& reason) override { onJanusFailed(reason); }
  void onJanusFailed(const std::string& reason) override {
    std::cerr << "zarvo-bench-studio: " << reason << '\n';
    std::exit(1);
  }

  // All guests are in one room, and each of their connections is as good as a seat.
  std::optional<std::uint32_t> seatOf(std::string_view) override { return ++connections_; }
  void onPage(SoupWebsocketConnection*, const std::string&) override {}

  bool showWanted() override { return client_ != nullptr; }
  bool showPicture(IOSurfaceRef surface) override {
    paintTime(surface);
    return client_->videoFrame(surface);
  }
  void showSound(std::span<const std::int16_t> samples) override { client_->audioData(samples); }

  void onRing(const studio::Ring& ring) override {
    client_->startBroadcast(std::string(ring.id));
    say({{"ring", ring.id}, {"name", ring.name}});
  }
  void onFrame(studio::Frame frame) override {
    const std::optional<double> age = ageOf(frame.plane(0));
    const std::lock_guard lock(frames_);
    ++frameCount_;
    if (age) ages_.push_back(*age);
  }
  void onSound(const studio::Sound&) override {}
  void onAudioChanged(const studio::AudioChanged&) override {}
  void onDropped(const studio::Dropped&) override {}
  void onChat(const studio::Chat&) override {}
  void onFavourite(const studio::Favourite&) override {}
  void onLogLine(std::string_view) override {}
  void onFatalError(std::string_view text) override { std::cerr << text << '\n'; }
  void onRefused(std::string_view reason) override { std::cerr << reason << '\n'; }
  void onLost(studio::Client::Loss) override { onJanusFailed("the service is lost"); }

  void tellFrames() {
    const std::lock_guard lock(frames_);
    say({{"frames", std::exchange(frameCount_, 0)}, {"ages", std::exchange(ages_, {})}});
  }

  static constexpr char kServiceName[] = "bench";
  static constexpr int kMostStreams = 64;

  studio::PrivateDirectory directory_;
  studio::Room room_;
  std::uint32_t connections_ = 0;
  std::mutex frames_;
  int frameCount_ = 0;
  std::vector<double> ages_;
  studio::JanusServer janus_;
  studio::WebServer web_;
  std::unique_ptr<studio::ServiceProcess> service_;
  std::unique_ptr<studio::Client> client_;
  studio::Timer eachSecond_;
  studio::Show show_;  // last: it plays to the client
};

void obeyInput(MediaStudio& studio, const studio::Loop& main, GMainLoop* loop) {
  for (std::string line; std::getline(std::cin, line);) {
    if (line == "join") main.post([&] { studio.join(); });
    if (line == "leave") main.post([&] { studio.leave(); });
  }
  main.post([loop] { g_main_loop_quit(loop); });
}

}  // namespace

}  // namespace bench

int main() {
  gst_init(nullptr, nullptr);
  GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
  try {
    bench::MediaStudio studio;
    const studio::Loop main;
    std::thread input(bench::obeyInput, std::ref(studio), std::cref(main), loop);
    g_main_loop_run(loop);
    input.join();
  } catch (const std::exception& error) {
    std::cerr << "zarvo-bench-studio: " << error.what() << '\n';
    return 1;
  }
  g_main_loop_unref(loop);
}
