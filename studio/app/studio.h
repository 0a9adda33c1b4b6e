// The reference studio: conducts the session server, the service, the show and the host's commands.
#pragma once

#include <glib.h>

#include <atomic>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "app/commands.h"
#include "app/guest_board.h"
#include "app/janus_server.h"
#include "app/main_loop.h"
#include "app/options.h"
#include "app/output.h"
#include "app/prompt.h"
#include "app/restart_pause.h"
#include "app/service_output.h"
#include "app/show.h"
#include "app/snapshots.h"
#include "app/talk_limit.h"
#include "app/wav_recorder.h"
#include "app/web_server.h"
#include "studio/client.h"
#include "studio/service_process.h"

namespace studio {

class Studio : public Client::Listener, public JanusServer::Listener, public Show::Sink {
 public:
  explicit Studio(Options options);
  ~Studio() override;

  /// Runs until the host, a signal or a failure ends it; answers the exit status.
  int run();

 private:
  using Json = nlohmann::ordered_json;
  struct Recording {
    std::string guest;
    std::string file;
    bool spoiled = false;  // somebody else was heard, too
    std::shared_ptr<WavRecorder> recorder;
  };

  // On the client's queue.
  void onRing(const Ring& ring) override;
  void onAudioChanged(const AudioChanged& change) override;
  void onDropped(const Dropped& dropped) override;
  void onChat(const Chat& chat) override;
  void onFavourite(const Favourite& favourite) override;
  void onFrame(Frame frame) override;
  void onSound(const Sound& sound) override;
  void onLogLine(std::string_view line) override;
  void onFatalError(std::string_view text) override;
  void onRefused(std::string_view reason) override;
  void onLost(Client::Loss loss) override;

  // On the show's threads.
  bool showWanted() override;
  bool showPicture(IOSurfaceRef surface) override;
  void showSound(std::span<const std::int16_t> samples) override;

  // On the main loop, as is all that follows.
  void onRoomReady() override;
  void onJanusEnded(const std::string& reason) override;
  void onJanusFailed(const std::string& reason) override;

  // The service's life.
  void startService();
  void connect();
  void join();
  void sendInit();
  void onServiceLost(Client::Loss loss, const Client* from);
  void onServiceEnded(ServiceProcess::End end);
  void serviceGone();
  void setClient(std::shared_ptr<Client> client);
  std::shared_ptr<Client> client() const;

  // The host's commands.
  void openPrompt();
  void onLine(const std::string& line);
  void run(const Command& command);
  void runForGuest(Verb verb, const GuestRow& row);
  void remove(const GuestRow& row);
  bool bringIn(const std::string& id);
  void putBack(const std::string& id, const GuestPlace& place);
  void announce(const std::string& id);
  void forgetGuests();
  bool passOn(std::string_view name);
  void tellOfTalk();
  void say(Verb verb, const Command& command);
  void snapshot(const std::string& id, const std::string& file);
  void recordAudio(const std::string& id, double seconds, const std::string& file);
  void guestsChanged();
  void setShowState(bool onAir, bool recordOnly);
  void playShow(const std::string& source);
  void printGuests();
  void printLink();

  void event(const char* name, const Json& fields);
  void fail(const std::string& reason);
  void quit();
  void quitWhenDone();
  void shutDown();

  const Options options_;
  Output output_;
  GMainLoop* loop_;
  guint signals_[2] = {0, 0};
  int status_ = 0;
  bool quitting_ = false;
  bool inputEnded_ = false;

  const Room room_;
  std::string guestLink_;
  PrivateDirectory directory_;
  std::unique_ptr<JanusServer> janus_;
  std::unique_ptr<WebServer> web_;

  std::string serviceName_;
  ServiceOutput serviceOutput_;
  std::unique_ptr<ServiceProcess> service_;
  std::optional<ServiceProcess::End> serviceEnd_;
  bool serviceLost_ = false;
  std::string lossReason_;
  Timer serviceTimer_;  // what follows when the service is gone
  RestartPause pause_;
  std::string lastLog_;
  mutable std::mutex clientMutex_;
  std::shared_ptr<Client> client_;

  GuestBoard board_;
  bool onAir_ = false;
  bool recordOnly_ = false;
  bool offAirAudio_ = false;
  std::optional<std::string> rejoinAfter_;  // the last guest, who is being removed
  Timer rejoinTimer_;                       // from their removal to the next join
  std::atomic<bool> anybodyIn_{false};
  std::atomic<bool> printLog_;
  std::deque<std::string> ownLines_;
  Timer forgetTimer_;
  TalkLimit talk_;                            // used on the client's queue
  std::atomic<std::size_t> linesLeftOut_{0};  // since the host was told
  std::size_t linesSeen_ = 0;                 // of these, when last looked at
  Timer talkTimer_;

  std::unique_ptr<Show> show_;
  Snapshots snapshots_;
  std::mutex recordingsMutex_;
  std::list<Recording> recordings_;
  std::unique_ptr<Prompt> prompt_;
};

}  // namespace studio
