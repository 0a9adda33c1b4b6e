// Carries one guest's WebSocket on to Janus.
#pragma once

#include <libsoup/soup.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "stage/relay_rules.h"

namespace studio {

/// Passes text messages both ways until either end closes, or the guest asks for what a guest has no use for.
/// For one loop's thread.
class Relay {
 public:
  /// In bytes, of a message of the guest's, who is not trusted: session descriptions are the largest.
  static constexpr std::size_t largestFromGuest = 65'536;

  /// `closed` is called once, when both ends are closed; it may destroy this object.
  Relay(SoupWebsocketConnection* guest, SoupSession* session, const std::string& url,
        std::shared_ptr<SeatSessions> seat, std::function<void(Relay& self)> closed);
  ~Relay();
  /// Ends the guest's session with the server, and both connections.
  void end();
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

 private:
  void attach(SoupWebsocketConnection* end);
  void onMessage(const SoupWebsocketConnection* from, int type, GBytes* message);
  void onClosed();

  SoupWebsocketConnection* guest_;
  SoupWebsocketConnection* janus_ = nullptr;
  std::vector<GBytes*> early_;  // came before Janus was reached
  RelayRules rules_;
  GCancellable* cancellable_;
  std::function<void(Relay& self)> closed_;
};

}  // namespace studio
