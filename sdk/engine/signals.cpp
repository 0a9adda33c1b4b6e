#include "signals.h"

#define GST_USE_UNSTABLE_API
#include <gst/webrtc/webrtc.h>

#include <utility>

#include "log.h"

namespace engine {
namespace {

using namespace std::chrono_literals;

constexpr auto retry_interval = 1s;
constexpr auto answer_time = 10s;
constexpr std::size_t most_waiting = 256;

std::string dump(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace

Signals::Signals(std::shared_ptr<JanusConnection> janus, Listener& listener, std::string room)
    : janus_(std::move(janus)), listener_(listener), room_(std::move(room)) {}

Signals::~Signals() {
  close();
}

void Signals::close() {
  life_.reset();
  retry_.stop();
  joined_ = false;
  waiting_.clear();
  peer_.reset();
  g_clear_object(&channel_);
}

void Signals::open(const std::string& token, const std::string& own_id) {
  token_ = token;
  own_id_ = own_id;
  open_channel();
}

void Signals::open_channel() {
  life_ = std::make_shared<int>();
  joined_ = false;
  peer_ = std::make_shared<Peer>(janus_, static_cast<Peer::Listener&>(*this));
  g_clear_object(&channel_);
  peer_->accept_offers_with({{"request", "ack"}});
  peer_->open("janus.plugin.textroom");
}

void Signals::peer_attached() {
  make_channel();
  if (channel_ == nullptr) {
    peer_failed("no data channel could be made: is gstreamer1.0-plugins-bad complete?");
    return;
  }
  peer_->ask({{"request", "setup"}}, [this](const json& data) {
    const std::string error = string_at(data, "error");
    if (!error.empty()) peer_failed(error);
  });
}

void Signals::peer_failed(const std::string& reason) {
  log_warning("Signals: {}. Opening the channel again.", reason);
  joined_ = false;
  retry_.once(retry_interval, [this] { open_channel(); });
}

void Signals::make_channel() {
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
            context->post([](Signals& self) { self.channel_opened(); });
          }));
  connect("on-close", G_CALLBACK(+[](GstWebRTCDataChannel*, Context* context) {
            context->post([](Signals& self) { self.peer_failed("the data channel was closed"); });
          }));
  connect("on-message-string", G_CALLBACK(+[](GstWebRTCDataChannel*, gchar* text, Context* context) {
            if (text == nullptr) return;
            context->post([message = std::string(text)](Signals& self) { self.channel_message(message); });
          }));
}

void Signals::channel_opened() {
  write(dump({{"textroom", "join"},
              {"transaction", "join"},
              {"room", room_},
              {"token", token_},
              {"username", own_id_}}));
  retry_.once(answer_time, [this] { peer_failed("the room does not answer"); });
}

void Signals::channel_message(const std::string& text) {
  const json message = json::parse(text, nullptr, false);
  const std::string kind = string_at(message, "textroom");
  if (kind == "success" && string_at(message, "transaction") == "join") {
    joined();
  } else if (kind == "error" && string_at(message, "transaction") == "join") {
    // The server may still hold a channel of ours that broke, with the same name.
    if (!std::exchange(refused_, true)) {
      log_warning("Signals: the room refuses to be joined: {}. Trying again.", string_at(message, "error"));
    }
    retry_.once(retry_interval, [this] { channel_opened(); });
  } else if (kind == "message") {
    const json signal = json::parse(string_at(message, "text"), nullptr, false);
    const json& type = object_at(signal, "type");
    const json& data = object_at(signal, "data");
    if (type.is_string() && data.is_string()) {
      listener_.signal_received(type.get<std::string>(), data.get<std::string>(), string_at(message, "from"));
    }
  }
}

void Signals::joined() {
  retry_.stop();
  joined_ = true;
  refused_ = false;
  for (const std::string& text : std::exchange(waiting_, {})) write(text);
}

std::string Signals::encode(const std::string& room, const std::string& type, const std::string& data) {
  std::string message = dump({{"textroom", "message"},
                              {"transaction", "message"},
                              {"room", room},
                              {"ack", false},
                              {"text", dump({{"type", type}, {"data", data}})}});
  if (message.size() > largest_message) message.clear();
  return message;
}

void Signals::send(const std::string& message) {
  if (joined_) {
    write(message);
  } else if (waiting_.size() < most_waiting) {
    waiting_.push_back(message);
  } else {
    log_warning("A signal is not sent: the channel is not open and {} wait for it.", waiting_.size());
  }
}

void Signals::write(const std::string& text) {
  g_signal_emit_by_name(channel_, "send-string", text.c_str());
}

}  // namespace engine
