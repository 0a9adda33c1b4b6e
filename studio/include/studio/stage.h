// The show and everybody in it, as one object.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "studio/reports.h"

namespace studio {

/// Guests are known by a number from 1, which is never given twice. Each has a seat of their own: a room on
/// the session server, a service process, a mix of what the others say. What is to be done with a guest is
/// done to the seat and stays done, whatever happens to the guest's network, their page, the service or the
/// server.
///
/// A stage lives on the thread that makes it, on that thread's default GMainContext, which must be running.
/// Commands are given on that thread, return at once, and mean nothing for a number that nobody has. Reports
/// come on it, too, except where noted. Texts are UTF-8; those of guests are untrusted.
class Stage {
 public:
  using Number = std::uint32_t;

  struct Settings {
    std::string address = "127.0.0.1";  ///< where guests' pages come to; "0.0.0.0" or "::" for everywhere
    std::uint16_t port = 0;             ///< 0: 8080, or a free one if that is taken
    std::filesystem::path page;         ///< the folder of the guests' page
    std::filesystem::path certificate;  ///< PEM; with a key, the page is served over TLS
    std::filesystem::path key;
    std::string janus = "janus";          ///< the session server's program
    std::uint16_t janusPort = 0;          ///< of its WebSocket on 127.0.0.1; 0: a free one
    std::filesystem::path service;        ///< the guest service's program
    int serviceOutput = 2;                ///< where the services' own output goes
    std::filesystem::path ledger;         ///< keeps invitations and seats over a restart; empty: nothing does
    std::size_t seats = 16;               ///< at once
    std::size_t offers = 8;               ///< of them, those that nobody has rung in yet
    std::size_t requestsAMinute = 30;     ///< of pages at one address
    std::chrono::seconds offerLimit{60};  ///< an offer that nobody uses is taken back
    std::chrono::seconds awayLimit{300};  ///< how long the seat of a guest who is away is kept
  };

  enum class State { offered, ringing, greenRoom, live, away };

  /// A guest at the moment of asking.
  struct Guest {
    Number number = 0;
    std::string name;
    State state = State::offered;
    bool live = false;  ///< in the show, or to be there again as soon as they are back
    bool muted = false;
    bool offAirAudio = false;  ///< heard in the green room while the show is on air
    bool screen = false;       ///< shares one
    bool hidden = false;       ///< the page is in the background, or the phone is locked
    std::string camera;        ///< "on", "off" or "lost", as the page says
    std::string microphone;
    float fader = 1;
    bool programMuted = false;
    std::chrono::steady_clock::time_point since;  ///< in this state
  };

  struct Level {
    Number number = 0;  ///< 0: what the show plays
    float peak = -120;  ///< dB below full scale; -120 is silence
    float rms = -120;
  };

  enum class Kind { camera, screen };

  /// What is not overridden is passed over.
  class Listener {
   public:
    virtual ~Listener() = default;
    /// Guests can ring; `link` is what they open.
    virtual void onReady(const std::string& link) = 0;
    virtual void onRing(const Guest& guest) = 0;
    /// Anything of the guest's has changed.
    virtual void onChanged(const Guest& /*guest*/) {}
    /// The seat is no more; the number is not used again.
    virtual void onGone(Number /*guest*/, const std::string& /*name*/) {}
    virtual void onChat(Number /*guest*/, const std::string& /*name*/, const std::string& /*text*/,
                        const std::string& /*uuid*/) {}
    virtual void onFavourite(Number /*guest*/, const std::string& /*uuid*/, const std::string& /*state*/) {}
    /// A flood of guests' talk is over: so many lines and marks were more than anybody can read, and left
    /// out.
    virtual void onTalkLeftOut(std::size_t /*lines*/) {}
    /// A service has ended and is being replaced; 0 is the program's own.
    virtual void onServiceLost(Number /*guest*/, const std::string& /*reason*/) {}
    virtual void onServiceBack(Number /*guest*/) {}
    virtual void onSessionServerLost(const std::string& /*reason*/) {}
    virtual void onSessionServerBack() {}
    /// A line of a service's log, or of the stage's own; 0: nobody's.
    virtual void onLog(Number /*guest*/, std::string_view /*line*/) {}
    /// The stage cannot begin or go on; `reason` says what to do.
    virtual void onFailed(const std::string& reason) = 0;

    // What follows comes on threads of the stage's own and must be quick; it must not wait for the stage's
    // thread. A frame may be kept: at most four of a guest's at a time.
    virtual void onFrame(Number /*guest*/, Kind /*kind*/, Frame /*frame*/) {}
    /// What one guest said, even and in step with all others' sound: 10 ms, interleaved stereo at 48 kHz.
    /// 0 is what the show plays.
    virtual void onSound(Number /*guest*/, std::span<const std::int16_t> /*block*/) {}
    /// The program as viewers hear it, and what the host is to hear; likewise.
    virtual void onProgramSound(std::span<const std::int16_t> /*block*/) {}
    virtual void onHostSound(std::span<const std::int16_t> /*block*/) {}
    /// Ten times a second.
    virtual void onLevels(std::span<const Level> /*levels*/) {}
  };

  /// Throws std::runtime_error with a text that says what to do. The listener must outlive the stage.
  Stage(Settings settings, Listener& listener);
  /// Takes everybody out and ends all that was started; returns when nothing of it is left.
  ~Stage();
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  /// Of one guest. `live` means nothing for one who has not been admitted.
  void admit(Number guest);  ///< into the green room; one who is in stays where they are
  void live(Number guest);
  void greenRoom(Number guest);
  void mute(Number guest, bool muted);
  /// The guest's key is worth nothing and their connections end at once; `onGone` follows when the service
  /// has ended.
  void remove(Number guest);
  /// Hears the guest in the green room while the show is on air.
  void offAirAudio(Number guest, bool on);
  /// The guest's loudness in the program: 1 is as it comes. 0 is what the show plays.
  void fade(Number guest, float gain);
  void muteInProgram(Number guest, bool muted);

  /// The host's microphone goes to this guest alone, or without one to all in the green room; and back.
  void talkTo(std::optional<Number> guest);
  void stopTalking();
  /// The host hears this guest alone, or everybody again.
  void hearAlone(std::optional<Number> guest);

  /// Of all guests.
  void setShow(bool onAir, bool recordOnly);
  void offAirAudio(bool on);
  void viewerCount(const std::string& count);
  void preferences(const std::string& text);
  void comment(const std::string& name, const std::string& text, const std::string& uuid);
  void chat(const std::string& name, const std::string& text, const std::string& uuid);
  void favourite(const std::string& uuid, const std::string& state);

  /// A new link for everybody, which turns the one before off, or one for the guest of that name alone. Who
  /// is in stays in.
  std::string invite(const std::string& name = {});
  std::string link() const;
  std::vector<Guest> guests() const;

  /// The show's picture: a 'BGRA' surface from a SurfacePool. False where it was not taken. Any thread.
  bool showPicture(IOSurfaceRef picture);
  /// Whether anybody is in who would see or hear the show. Any thread.
  bool showWanted() const;
  /// What the show plays, and what the host says: interleaved 16-bit stereo at 48 kHz, as it comes. Any
  /// thread.
  void showSound(std::span<const std::int16_t> samples);
  void hostSound(std::span<const std::int16_t> samples);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

std::string_view nameOf(Stage::State state);

}  // namespace studio
