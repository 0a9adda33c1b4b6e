// One guest's seat: a room, a service process, and where the host has put the guest.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "stage/guest_service.h"
#include "stage/loop.h"
#include "stage/rooms.h"
#include "stage/seat_state.h"
#include "studio/client.h"

namespace studio {

/// What the show says of itself to each guest.
struct ShowState {
  bool onAir = false;
  bool recordOnly = false;
  std::string viewerCount;
  std::string preferences;
};

/// Conducts one guest's service through whatever happens: a guest who comes back, and a service that was
/// replaced, find everything as it was. For one loop's thread, except where noted.
class Seat {
 public:
  /// Whose picture or sound a report brings.
  enum class Kind { camera, screen };

  class Listener {
   public:
    virtual ~Listener() = default;
    /// The state, the name, the mute or what is shown has changed. In `gone` the seat may be destroyed,
    /// though not before the call returns.
    virtual void onSeatChanged(Seat& seat) = 0;
    virtual void onSeatRings(Seat& seat) = 0;
    /// The guest has been brought in, for the first time or once more.
    virtual void onSeatIn(Seat& seat) = 0;
    virtual void onSeatChat(Seat& seat, const std::string& text, const std::string& uuid) = 0;
    virtual void onSeatFavourite(Seat& seat, const std::string& uuid, const std::string& state) = 0;
    virtual void onSeatLog(Seat& seat, std::string_view line) = 0;
    /// The service has ended, or has lost its session; another must be given with `serve`. `ran` tells
    /// whether it had joined the room.
    virtual void onSeatServiceLost(Seat& seat, const std::string& reason, bool ran) = 0;

    /// These two come on the client's queue, and must be quick.
    virtual void onSeatFrame(std::uint32_t number, Kind kind, Frame frame) = 0;
    virtual void onSeatSound(std::uint32_t number, std::span<const std::int16_t> samples) = 0;
  };

  struct Settings {
    std::uint32_t number = 0;
    std::string name;
    std::chrono::seconds offerLimit{60};
    std::chrono::seconds awayLimit{300};
  };

  Seat(Settings settings, Listener& listener);
  ~Seat();
  Seat(const Seat&) = delete;
  Seat& operator=(const Seat&) = delete;

  std::uint32_t number() const { return settings_.number; }
  const std::string& name() const { return settings_.name; }
  SeatState state() const { return state_; }
  Place place() const { return place_; }
  bool muted() const { return muted_; }
  bool offAirAudio() const { return offAirAudio_; }
  bool present() const { return camera_.has_value(); }
  bool hasScreen() const { return screen_.has_value(); }
  bool hasService() const { return client_ != nullptr; }
  const Room& room() const { return room_; }

  /// The room in which the guest's streams are looked for from the next service on.
  void setRoom(const Room& room);
  /// Joins the room with a service that has joined nothing before, in place of the one before.
  void serve(std::unique_ptr<GuestService> service);
  /// The room is no more: the service goes, and the guest is away until one in another room sees them.
  void leaveRoom();
  /// As after a restart of the studio: where the guest was when they were last seen.
  void restore(Place place, bool muted);

  /// Brings the guest in, into the green room; one who is in stays where they are.
  void admit();
  /// Puts a guest who is in into the show, or back into the green room.
  void setLive(bool live);
  void mute(bool muted);
  /// Whether the guest is heard in the green room while the show is on air.
  void setOffAirAudio(bool on);
  void setShow(const ShowState& show);
  /// Takes the guest out: the guest is told, the service ends. `gone` follows when it has.
  void remove();

  void chat(const std::string& name, const std::string& text, const std::string& uuid);
  void comment(const std::string& name, const std::string& text, const std::string& uuid);
  void favourite(const std::string& uuid, const std::string& state);
  /// What the guest hears: interleaved 16-bit stereo at 48 kHz; copied. Any thread.
  void play(std::span<const std::int16_t> samples);

 private:
  class Reports;

  void onRing(const std::string& id, bool screenShare);
  void onDropped(const std::string& id);
  void onConnectionClosed();
  void onServiceEnded(const std::string& reason);

  void expectEcho(const std::string& uuid, const std::string& text);
  bool isEcho(const std::string& uuid, const std::string& text);

  void withdraw();
  void bringIn();
  void bringInScreen();
  void become(SeatState state);
  void loseCamera();
  void end();

  Settings settings_;
  Listener& listener_;
  Loop loop_;
  Room room_;
  SeatState state_ = SeatState::offered;
  Place place_ = Place::outside;
  bool muted_ = false;
  bool offAirAudio_ = false;
  ShowState show_;

  std::optional<std::string> camera_;  // the stream that is there
  std::optional<std::string> known_;   // the newest that the service holds, also when it is gone
  std::optional<std::string> record_;  // the stream that the service has brought in, also when it is gone
  std::optional<std::string> screen_;
  // Lines and marks that the service has been given and will report as if the guest had sent them.
  std::deque<std::pair<std::string, std::string>> echoes_;
  bool joined_ = false;  // the service has seen the guest
  bool removing_ = false;

  std::unique_ptr<GuestService> service_;
  std::unique_ptr<Reports> reports_;
  std::mutex clientMutex_;  // guards the pointer against play(); it changes on the loop only
  std::unique_ptr<Client> client_;
  Timer closed_;   // from the end of the service's connection until it is taken for ended
  Timer limit_;    // of an offer, an absence, a removal
  Timer absence_;  // from the start of a fresh service until it has seen the guest
};

}  // namespace studio
