#include "session.h"

#include <cstdlib>
#include <utility>

#include "log.h"

namespace engine {
namespace {

using namespace std::chrono_literals;

// The VideoRoom's numbers for a join that it refuses.
constexpr int noSuchRoom = 426;
constexpr int unauthorized = 433;
// So long the streams wait for the signals.
constexpr auto announceTime = 5s;

std::string serverAddress() {
  const char* address = std::getenv("ZARVO_SESSION_SERVER");
  return address != nullptr && *address != '\0' ? address : "ws://127.0.0.1:8188";
}

const json& pluginData(const json& message) {
  return objectAt(objectAt(message, "plugindata"), "data");
}

}  // namespace

Session::Session(otc_session* handle, const otc_session_callbacks& callbacks, std::string id)
    : handle_(handle),
      callbacks_(callbacks),
      id_(std::move(id)),
      janus_(std::make_shared<JanusConnection>(static_cast<JanusConnection::Listener&>(*this))),
      room_(*this),
      signals_(janus_, *this, id_) {}

void Session::connect(const std::string& token) {
  access_ = Access::parse(token);
  server_ = access_.server.empty() ? serverAddress() : access_.server;
  logInfo("Connecting to session {} at {}.", id_, server_);
  janus_->open(server_);
}

void Session::close() {
  closed_ = true;
  end();
}

// Everything stops; the session can say only what is left to be said.
void Session::end() {
  joined_ = false;
  announceDeadline_.stop();
  firstList_.reset();
  subscriptions_.clear();
  publications_.clear();
  signals_.close();
  janus_->close();
}

void Session::fail(int code, const std::string& text) {
  logWarning("Session {}: {}", id_, text);
  end();
  call(callbacks_.on_error, text.c_str(), code);
}

void Session::disconnected(const std::string& reason) {
  logWarning("Session {} is disconnected: {}.", id_, reason);
  end();
  call(callbacks_.on_disconnected);
}

void Session::janusUnreachable(const std::string& reason) {
  const char* remedy = access_.server.empty() ? "or set ZARVO_SESSION_SERVER to its address"
                                              : "or connect with a token that names another";
  fail(OTC_SESSION_CONNECTION_FAILED,
       fmt::format("The session server at {} is not reached: {}. Start it, {}.", server_, reason, remedy));
}

void Session::janusLost() {
  announce();  // what is missed now is learnt by comparison with it
  call(callbacks_.on_reconnection_started);
}

void Session::janusRecovered() {
  logInfo("Session {} is connected again.", id_);
  call(callbacks_.on_reconnected);
  if (closed_) return;
  learnWhatWasMissed();
  signals_.networkIsBack();
  for (const auto& [subscriber, subscription] : subscriptions_) subscription->networkIsBack();
  for (const auto& [publisher, publication] : publications_) publication->networkIsBack();
}

void Session::janusGone(const std::string& reason) {
  disconnected(reason);
}

void Session::janusOpened() {
  janus_->attach(
      "janus.plugin.videoroom", [this](const json& event) { roomEvent(event); },
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
  const json body = {{"request", "join"},
                     {"ptype", "publisher"},
                     {"room", id_},
                     {"token", access_.token},
                     {"pin", access_.pin}};
  ++joinsUnderWay_;
  janus_->message(handle, body, nullptr, [this](const json& answer) {
    const json& code = objectAt(pluginData(answer), "error_code");
    if (code == json(unauthorized)) {
      fail(OTC_SESSION_AUTHORIZATION_FAILURE,
           "Session " + id_ +
               " refuses the token or its pin. Join with a token that was issued for this session.");
    } else if (code == json(noSuchRoom)) {
      fail(OTC_SESSION_INVALID_SESSION,
           "There is no session " + id_ + " at " + server_ + ". Create it, or check its id.");
    } else if (JanusConnection::isError(answer)) {
      fail(OTC_SESSION_CONNECTION_FAILED,
           "Session " + id_ + " could not be joined: " + JanusConnection::errorText(answer) + ". Try again.");
    } else {
      joined(pluginData(answer));
    }
  });
}

void Session::joined(const json& data) {
  const std::string ownId = stringAt(data, "id");
  joined_ = true;
  room_.addOwnId(ownId);
  logInfo("Connected to session {} as {}.", id_, ownId);
  signals_.open(access_, ownId);
  call(callbacks_.on_connected);
  for (auto& [publisher, publication] : publications_) {
    publication = std::make_unique<Publication>(janus_, *publisher, room_, id_, access_);
  }
  firstList_ = data;
  announceDeadline_.once(announceTime, [this] { announce(); });
}

// A guest who is seen may be written to and writes, so whoever is there is told of only when signals arrive;
// but also when they do not after a while.
void Session::announce() {
  announceDeadline_.stop();
  if (const std::optional<json> list = std::exchange(firstList_, std::nullopt)) takeList(*list);
}

void Session::signalsOpened() {
  announce();
}

// Who is in the room, as the answer to a join has it.
void Session::takeList(const json& data) {
  room_.joined(data, eventsSinceJoin_);
  if (--joinsUnderWay_ == 0) eventsSinceJoin_.clear();
}

void Session::roomEvent(const json& event) {
  if (stringAt(event, "janus") == "detached") {
    disconnected("the server has taken it out of the room");
    return;
  }
  const json& data = pluginData(event);
  if (stringAt(data, "videoroom") == "destroyed") {
    disconnected("the room was closed");
  } else if (stringAt(data, "leaving") == "ok") {
    disconnected("it was taken out of the room");
  } else {
    if (joinsUnderWay_ > 0) eventsSinceJoin_.push_back(data);
    if (joined_ && !firstList_) room_.event(data);
  }
}

// What happened in the room while nothing was heard of it: only a join is told all of it.
void Session::learnWhatWasMissed() {
  const std::string visitor = id_ + "-" + std::to_string(g_get_real_time());
  room_.addOwnId(visitor);
  janus_->attach(
      "janus.plugin.videoroom", [](const json&) {},
      [this, visitor](JanusConnection::Handle handle, const std::string&) {
        if (handle == 0) return;
        const json body = {{"request", "join"},      {"ptype", "publisher"}, {"room", id_},
                           {"token", access_.token}, {"pin", access_.pin},   {"id", visitor}};
        ++joinsUnderWay_;
        janus_->message(handle, body, nullptr, [this, handle](const json& answer) {
          janus_->detach(handle);
          if (JanusConnection::isError(answer)) {
            if (--joinsUnderWay_ == 0) eventsSinceJoin_.clear();
          } else {
            takeList(pluginData(answer));
          }
        });
      });
}

void Session::connectionCreated(const otc_connection& connection) {
  call(callbacks_.on_connection_created, &connection);
}

void Session::connectionDropped(const otc_connection& connection) {
  call(callbacks_.on_connection_dropped, &connection);
}

void Session::streamReceived(const otc_stream& stream) {
  call(callbacks_.on_stream_received, &stream);
}

void Session::streamDropped(const otc_stream& stream) {
  for (auto& [subscriber, subscription] : subscriptions_) {
    if (subscriber->stream.id == stream.id) {
      subscription.reset();
      if (!closed_) subscriber->call(subscriber->callbacks.on_disconnected);
    }
  }
  std::erase_if(subscriptions_, [](const auto& entry) { return entry.second == nullptr; });
  call(callbacks_.on_stream_dropped, &stream);
}

void Session::hasAudioChanged(const otc_stream& stream) {
  call(callbacks_.on_stream_has_audio_changed, &stream, stream.hasAudio ? OTC_TRUE : OTC_FALSE);
}

void Session::hasVideoChanged(const otc_stream& stream) {
  for (auto& [subscriber, subscription] : subscriptions_) {
    if (subscriber->stream.id == stream.id) subscription->expectPictures(stream.hasVideo);
  }
  call(callbacks_.on_stream_has_video_changed, &stream, stream.hasVideo ? OTC_TRUE : OTC_FALSE);
}

void Session::signalReceived(const std::string& type, const std::string& data, const std::string& from) {
  call(callbacks_.on_signal_received, type.c_str(), data.c_str(), room_.connection(from));
}

void Session::sendSignal(const std::string& message) {
  if (!closed_) signals_.send(message);
}

void Session::subscribe(otc_subscriber& subscriber) {
  if (!joined_ || room_.stream(subscriber.stream.id) == nullptr) return;
  subscriptions_.try_emplace(&subscriber, nullptr);
  auto& subscription = subscriptions_[&subscriber];
  if (subscription == nullptr) {
    subscription = std::make_unique<Subscription>(janus_, subscriber, id_, access_);
    subscription->expectPictures(room_.stream(subscriber.stream.id)->hasVideo);
  }
}

void Session::unsubscribe(otc_subscriber& subscriber) {
  subscriptions_.erase(&subscriber);
}

void Session::publish(otc_publisher& publisher) {
  if (closed_ || publications_.contains(&publisher)) return;
  auto& publication = publications_[&publisher];
  if (joined_) publication = std::make_unique<Publication>(janus_, publisher, room_, id_, access_);
}

void Session::unpublish(otc_publisher& publisher) {
  publications_.erase(&publisher);
}

}  // namespace engine
