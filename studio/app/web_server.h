// What guests' browsers reach: the page, and the session's server, at one port.
#pragma once

#include <libsoup/soup.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

namespace studio {

class Relay;

/// Serves the guests' page, its config.json, and at /janus a WebSocket that leads to Janus. For the main
/// loop's thread.
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

  /// Listens on return. Throws std::runtime_error with a text that says what to do.
  explicit WebServer(Settings settings);
  ~WebServer();
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  /// The page's address for a guest: "http://HOST:PORT/". Where the server listens at every address, HOST
  /// is the machine's first that is not loopback.
  std::string pageUrl() const;

 private:
  void listen();
  void serve(SoupServerMessage* message, const char* path) const;
  void upgrade(SoupServerMessage* message);
  void relay(SoupServerMessage* message);

  Settings settings_;
  SoupServer* server_;
  SoupSession* session_;
  std::map<Relay*, std::unique_ptr<Relay>> relays_;
};

/// The machine's first address besides loopback, or nothing.
std::string ownAddress();

}  // namespace studio
