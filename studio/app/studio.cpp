#include "app/studio.h"

#include <fmt/format.h>
#include <gio/gio.h>
#include <glib-unix.h>
#include <signal.h>

#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace studio {

namespace {

using std::chrono::milliseconds;

// After the connection is lost, a service that still runs is given this long to end.
constexpr milliseconds serviceEndLimit(2000);
// After the process has ended, what it still said is given this long to arrive.
constexpr milliseconds lastWordsLimit(500);
constexpr milliseconds exitLimit(3000);
constexpr milliseconds forgetInterval(5000);

// Short, since it becomes a part of a socket's path.
std::string uniqueServiceName() {
  return "com.zarvo.guest-service." + unguessable().substr(0, 8);
}

// Where sockets of services are made, as the XPC client looks for them.
std::filesystem::path runtimeDirectory() {
  const char* directory = std::getenv("XDG_RUNTIME_DIR");
  return directory ? directory : "";
}

}  // namespace

Studio::Studio(Options options)
    : options_(std::move(options)),
      loop_(g_main_loop_new(nullptr, FALSE)),
      room_{unguessable(), unguessable(), {unguessable(), unguessable()}},
      serviceName_(options_.running.empty() ? uniqueServiceName() : options_.running),
      serviceOutput_([this](const std::string& line) { output_.note("service: " + line); }),
      printLog_(options_.log) {
  if (runtimeDirectory().empty() && options_.running.empty()) {
    setenv("XDG_RUNTIME_DIR", directory_.path().c_str(), 1);
  }
  output_.closed = [this] { quit(); };
}

Studio::~Studio() {
  g_main_loop_unref(loop_);
}

int Studio::run() {
  signal(SIGPIPE, SIG_IGN);
  int index = 0;
  for (const int number : {SIGINT, SIGTERM}) {
    signals_[index++] = g_unix_signal_add(
        number,
        [](gpointer self) -> gboolean {
          static_cast<Studio*>(self)->quit();
          return G_SOURCE_CONTINUE;
        },
        this);
  }
  if (ownAddress().empty()) {
    output_.note(
        "This machine has no network address besides loopback; guests' pictures and sound need one to travel "
        "over.");
  }
  try {
    output_.note("Starting the session server ...");
    janus_ = std::make_unique<JanusServer>(JanusServer::Settings{options_.janus, options_.janusPort, room_},
                                           *this);
    web_ = std::make_unique<WebServer>(WebServer::Settings{
        options_.listen, options_.port, options_.web, janus_->url(), options_.certificate, options_.key});
    guestLink_ = fmt::format("{}#room={}&token={}", web_->pageUrl(), room_.id, room_.tokens[1]);
    show_ = std::make_unique<Show>(Show::Settings{options_.width, options_.height, options_.framesPerSecond},
                                   *this, [this](const std::string& state, const std::string& text) {
                                     if (!show_) return;
                                     event("show", {{"state", state}, {"source", show_->source()}});
                                     output_.note("The show: " + text);
                                   });
    janus_->start();
  } catch (const std::exception& error) {
    fail(error.what());
  }
  if (!quitting_) g_main_loop_run(loop_);
  shutDown();
  return status_;
}

void Studio::onRoomReady() {
  const std::shared_ptr<Client> known = client();
  if (known) {
    output_.note("The session server is back: joining again.");
    join();
  } else if (!service_ && !prompt_) {
    output_.note(options_.running.empty() ? "Starting the guest service ..."
                                          : "Looking for the guest service ...");
    startService();
  }
}

void Studio::onJanusEnded(const std::string& reason) {
  event("sessionServerEnded", {{"reason", reason}});
  output_.note("The session server was " + reason + "; it is being started anew.");
}

void Studio::onJanusFailed(const std::string& reason) {
  fail(reason);
}

void Studio::startService() {
  serviceEnd_.reset();
  serviceLost_ = false;
  if (options_.running.empty()) {
    ServiceProcess::Settings settings;
    settings.executable = options_.service;
    settings.name = serviceName_;
    settings.runtimeDirectory = runtimeDirectory();
    settings.environment = {{"ZARVO_SESSION_SERVER", janus_->url()}};
    settings.output = serviceOutput_.childEnd();
    try {
      service_ = std::make_unique<ServiceProcess>(
          settings, [this](ServiceProcess::End end) { onMainLoop([this, end] { onServiceEnded(end); }); });
    } catch (const std::exception& error) {
      serviceOutput_.drain();
      fail(error.what());
      return;
    }
  }
  connect();
  if (!prompt_) openPrompt();
}

void Studio::connect() {
  setClient(std::make_shared<Client>(serviceName_, *this));
  sendInit();
  client()->there([this](bool alive) {
    onMainLoop([this, alive] {
      if (alive) pause_.works(std::chrono::steady_clock::now());
    });
  });
  // A fresh service knows nothing of the show.
  if (onAir_) client()->liveStatus(onAir_, recordOnly_);
  if (offAirAudio_) client()->setOffAirAudio(true);
}

void Studio::join() {
  if (!client()) return;  // whoever connects joins
  board_.allGone();
  guestsChanged();
  sendInit();
}

void Studio::sendInit() {
  rejoinAfter_.reset();
  rejoinTimer_.stop();
  client()->init(room_.id, room_.tokens[0]);
  event("joining", {{"sessionId", room_.id}});
}

void Studio::openPrompt() {
  if (const std::string fault = show_->play(options_.show); !fault.empty()) {
    output_.note(fmt::format("The show cannot be played: {}", fault));
  }
  event("ready", {{"link", guestLink_}});
  printLink();
  output_.note("\"guests\" lists the guests, \"help\" all commands.");
  forgetTimer_.every(forgetInterval, [this] { forgetGuests(); });
  prompt_ = Prompt::open(
      output_, [this](const std::string& line) { onLine(line); },
      [this] {
        inputEnded_ = true;
        quitWhenDone();
      });
}

void Studio::printLink() {
  output_.note("Guests ring in at  " + guestLink_);
  const bool local = options_.listen == "127.0.0.1" || options_.listen == "::1";
  if (!local && options_.certificate.empty()) {
    output_.note(
        "Browsers on other machines give no camera to a page without TLS: see --certificate and --key.");
  }
}

// Both the connection and the process tell of the service's end, in either order. The connection has brought
// everything that the service said when it tells; so both are waited for, the second not for ever.
void Studio::onServiceLost(Client::Loss loss, const Client* from) {
  if (quitting_ || !from || from != client().get()) return;
  if (loss == Client::Loss::terminating) {
    output_.note("The service has been asked to end.");
    return;
  }
  serviceLost_ = true;
  lossReason_ = loss == Client::Loss::invalid ? "cannot be reached" : "has closed the connection";
  if (!service_ || serviceEnd_) {
    serviceGone();
    return;
  }
  serviceTimer_.once(serviceEndLimit, [this] {
    output_.note("The service has closed the connection, and still runs; it is ended.");
    service_.reset();  // and so its end is told
  });
}

void Studio::onServiceEnded(ServiceProcess::End end) {
  serviceEnd_ = end;
  if (quitting_) return;
  if (serviceLost_) {
    serviceGone();
  } else {
    serviceTimer_.once(lastWordsLimit, [this] { serviceGone(); });
  }
}

void Studio::serviceGone() {
  setClient(nullptr);
  service_.reset();
  serviceOutput_.drain();
  board_.serviceEnded();
  guestsChanged();
  const std::string reason = serviceEnd_ ? serviceEnd_->describe() : lossReason_;
  event("serviceEnded", {{"reason", reason}, {"lastLog", lastLog_}});
  output_.note(fmt::format("The service {}{}", reason,
                           lastLog_.empty() ? "." : fmt::format("; its last words: {}", lastLog_)));
  lastLog_.clear();
  output_.note(options_.running.empty() ? "Starting it anew and joining again."
                                        : "Joining again as soon as it is back.");
  serviceTimer_.once(pause_.ended(std::chrono::steady_clock::now()), [this] { startService(); });
}

void Studio::setClient(std::shared_ptr<Client> client) {
  {
    const std::lock_guard lock(clientMutex_);
    client_.swap(client);
  }
  // The former one goes here, without the lock: that waits for its listener's calls.
}

std::shared_ptr<Client> Studio::client() const {
  const std::lock_guard lock(clientMutex_);
  return client_;
}

void Studio::event(const char* name, const Json& fields) {
  Json event = {{"event", name}};
  event.update(fields);
  output_.event(event);
}

void Studio::fail(const std::string& reason) {
  output_.note("zarvo-studio: " + reason);
  status_ = 1;
  quit();
}

void Studio::quit() {
  quitting_ = true;
  g_main_loop_quit(loop_);
}

// At the end of the input what was asked for is still done.
void Studio::quitWhenDone() {
  if (inputEnded_ && recordings_.empty() && !snapshots_.pending()) quit();
}

void Studio::shutDown() {
  quitting_ = true;
  for (const guint source : signals_) {
    if (source != 0) g_source_remove(source);
  }
  prompt_.reset();
  output_.note("Ending ...");
  show_.reset();
  if (const std::shared_ptr<Client> last = client()) {
    last->exit();
    Timer limit;
    bool late = false;
    limit.once(exitLimit, [&late] { late = true; });
    while (service_ && !serviceEnd_ && !late) g_main_context_iteration(nullptr, TRUE);
  }
  setClient(nullptr);
  recordings_.clear();  // nobody adds to them any more
  service_.reset();
  serviceOutput_.drain();
  web_.reset();
  janus_.reset();
}

}  // namespace studio
