#include "signals.h"

#define GST_USE_UNSTABLE_API
#include <gst/webrtc/webrtc.h>

#include <utility>

#include "log.h"

namespace engine {
namespace {

using namespace std::chrono_literals;

constexpr auto refusalPause = 1s;
constexpr auto answerTime = 10s;
constexpr std::size_t mostWaiting = 256;

std::string dump(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace

Signals::Signals(std::shared_ptr<JanusConnection> janus, Listener& listener, std::string room)
    : janus_(std::move(janus)),
      listener_(listener),
      room_(std::move(room)),
      retry_([this] { openChannel(); }) {}

Signals::~Signals() {
  close();
}

void Signals::close() {
  life_.reset();
  answerDeadline_.stop();
  retry_.stop();
  joined_ = false;
  waiting_.clear();
  peer_.reset();
  g_clear_object(&channel_);
}

void Signals::open(const Access& access, const std::string& ownId) {
  access_ = access;
  ownId_ = ownId;
  openChannel();
}

void Signals::openChannel() {
  if (!janus_->isOpen()) return;  // once it is, networkIsBack is called
  life_ = std::make_shared<int>();
  joined_ = false;
  peer_ = std::make_shared<Peer>(janus_, static_cast<Peer::Listener&>(*this));
  g_clear_object(&channel_);
  peer_->acceptOffersWith({{"request", "ack"}});
  peer_->open("janus.plugin.textroom");
}

void Signals::peerAttached() {
  makeChannel();
  if (channel_ == nullptr) {
    peerFailed("no data channel could be made: is gstreamer1.0-plugins-bad complete?");
    return;
  }
  peer_->ask({{"request", "setup"}}, [this](const json& data) {
    const std::string error = stringAt(data, "error");
    if (!error.empty()) peerFailed(error);
  });
}

void Signals::peerFailed(const std::string& reason) {
  if (retry_.waits()) return;
  logWarning("Signals: {}. Opening the channel again.", reason);
  joined_ = false;
  answerDeadline_.stop();
  retry_.later();
}

void Signals::makeChannel() {
  gst_element_set_state(peer_->pipeline(), GST_STATE_READY);
  g_signal_emit_by_name(peer_->webrtc(), "create-data-channel", "JanusDataChannel", nullptr, &channel_);
  if (channel_ == nullptr) return;
  struct Context {
    Signals* signals;
    std::weak_ptr<int> life;
    void post(std::function<void(Signals&)> task) const {
      EngineThread::get().post([weak = life, target = signals, task = std::move(task)] {
        if (!weak.expired()) task(*target);
      });
    }
  };
  const auto connect = [this](const char* signal, GCallback callback) {
    g_signal_connect_data(
        channel_, signal, callback, new Context{this, life_},
        [](gpointer data, GClosure*) { delete static_cast<Context*>(data); }, GConnectFlags{});
  };
  connect("on-open", G_CALLBACK(+[](GstWebRTCDataChannel*, Context* context) {
            context->post([](Signals& self) { self.join(); });
          }));
  connect("on-close", G_CALLBACK(+[](GstWebRTCDataChannel*, Context* context) {
            context->post([](Signals& self) { self.peerFailed("the data channel was closed"); });
          }));
  connect("on-message-string", G_CALLBACK(+[](GstWebRTCDataChannel*, gchar* text, Context* context) {
            if (text == nullptr) return;
            context->post([message = std::string(text)](Signals& self) { self.channelMessage(message); });
          }));
}

void Signals::networkIsBack() {
  if (!joined_) retry_.now();
}

void Signals::join() {
  write(dump({{"textroom", "join"},
              {"transaction", "join"},
              {"room", room_},
              {"token", access_.token},
              {"pin", access_.pin},
              {"username", ownId_}}));
  answerDeadline_.once(answerTime, [this] { peerFailed("the room does not answer"); });
}

void Signals::channelMessage(const std::string& text) {
  const json message = json::parse(text, nullptr, false);
  const std::string kind = stringAt(message, "textroom");
  if (kind == "success" && stringAt(message, "transaction") == "join") {
    joined();
  } else if (kind == "error" && stringAt(message, "transaction") == "join") {
    // The server may still hold a channel of ours that broke, with the same name.
    if (!std::exchange(refused_, true)) {
      logWarning("Signals: the room refuses to be joined: {}. Trying again.", stringAt(message, "error"));
    }
    answerDeadline_.once(refusalPause, [this] { join(); });
  } else if (kind == "message") {
    const json signal = json::parse(stringAt(message, "text"), nullptr, false);
    const json& type = objectAt(signal, "type");
    const json& data = objectAt(signal, "data");
    if (type.is_string() && data.is_string()) {
      listener_.signalReceived(type.get<std::string>(), data.get<std::string>(), stringAt(message, "from"));
    }
  }
}

void Signals::joined() {
  answerDeadline_.stop();
  retry_.succeeded();
  joined_ = true;
  refused_ = false;
  for (const std::string& text : std::exchange(waiting_, {})) write(text);
  listener_.signalsOpened();
}

std::string Signals::encode(const std::string& room, const std::string& type, const std::string& data) {
  std::string message = dump({{"textroom", "message"},
                              {"transaction", "message"},
                              {"room", room},
                              {"ack", false},
                              {"text", dump({{"type", type}, {"data", data}})}});
  if (message.size() > largestMessage) message.clear();
  return message;
}

void Signals::send(const std::string& message) {
  if (joined_) {
    write(message);
  } else if (waiting_.size() < mostWaiting) {
    waiting_.push_back(message);
  } else {
    logWarning("A signal is not sent: the channel is not open, and {} wait for it.", waiting_.size());
  }
}

void Signals::write(const std::string& text) {
  g_signal_emit_by_name(channel_, "send-string", text.c_str());
}

}  // namespace engine
