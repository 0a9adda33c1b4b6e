// The reference studio: the host's commands to the stage, and its reports to the host.
#pragma once

#include <glib.h>

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "app/commands.h"
#include "app/guest_board.h"
#include "app/host_audio.h"
#include "app/options.h"
#include "app/output.h"
#include "app/prompt.h"
#include "app/service_output.h"
#include "app/show.h"
#include "app/snapshots.h"
#include "app/wav_recorder.h"
#include "stage/loop.h"
#include "studio/stage.h"

namespace studio {

class Studio : public Stage::Listener, public Show::Sink {
 public:
  explicit Studio(Options options);
  ~Studio() override;

  /// Runs until the host, a signal or a failure ends it; answers the exit status.
  int run();

 private:
  using Json = nlohmann::ordered_json;
  using Number = Stage::Number;
  struct Recording {
    Number guest = 0;
    std::string file;
    std::shared_ptr<WavRecorder> recorder;
  };

  // The stage's reports, on the main loop.
  void onReady(const std::string& link) override;
  void onRing(const Stage::Guest& guest) override;
  void onChanged(const Stage::Guest& guest) override;
  void onGone(Number guest, const std::string& name) override;
  void onChat(Number guest, const std::string& name, const std::string& text,
              const std::string& uuid) override;
  void onFavourite(Number guest, const std::string& uuid, const std::string& state) override;
  void onTalkLeftOut(std::size_t lines) override;
  void onServiceLost(Number guest, const std::string& reason) override;
  void onServiceBack(Number guest) override;
  void onSessionServerLost(const std::string& reason) override;
  void onSessionServerBack() override;
  void onLog(Number guest, std::string_view line) override;
  void onFailed(const std::string& reason) override;

  // The stage's pictures and sound, on threads of its own.
  void onFrame(Number guest, Stage::Kind kind, Frame frame) override;
  void onSound(Number guest, std::span<const std::int16_t> block) override;
  void onProgramSound(std::span<const std::int16_t>) override {}
  void onHostSound(std::span<const std::int16_t> block) override { monitor_.play(block); }
  void onLevels(std::span<const Stage::Level> levels) override;

  // On the show's threads.
  bool showWanted() override;
  bool showPicture(IOSurfaceRef surface) override;
  void showSound(std::span<const std::int16_t> samples) override;

  // The host's commands, on the main loop.
  void openPrompt();
  void onLine(const std::string& line);
  void run(const Command& command);
  void runForGuest(const Command& command);
  void runForGuest(Verb verb, const Stage::Guest& guest, const Command& command);
  void say(Verb verb, const Command& command);
  void talk(const Command& command);
  void snapshot(Number guest, const std::string& file);
  void recordAudio(Number guest, double seconds, const std::string& file);
  void playShow(const std::string& source);
  void printGuests();
  void printLink(const std::string& link);

  void event(const char* name, const Json& fields);
  void fail(const std::string& reason);
  void quit();
  void quitWhenDone();
  void shutDown();

  const Options options_;
  Output output_;
  GMainLoop* loop_;
  Loop mainLoop_;
  guint signals_[2] = {0, 0};
  int status_ = 0;
  bool quitting_ = false;
  bool inputEnded_ = false;
  bool printLog_;
  bool onAir_ = false;

  ServiceOutput serviceOutput_;
  GuestBoard board_;
  Snapshots snapshots_;
  std::mutex recordingsMutex_;
  std::list<Recording> recordings_;
  std::unique_ptr<Show> show_;
  std::unique_ptr<Prompt> prompt_;
  Monitor monitor_;
  Microphone microphone_{[this](std::span<const std::int16_t> samples) {
    if (Stage* const stage = playing_) stage->hostSound(samples);
  }};
  std::atomic<Stage*> playing_{nullptr};  // for the show's threads, which end before it
  std::unique_ptr<Stage> stage_;
};

}  // namespace studio
