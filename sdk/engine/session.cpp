#include "session.h"

#include <cstdlib>
#include <utility>

#include "log.h"

namespace engine {
namespace {

// The VideoRoom's numbers for a join that it refuses.
constexpr int no_such_room = 426;
constexpr int unauthorized = 433;

std::string server_address() {
  const char* address = std::getenv("ZARVO_SESSION_SERVER");
  return address != nullptr && *address != '\0' ? address : "ws://127.0.0.1:8188";
}

const json& plugin_data(const json& message) {
  return object_at(object_at(message, "plugindata"), "data");
}

}  // namespace

Session::Session(otc_session* handle, const otc_session_callbacks& callbacks, std::string id)
    : handle_(handle),
      callbacks_(callbacks),
      id_(std::move(id)),
      server_(server_address()),
      janus_(std::make_shared<JanusConnection>(server_, static_cast<JanusConnection::Listener&>(*this))),
      room_(*this),
      signals_(janus_, *this, id_) {}

void Session::connect(const std::string& token) {
  token_ = token;
  log_info("Connecting to session {} at {}.", id_, server_);
  janus_->open();
}

void Session::close() {
  closed_ = true;
  end();
}

// Everything stops; the session can say only what is left to be said.
void Session::end() {
  joined_ = false;
  subscriptions_.clear();
  publications_.clear();
  signals_.close();
  janus_->close();
}

void Session::fail(int code, const std::string& text) {
  log_warning("Session {}: {}", id_, text);
  end();
  call(callbacks_.on_error, text.c_str(), code);
}

void Session::disconnected(const std::string& reason) {
  log_warning("Session {} is disconnected: {}.", id_, reason);
  end();
  call(callbacks_.on_disconnected);
}

void Session::janus_unreachable(const std::string& reason) {
  fail(OTC_SESSION_CONNECTION_FAILED, "The session server at " + server_ + " is not reached: " + reason +
                                          ". Start it, or set ZARVO_SESSION_SERVER to its address.");
}

void Session::janus_lost() {
  call(callbacks_.on_reconnection_started);
}

void Session::janus_recovered() {
  log_info("Session {} is connected again.", id_);
  call(callbacks_.on_reconnected);
  if (!closed_) learn_what_was_missed();
}

void Session::janus_gone(const std::string& reason) {
  disconnected(reason);
}

void Session::janus_opened() {
  janus_->attach(
      "janus.plugin.videoroom", [this](const json& event) { room_event(event); },
      [this](JanusConnection::Handle handle, const std::string& error) {
        if (handle == 0) {
          fail(OTC_SESSION_CONNECTION_FAILED,
               "The session server at " + server_ + " has no VideoRoom: " + error + ". Enable its plugin.");
        } else {
          join(handle);
        }
      });
}

void Session::join(JanusConnection::Handle handle) {
  const json body = {{"request", "join"}, {"ptype", "publisher"}, {"room", id_}, {"token", token_}};
  ++joins_under_way_;
  janus_->message(handle, body, nullptr, [this](const json& answer) {
    const json& code = object_at(plugin_data(answer), "error_code");
    if (code == json(unauthorized)) {
      fail(OTC_SESSION_AUTHORIZATION_FAILURE,
           "Session " + id_ + " refuses the token. Join with a token that was issued for this session.");
    } else if (code == json(no_such_room)) {
      fail(OTC_SESSION_INVALID_SESSION,
           "There is no session " + id_ + " at " + server_ + ". Create it, or check its id.");
    } else if (JanusConnection::is_error(answer)) {
      fail(OTC_SESSION_CONNECTION_FAILED, "Session " + id_ + " could not be joined: " +
                                              JanusConnection::error_text(answer) + ". Try again.");
    } else {
      joined(plugin_data(answer));
    }
  });
}

void Session::joined(const json& data) {
  const std::string own_id = string_at(data, "id");
  joined_ = true;
  room_.add_own_id(own_id);
  log_info("Connected to session {} as {}.", id_, own_id);
  signals_.open(token_, own_id);
  call(callbacks_.on_connected);
  for (auto& [publisher, publication] : publications_) {
    publication = std::make_unique<Publication>(janus_, *publisher, room_, id_, token_);
  }
  take_list(data);
}

// Who is in the room, as the answer to a join has it.
void Session::take_list(const json& data) {
  room_.joined(data, events_since_join_);
  if (--joins_under_way_ == 0) events_since_join_.clear();
}

void Session::room_event(const json& event) {
  if (string_at(event, "janus") == "detached") {
    disconnected("the server has taken it out of the room");
    return;
  }
  const json& data = plugin_data(event);
  if (string_at(data, "videoroom") == "destroyed") {
    disconnected("the room was closed");
  } else if (string_at(data, "leaving") == "ok") {
    disconnected("it was taken out of the room");
  } else {
    if (joins_under_way_ > 0) events_since_join_.push_back(data);
    if (joined_) room_.event(data);
  }
}

// What happened in the room while nothing was heard of it: only a join is told all of it.
void Session::learn_what_was_missed() {
  const std::string visitor = id_ + "-" + std::to_string(g_get_real_time());
  room_.add_own_id(visitor);
  janus_->attach(
      "janus.plugin.videoroom", [](const json&) {},
      [this, visitor](JanusConnection::Handle handle, const std::string&) {
        if (handle == 0) return;
        const json body = {
            {"request", "join"}, {"ptype", "publisher"}, {"room", id_}, {"token", token_}, {"id", visitor}};
        ++joins_under_way_;
        janus_->message(handle, body, nullptr, [this, handle](const json& answer) {
          janus_->detach(handle);
          if (JanusConnection::is_error(answer)) {
            if (--joins_under_way_ == 0) events_since_join_.clear();
          } else {
            take_list(plugin_data(answer));
          }
        });
      });
}

void Session::connection_created(const otc_connection& connection) {
  call(callbacks_.on_connection_created, &connection);
}

void Session::connection_dropped(const otc_connection& connection) {
  call(callbacks_.on_connection_dropped, &connection);
}

void Session::stream_received(const otc_stream& stream) {
  call(callbacks_.on_stream_received, &stream);
}

void Session::stream_dropped(const otc_stream& stream) {
  for (auto& [subscriber, subscription] : subscriptions_) {
    if (subscriber->stream.id == stream.id) {
      subscription.reset();
      if (!closed_) subscriber->call(subscriber->callbacks.on_disconnected);
    }
  }
  std::erase_if(subscriptions_, [](const auto& entry) { return entry.second == nullptr; });
  call(callbacks_.on_stream_dropped, &stream);
}

void Session::has_audio_changed(const otc_stream& stream) {
  call(callbacks_.on_stream_has_audio_changed, &stream, stream.has_audio ? OTC_TRUE : OTC_FALSE);
}

void Session::has_video_changed(const otc_stream& stream) {
  for (auto& [subscriber, subscription] : subscriptions_) {
    if (subscriber->stream.id == stream.id) subscription->expect_pictures(stream.has_video);
  }
  call(callbacks_.on_stream_has_video_changed, &stream, stream.has_video ? OTC_TRUE : OTC_FALSE);
}

void Session::signal_received(const std::string& type, const std::string& data, const std::string& from) {
  call(callbacks_.on_signal_received, type.c_str(), data.c_str(), room_.connection(from));
}

void Session::send_signal(const std::string& message) {
  if (!closed_) signals_.send(message);
}

void Session::subscribe(otc_subscriber& subscriber) {
  if (!joined_ || room_.stream(subscriber.stream.id) == nullptr) return;
  subscriptions_.try_emplace(&subscriber, nullptr);
  auto& subscription = subscriptions_[&subscriber];
  if (subscription == nullptr) {
    subscription = std::make_unique<Subscription>(janus_, subscriber, id_, token_);
    subscription->expect_pictures(room_.stream(subscriber.stream.id)->has_video);
  }
}

void Session::unsubscribe(otc_subscriber& subscriber) {
  subscriptions_.erase(&subscriber);
}

void Session::publish(otc_publisher& publisher) {
  if (closed_ || publications_.contains(&publisher)) return;
  auto& publication = publications_[&publisher];
  if (joined_) publication = std::make_unique<Publication>(janus_, publisher, room_, id_, token_);
}

void Session::unpublish(otc_publisher& publisher) {
  publications_.erase(&publisher);
}

}  // namespace engine
