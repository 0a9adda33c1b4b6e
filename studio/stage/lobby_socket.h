// A guest's page, as the lobby talks with it.
#pragma once

#include <libsoup/soup.h>

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "stage/loop.h"

namespace studio {

/// What a page says of itself. What is missing has not changed.
struct PageState {
  std::optional<bool> hidden;             ///< the page is in the background, or the phone is locked
  std::optional<std::string> camera;      ///< "on", "off" or "lost"
  std::optional<std::string> microphone;  ///< likewise
  std::optional<bool> echo;               ///< the page hears its own loudspeaker
};

/// The page's WebSocket: one JSON object a message, bounded in size and rate. Whoever does not keep to that
/// is hung up on. For one loop's thread.
class LobbySocket {
 public:
  static constexpr std::size_t largestMessage = 4096;  ///< in bytes

  class Listener {
   public:
    virtual ~Listener() = default;
    virtual void onAsk(LobbySocket& page, const std::string& invitation, const std::string& name) = 0;
    virtual void onReturn(LobbySocket& page, const std::string& key) = 0;
    virtual void onPageState(LobbySocket& page, const PageState& state) = 0;
    virtual void onLeave(LobbySocket& page) = 0;
    /// Once; may destroy the socket.
    virtual void onClosed(LobbySocket& page) = 0;
  };

  LobbySocket(SoupWebsocketConnection* connection, std::string address, Listener& listener);
  /// Closes the connection; the listener hears nothing more.
  ~LobbySocket();
  LobbySocket(const LobbySocket&) = delete;
  LobbySocket& operator=(const LobbySocket&) = delete;

  /// Where the page comes from, for limits.
  const std::string& address() const { return address_; }
  void send(const nlohmann::json& message);
  /// Says goodbye; onClosed follows.
  void close();

  /// The seat that the page has been given; none before.
  std::optional<std::uint32_t> seat;

 private:
  void onMessage(const nlohmann::json& message);
  bool tooFast();

  SoupWebsocketConnection* connection_;
  std::string address_;
  Listener& listener_;
  std::chrono::steady_clock::time_point second_;
  int messages_ = 0;
  Timer idle_;
};

}  // namespace studio
