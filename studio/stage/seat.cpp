#include "stage/seat.h"

#include <algorithm>
#include <utility>

namespace studio {

namespace {

using std::chrono::milliseconds;

// One who rang, was not brought in and is gone: a page that reloads is back by then.
constexpr milliseconds ringingGrace(10'000);
// A fresh service that has not seen the guest by then: the guest has left meanwhile.
constexpr milliseconds rejoinLimit(10'000);
// A guest's page takes leave when it hears "stop"; a service ends when it is told to.
constexpr milliseconds removalLimit(1'000);
// From the end of the connection to that of the process.
constexpr milliseconds endLimit(200);
constexpr std::size_t mostEchoes = 256;

}  // namespace

// What one service's client reports, on its queue: pictures and sound go straight on, all else to the loop,
// and nothing any more once the seat has another service.
class Seat::Reports : public Client::Listener {
 public:
  explicit Reports(Seat& seat) : seat_(seat), number_(seat.number()), listener_(seat.listener_) {}

  std::weak_ptr<bool> alive() const { return alive_; }

 private:
  template <typename Task>
  void post(Task task) {
    seat_.loop_.post([alive = alive(), task = std::move(task)] {
      if (!alive.expired()) task();
    });
  }

  void onRing(const Ring& ring) override {
    (ring.screenShare ? screen_ : camera_) = ring.id;  // the newest of each counts
    post([this, id = std::string(ring.id), screen = ring.screenShare] { seat_.onRing(id, screen); });
  }
  void onAudioChanged(const AudioChanged&) override {}
  void onDropped(const Dropped& dropped) override {
    post([this, id = std::string(dropped.id)] { seat_.onDropped(id); });
  }
  void onChat(const Chat& chat) override {
    post([this, text = std::string(chat.text.value_or("")), uuid = std::string(chat.uuid)] {
      if (!seat_.isEcho(uuid, text)) listener_.onSeatChat(seat_, text, uuid);
    });
  }
  void onFavourite(const Favourite& favourite) override {
    post([this, uuid = std::string(favourite.uuid.value_or("")), state = std::string(favourite.state)] {
      if (!seat_.isEcho(uuid, state)) listener_.onSeatFavourite(seat_, uuid, state);
    });
  }
  void onFrame(Frame frame) override {
    if (frame.id() == camera_) {
      listener_.onSeatFrame(number_, Kind::camera, std::move(frame));
    } else if (frame.id() == screen_) {
      listener_.onSeatFrame(number_, Kind::screen, std::move(frame));
    }
  }
  void onSound(const Sound& sound) override { listener_.onSeatSound(number_, sound.samples); }
  void onLogLine(std::string_view line) override {
    post([this, line = std::string(line)] { listener_.onSeatLog(seat_, line); });
  }
  void onFatalError(std::string_view text) override { onLogLine(text); }
  void onRefused(std::string_view reason) override { onLogLine(reason); }
  void onLost(Client::Loss loss) override {
    if (loss == Client::Loss::terminating) return;  // its end follows
    post([this] { seat_.onConnectionClosed(); });
  }

  Seat& seat_;
  const std::uint32_t number_;
  Seat::Listener& listener_;
  std::string camera_;
  std::string screen_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

Seat::Seat(Settings settings, Listener& listener) : settings_(std::move(settings)), listener_(listener) {
  limit_.once(settings_.offerLimit, [this] { end(); });
}

Seat::~Seat() {
  withdraw();
}

// ---- The service ---------------------------------------------------------------

void Seat::setRoom(const Room& room) {
  room_ = room;
}

void Seat::leaveRoom() {
  withdraw();
  room_ = {};
  loseCamera();
}

void Seat::serve(std::unique_ptr<GuestService> service) {
  withdraw();
  service_ = std::move(service);
  reports_ = std::make_unique<Reports>(*this);
  auto client = std::make_unique<Client>(service_->name(), *reports_);
  service_->onEnd(loop_, [this, alive = reports_->alive()](ServiceProcess::End end) {
    if (!alive.expired()) onServiceEnded(end.describe());
  });
  client->init(room_.id, room_.tokens[0]);
  const std::lock_guard lock(clientMutex_);
  client_ = std::move(client);
}

void Seat::withdraw() {
  closed_.stop();
  std::unique_ptr<Client> client;
  {
    const std::lock_guard lock(clientMutex_);
    client = std::move(client_);
  }
  client.reset();  // without the lock: waits for its listener's calls
  reports_.reset();
  service_.reset();
  joined_ = false;
  camera_.reset();
  known_.reset();
  record_.reset();
  screen_.reset();
  echoes_.clear();
}

// As a rule because its process has ended, which says more.
void Seat::onConnectionClosed() {
  closed_.once(endLimit, [this] { onServiceEnded("has closed the connection"); });
}

void Seat::onServiceEnded(const std::string& reason) {
  if (removing_) {
    end();
    return;
  }
  const bool ran = joined_;
  withdraw();
  absence_.once(rejoinLimit, [this] { loseCamera(); });
  listener_.onSeatChanged(*this);
  listener_.onSeatServiceLost(*this, reason, ran);
}

// ---- The guest's streams -------------------------------------------------------

void Seat::onRing(const std::string& id, bool screenShare) {
  joined_ = true;
  if (removing_) return;
  if (screenShare) {
    const auto before = std::exchange(screen_, id);
    if (before && before != id && camera_) client_->stopBroadcast(*before);  // not the last record
    if (record_) bringInScreen();
    listener_.onSeatChanged(*this);
    return;
  }
  absence_.stop();
  // The order matters, too: stopped after the new one has been started, it would take the guest out.
  const auto before = std::exchange(known_, id);
  if (before && before != id) client_->stopBroadcast(*before);
  camera_ = id;
  if (place_ != Place::outside) {
    bringIn();
    return;
  }
  limit_.stop();
  const bool rangBefore = state_ == SeatState::ringing;
  become(SeatState::ringing);
  if (!rangBefore) listener_.onSeatRings(*this);
}

void Seat::onDropped(const std::string& id) {
  if (removing_) return;
  if (id.empty()) {
    // The session itself is gone, and a service that has been used takes no other.
    onServiceEnded("has lost its session");
  } else if (id == screen_) {
    screen_.reset();
    if (camera_) client_->stopBroadcast(id);  // never the last record: with it the session would end
    listener_.onSeatChanged(*this);
  } else if (id == camera_) {
    loseCamera();
  }
}

// The stream's record stays with the service until the next one rings: the session ends with its last.
void Seat::loseCamera() {
  absence_.stop();
  camera_.reset();
  screen_.reset();
  if (state_ == SeatState::offered || removing_) return;
  if (place_ == Place::outside) {
    limit_.once(ringingGrace, [this] { end(); });
    listener_.onSeatChanged(*this);
    return;
  }
  limit_.once(settings_.awayLimit, [this] { end(); });
  become(SeatState::away);
}

// The order matters: the guest hears nothing that is not so, and is unmuted at no moment.
void Seat::bringIn() {
  client_->liveStatus(show_.onAir, show_.recordOnly);
  client_->setOffAirAudio(offAirAudio_);
  if (muted_) client_->remoteMute(*camera_, true);
  client_->startBroadcast(*camera_);
  if (place_ == Place::live) client_->greenroomStatus(*camera_, false);
  if (!show_.preferences.empty()) client_->prefUpdate(show_.preferences);
  client_->viewerCount("");  // an equal count would not be sent to a page that has come back
  if (!show_.viewerCount.empty()) client_->viewerCount(show_.viewerCount);
  record_ = camera_;
  if (screen_) bringInScreen();
  become(place_ == Place::live ? SeatState::live : SeatState::greenRoom);
  listener_.onSeatIn(*this);
}

void Seat::bringInScreen() {
  client_->startBroadcast(*screen_);
  if (place_ == Place::live) client_->greenroomStatus(*screen_, false);
}

// ---- The host's wishes ---------------------------------------------------------

void Seat::restore(Place place, bool muted) {
  place_ = place;
  muted_ = muted;
  if (place == Place::outside) return;
  limit_.once(settings_.awayLimit, [this] { end(); });
  become(SeatState::away);
}

void Seat::admit() {
  if (place_ != Place::outside) return;
  place_ = Place::greenRoom;
  if (!camera_) return;
  bringIn();
}

void Seat::setLive(bool live) {
  if (place_ == Place::outside) return;
  place_ = live ? Place::live : Place::greenRoom;
  if (!record_ || record_ != camera_) {
    listener_.onSeatChanged(*this);
    return;
  }
  client_->greenroomStatus(*camera_, !live);
  if (screen_) client_->greenroomStatus(*screen_, !live);
  become(live ? SeatState::live : SeatState::greenRoom);
}

void Seat::mute(bool muted) {
  muted_ = muted;
  if (camera_) client_->remoteMute(*camera_, muted);
  listener_.onSeatChanged(*this);
}

void Seat::setOffAirAudio(bool on) {
  offAirAudio_ = on;
  if (client_) client_->setOffAirAudio(on);
}

void Seat::setShow(const ShowState& show) {
  const ShowState before = std::exchange(show_, show);
  if (!record_ || !client_) return;  // said when the guest is brought in
  if (show.onAir != before.onAir || show.recordOnly != before.recordOnly) {
    client_->liveStatus(show.onAir, show.recordOnly);
  }
  if (show.viewerCount != before.viewerCount) client_->viewerCount(show.viewerCount);
  if (show.preferences != before.preferences) client_->prefUpdate(show.preferences);
}

void Seat::remove() {
  if (removing_) return;
  removing_ = true;
  absence_.stop();
  if (!client_) {
    end();
    return;
  }
  if (camera_) client_->stopBroadcast(*camera_);
  client_->exit();
  limit_.once(removalLimit, [this] { end(); });
}

void Seat::chat(const std::string& name, const std::string& text, const std::string& uuid) {
  if (!client_) return;
  expectEcho(uuid, text);
  client_->chat(name, text, uuid);
}

void Seat::comment(const std::string& name, const std::string& text, const std::string& uuid) {
  if (client_) client_->comment(name, text, uuid);
}

void Seat::favourite(const std::string& uuid, const std::string& state) {
  if (!client_) return;
  expectEcho(uuid, state);
  client_->favourite(uuid, state);
}

void Seat::expectEcho(const std::string& uuid, const std::string& text) {
  echoes_.emplace_back(uuid, text);
  if (echoes_.size() > mostEchoes) echoes_.pop_front();
}

bool Seat::isEcho(const std::string& uuid, const std::string& text) {
  const auto echo = std::find(echoes_.begin(), echoes_.end(), std::pair(uuid, text));
  if (echo == echoes_.end()) return false;
  echoes_.erase(echoes_.begin(), echo + 1);  // they come in the order of sending; what is missing is lost
  return true;
}

void Seat::play(std::span<const std::int16_t> samples) {
  const std::lock_guard lock(clientMutex_);
  if (client_) client_->audioData(samples);
}

void Seat::become(SeatState state) {
  if (state != SeatState::away) limit_.stop();
  state_ = state;
  listener_.onSeatChanged(*this);
}

void Seat::end() {
  limit_.stop();
  absence_.stop();
  withdraw();
  state_ = SeatState::gone;
  listener_.onSeatChanged(*this);
}

}  // namespace studio
