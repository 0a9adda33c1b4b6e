// The studio's end of the link with the guest service.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "studio/reports.h"

namespace studio {

/// One connection to the service: a function for each command, a listener for what comes back.
///
/// Commands may be given from any thread, return at once, and go out in the order given. Those that
/// concern a guest take the id that its Ring brought; the service ignores one that it does not know,
/// and all but `init`, `exit` and `there` before the first `init`. Texts are NUL-free UTF-8.
class Client {
 public:
  enum class Loss {
    interrupted,  ///< the service ended; the next command reaches the one started in its place
    invalid,      ///< there is no such service, or it turned this connection away; make a new Client
    terminating,  ///< the service has been asked to end
  };

  /// Called one at a time, on a queue of the client's. What a report refers to is valid during the
  /// call, except that a Frame may be kept. Must not destroy the client.
  class Listener {
   public:
    virtual ~Listener() = default;
    virtual void onRing(const Ring& ring) = 0;
    virtual void onAudioChanged(const AudioChanged& change) = 0;
    virtual void onDropped(const Dropped& dropped) = 0;
    virtual void onChat(const Chat& chat) = 0;
    virtual void onFavourite(const Favourite& favourite) = 0;
    virtual void onFrame(Frame frame) = 0;
    virtual void onSound(const Sound& sound) = 0;
    virtual void onLogLine(std::string_view line) = 0;
    /// The service cannot go on; `text` is empty where no reason is known.
    virtual void onFatalError(std::string_view text) = 0;
    /// A report was not as agreed and was thrown away; `reason` says what was wrong with it.
    virtual void onRefused(std::string_view reason) = 0;
    virtual void onLost(Loss loss) = 0;
  };

  /// Connects to the service of that name. The listener must outlive the client.
  Client(const std::string& service, Listener& listener);
  /// No call to the listener runs or begins after the return.
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// Joins the session, leaving the present one first. Who is there rings.
  void init(const std::string& sessionId, const std::string& token);
  /// Ends the service's process.
  void exit();
  /// Asks for a sign of life: `answer` gets whether it came, on the listener's queue.
  void there(std::function<void(bool alive)> answer);
  /// Brings the guest into the green room, and shows the show to the guests. False, and nothing is sent,
  /// while there is no session: before `init`, after `stop`, after the last guest was taken out.
  bool startBroadcast(const std::string& id);
  /// Takes the guest out. With the last known guest the session ends: `init` joins again.
  void stopBroadcast(const std::string& id);
  /// Whether guests in the green room are heard while the show is on air.
  void setOffAirAudio(bool on);
  void greenroomStatus(const std::string& id, bool inGreenroom);
  void comment(const std::string& name, const std::string& text, const std::string& uuid);
  void favourite(const std::string& uuid, const std::string& state);
  void chat(const std::string& name, const std::string& text, const std::string& uuid);
  void prefUpdate(const std::string& text);
  void remoteMute(const std::string& id, bool muted);
  /// Leaves the session; the service stays.
  void stop();
  void liveStatus(bool live, bool recordOnly);
  void viewerCount(const std::string& count);

  /// Shows the surface ('BGRA' or planar) to the guests. It counts as used until the service has
  /// taken it over; take surfaces from a SurfacePool, which knows when they may be written again.
  /// False, and nothing is sent, while maxFramesInFlight have not been answered.
  bool videoFrame(IOSurfaceRef surface);
  static constexpr int maxFramesInFlight = 2;
  /// Plays sound to the guests: interleaved 16-bit stereo at 48 kHz; copied.
  void audioData(std::span<const std::int16_t> samples);

 private:
  struct Link;
  std::shared_ptr<Link> link_;
};

}  // namespace studio
