#include "app/studio.h"

#include <fmt/format.h>
#include <gio/gio.h>
#include <glib-unix.h>
#include <signal.h>

#include <stdexcept>
#include <utility>

#include "stage/web_server.h"

namespace studio {

namespace {

Stage::Settings stageSettings(const Options& options, int serviceOutput) {
  Stage::Settings settings;
  settings.address = options.listen;
  settings.port = options.port;
  settings.page = options.web;
  settings.certificate = options.certificate;
  settings.key = options.key;
  settings.janus = options.janus;
  settings.janusPort = options.janusPort;
  settings.service = options.service;
  settings.serviceOutput = serviceOutput;
  settings.ledger = options.ledger;
  settings.seats = options.seats;
  settings.requestsAMinute = options.requestsAMinute;
  settings.awayLimit = std::chrono::seconds(options.awaySeconds);
  return settings;
}

}  // namespace

Studio::Studio(Options options)
    : options_(std::move(options)),
      loop_(g_main_loop_new(nullptr, FALSE)),
      printLog_(options_.log),
      serviceOutput_([this](const std::string& line) { output_.note("service: " + line); }) {
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
  if (const std::string fault = monitor_.open(options_.monitor); !fault.empty()) {
    output_.note("The host hears nothing: " + fault);
  }
  try {
    output_.note("Starting the session server ...");
    stage_ = std::make_unique<Stage>(stageSettings(options_, serviceOutput_.childEnd()), *this);
    playing_ = stage_.get();
    show_ = std::make_unique<Show>(Show::Settings{options_.width, options_.height, options_.framesPerSecond},
                                   *this, [this](const std::string& state, const std::string& text) {
                                     if (!show_) return;
                                     event("show", {{"state", state}, {"source", show_->source()}});
                                     output_.note("The show: " + text);
                                   });
  } catch (const std::exception& error) {
    fail(error.what());
  }
  if (!quitting_) g_main_loop_run(loop_);
  shutDown();
  return status_;
}

void Studio::openPrompt() {
  if (const std::string fault = show_->play(options_.show); !fault.empty()) {
    output_.note(fmt::format("The show cannot be played: {}", fault));
  }
  if (const std::string fault = microphone_.open(options_.microphone); !fault.empty()) {
    output_.note("The host's microphone cannot be used: " + fault);
  }
  output_.note("\"guests\" lists the guests, \"help\" all commands.");
  prompt_ = Prompt::open(
      output_, [this](const std::string& line) { onLine(line); },
      [this] {
        inputEnded_ = true;
        quitWhenDone();
      });
}

void Studio::printLink(const std::string& link) {
  output_.note("Guests ring in at  " + link);
  const bool local = options_.listen == "127.0.0.1" || options_.listen == "::1";
  if (!local && options_.certificate.empty()) {
    output_.note(
        "Browsers on other machines give no camera to a page without TLS: see --certificate and --key.");
  }
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
  microphone_.open("off");
  playing_ = nullptr;
  stage_.reset();
  recordings_.clear();  // nobody adds to them any more
  serviceOutput_.drain();
}

}  // namespace studio
