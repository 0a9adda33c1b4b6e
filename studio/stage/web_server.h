// What guests' browsers reach: the page, and the session's server, at one port.
#pragma once

#include <libsoup/soup.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "stage/loop.h"

namespace studio {

class Relay;
class SeatSessions;

/// Serves the guests' page, its config.json, at /lobby the page's WebSocket to the lobby, and at /janus, for
/// who has a seat, one that leads to Janus: it names the seat's key as a subprotocol, "seat.KEY", beside
/// "janus-protocol", since an address would be logged. For one loop's thread.
class WebServer {
 public:
  struct Settings {
    std::string address = "127.0.0.1";  ///< of this machine, or "0.0.0.0" or "::" for all
    std::uint16_t port = 0;             ///< 0: 8080, or a free one if that is taken
    std::filesystem::path page;         ///< the folder of the page's files
    std::string janus;                  ///< where /janus leads to
    std::filesystem::path certificate;  ///< PEM; with a key, the server speaks TLS
    std::filesystem::path key;
  };

  class Listener {
   public:
    virtual ~Listener() = default;
    /// The seat whose key this is.
    virtual std::optional<std::uint32_t> seatOf(std::string_view key) = 0;
    /// A page has come to the lobby. `address` is where it comes from.
    virtual void onPage(SoupWebsocketConnection* connection, const std::string& address) = 0;
  };

  /// Listens on return. Throws std::runtime_error with a text that says what to do.
  WebServer(Settings settings, Listener& listener);
  ~WebServer();
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  /// The page's address for a guest: "http://HOST:PORT/". Where the server listens at every address, HOST
  /// is the machine's first that is not loopback.
  std::string pageUrl() const;
  /// Ends what the seat's guest has to do with the session server.
  void closeSeat(std::uint32_t seat);

 private:
  void listen();
  void serve(SoupServerMessage* message, const char* path) const;
  void onLobby(SoupServerMessage* message);
  void onJanus(SoupServerMessage* message);
  void relay(SoupServerMessage* message, const std::string& key);

  Settings settings_;
  SoupServer* server_;
  SoupSession* session_;
  Listener& listener_;
  Loop loop_;
  std::multimap<std::uint32_t, std::unique_ptr<Relay>> relays_;      // by seat
  std::map<std::uint32_t, std::shared_ptr<SeatSessions>> sessions_;  // likewise
};

/// The machine's first address besides loopback, or nothing.
std::string ownAddress();

}  // namespace studio
