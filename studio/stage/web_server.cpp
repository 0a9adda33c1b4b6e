#include "stage/web_server.h"

#include <fmt/format.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "stage/lobby_socket.h"
#include "stage/message_limit.h"
#include "stage/relay.h"

namespace studio {

namespace {

constexpr std::uint16_t usualPort = 8080;
constexpr std::size_t mostRelaysASeat = 4;
constexpr char janusProtocol[] = "janus-protocol";
constexpr char lobbyProtocol[] = "zarvo-lobby";
constexpr std::string_view seatPrefix = "seat.";

struct TypeOf {
  std::string_view ending;
  const char* type;
};
constexpr std::array types = {
    TypeOf{".html", "text/html; charset=utf-8"},
    TypeOf{".js", "text/javascript; charset=utf-8"},
    TypeOf{".css", "text/css; charset=utf-8"},
    TypeOf{".svg", "image/svg+xml"},
    TypeOf{".png", "image/png"},
    TypeOf{".ico", "image/x-icon"},
    TypeOf{".json", "application/json"},
    TypeOf{".webmanifest", "application/manifest+json"},
    TypeOf{".woff2", "font/woff2"},
};

// A host and port as a browser names them; anything else must not be repeated in a header.
bool isPlainHost(std::string_view host) {
  return !host.empty() && host.size() < 256 && std::all_of(host.begin(), host.end(), [](char letter) {
    return g_ascii_isalnum(letter) || letter == '.' || letter == '-' || letter == ':' || letter == '[' ||
           letter == ']';
  });
}

std::string_view hostOf(SoupServerMessage* message) {
  const char* host = soup_message_headers_get_one(soup_server_message_get_request_headers(message), "Host");
  return host && isPlainHost(host) ? host : std::string_view();
}

// A page from elsewhere must not use a guest's browser to reach the session.
bool comesFromOwnPage(SoupServerMessage* message) {
  const char* origin =
      soup_message_headers_get_one(soup_server_message_get_request_headers(message), "Origin");
  if (!origin) return true;  // no browser
  std::string_view host(origin);
  const std::size_t scheme = host.find("://");
  if (scheme == std::string_view::npos) return false;
  host.remove_prefix(scheme + 3);
  return !host.empty() && host == hostOf(message);
}

void setHeaders(SoupServerMessage* message) {
  SoupMessageHeaders* headers = soup_server_message_get_response_headers(message);
  const std::string_view host = hostOf(message);
  // Not every browser counts a WebSocket to the page's own host as 'self'.
  const std::string policy = fmt::format(
      "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data: blob:; "
      "media-src 'self' blob: mediastream:; font-src 'self'; manifest-src 'self'; "
      "connect-src 'self'{}; base-uri 'none'; form-action 'none'; frame-ancestors 'none'",
      host.empty() ? "" : fmt::format(" ws://{0} wss://{0}", host));
  soup_message_headers_replace(headers, "Content-Security-Policy", policy.c_str());
  soup_message_headers_replace(headers, "X-Content-Type-Options", "nosniff");
  soup_message_headers_replace(headers, "Referrer-Policy", "no-referrer");
  soup_message_headers_replace(headers, "Cross-Origin-Opener-Policy", "same-origin");
  soup_message_headers_replace(headers, "Cross-Origin-Resource-Policy", "same-origin");
  soup_message_headers_replace(headers, "Permissions-Policy",
                               "camera=(self), microphone=(self), display-capture=(self), geolocation=()");
  soup_message_headers_replace(headers, "Cache-Control", "no-cache");
}

// The file for a request's path, if it is one of the page's own.
std::optional<std::filesystem::path> fileAt(const std::filesystem::path& page, std::string_view path) {
  if (path == "/") path = "/index.html";
  const bool plain = std::all_of(path.begin(), path.end(), [](char letter) {
    return g_ascii_isalnum(letter) || letter == '.' || letter == '-' || letter == '_' || letter == '/';
  });
  if (!plain || !path.starts_with('/') || path.find("/.") != std::string_view::npos) return std::nullopt;
  std::error_code error;
  const auto file = std::filesystem::canonical(page / path.substr(1), error);
  if (error || !std::filesystem::is_regular_file(file)) return std::nullopt;
  const auto [end, ignored] = std::mismatch(page.begin(), page.end(), file.begin(), file.end());
  return end == page.end() ? std::optional(file) : std::nullopt;  // a link may lead out of the folder
}

void answer(SoupServerMessage* message, guint status, const char* type, const std::string& body) {
  soup_server_message_set_status(message, status, nullptr);
  soup_server_message_set_response(message, type, SOUP_MEMORY_COPY, body.data(), body.size());
}

// The key of the seat that the page names among the protocols it speaks.
std::string seatKeyOf(SoupServerMessage* message) {
  const char* header = soup_message_headers_get_list(soup_server_message_get_request_headers(message),
                                                     "Sec-WebSocket-Protocol");
  std::string_view rest = header ? header : "";
  while (!rest.empty()) {
    const std::size_t comma = std::min(rest.find(','), rest.size());
    std::string_view word = rest.substr(0, comma);
    rest.remove_prefix(std::min(comma + 1, rest.size()));
    while (word.starts_with(' ')) word.remove_prefix(1);
    if (word.starts_with(seatPrefix)) return std::string(word.substr(seatPrefix.size()));
  }
  return {};
}

// Answers the handshake; `done` gets the message once it is answered, and takes its connection.
void upgrade(SoupServerMessage* message, const char* protocol, std::function<void(SoupServerMessage*)> done) {
  const char* protocols[] = {protocol, nullptr};
  if (!soup_websocket_server_process_handshake(message, nullptr, const_cast<char**>(protocols), nullptr,
                                               nullptr)) {
    return;  // refused with the reason
  }
  using Done = std::function<void(SoupServerMessage*)>;
  g_signal_connect_data(
      message, "wrote-informational",
      G_CALLBACK(+[](SoupServerMessage* upgraded, gpointer data) { (*static_cast<Done*>(data))(upgraded); }),
      new Done(std::move(done)), [](gpointer data, GClosure*) { delete static_cast<Done*>(data); },
      G_CONNECT_DEFAULT);
}

SoupWebsocketConnection* connectionOf(SoupServerMessage* message, const char* protocol, std::size_t largest) {
  g_autoptr(GIOStream) stream = soup_server_message_steal_connection(message);
  return soup_websocket_connection_new(stream, soup_server_message_get_uri(message),
                                       SOUP_WEBSOCKET_CONNECTION_SERVER, nullptr, protocol,
                                       messageLimit(largest));
}

GSocketAddress* addressOf(const std::string& address, std::uint16_t port) {
  return g_inet_socket_address_new_from_string(address.c_str(), port);
}

}  // namespace

WebServer::WebServer(Settings settings, Listener& listener)
    : settings_(std::move(settings)),
      server_(soup_server_new("server-header", "zarvo-studio ", nullptr)),
      session_(soup_session_new()),
      listener_(listener) {
  std::error_code error;
  settings_.page = std::filesystem::canonical(settings_.page, error);
  if (error || !std::filesystem::is_regular_file(settings_.page / "index.html")) {
    throw std::runtime_error("the guests' page is not where it is looked for; name its folder with --web");
  }
  // A path of libsoup's stands for all that begin with it. And a WebSocket of its own making would offer
  // compression, whose output has no limit.
  soup_server_add_handler(
      server_, nullptr,
      [](SoupServer*, SoupServerMessage* message, const char* path, GHashTable*, gpointer self) {
        auto& server = *static_cast<WebServer*>(self);
        if (std::string_view(path) == "/janus") {
          server.onJanus(message);
        } else if (std::string_view(path) == "/lobby") {
          server.onLobby(message);
        } else {
          server.serve(message, path);
        }
      },
      this, nullptr);
  listen();
}

WebServer::~WebServer() {
  soup_server_disconnect(server_);
  relays_.clear();
  g_object_unref(server_);
  g_object_unref(session_);
}

void WebServer::listen() {
  SoupServerListenOptions options{};
  if (!settings_.certificate.empty()) {
    GError* error = nullptr;
    GTlsCertificate* certificate =
        g_tls_certificate_new_from_files(settings_.certificate.c_str(), settings_.key.c_str(), &error);
    if (!certificate) {
      const std::string reason = error->message;
      g_error_free(error);
      throw std::runtime_error(fmt::format("the certificate or its key cannot be used: {}", reason));
    }
    soup_server_set_tls_certificate(server_, certificate);
    g_object_unref(certificate);
    options = SOUP_SERVER_LISTEN_HTTPS;
  }
  std::vector<std::uint16_t> ports = {settings_.port};
  if (settings_.port == 0) ports = {usualPort, 0};
  std::string fault;
  for (const std::uint16_t port : ports) {
    GSocketAddress* address = addressOf(settings_.address, port);
    if (!address) {
      throw std::runtime_error(
          fmt::format("\"{}\" is no address to listen at; give one in numbers", settings_.address));
    }
    GError* error = nullptr;
    const bool listens = soup_server_listen(server_, address, options, &error);
    g_object_unref(address);
    if (listens) return;
    fault = error->message;
    g_error_free(error);
  }
  throw std::runtime_error(
      fmt::format("the page cannot be served at {} port {}: {}; choose another with --port",
                  settings_.address, settings_.port, fault));
}

std::string WebServer::pageUrl() const {
  GSList* uris = soup_server_get_uris(server_);
  const int port = g_uri_get_port(static_cast<GUri*>(uris->data));
  const char* scheme = g_uri_get_scheme(static_cast<GUri*>(uris->data));
  std::string host = settings_.address;
  if (host == "0.0.0.0" || host == "::") host = ownAddress().empty() ? "127.0.0.1" : ownAddress();
  if (host.find(':') != std::string::npos) host = "[" + host + "]";
  std::string url = fmt::format("{}://{}:{}/", scheme, host, port);
  g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
  return url;
}

void WebServer::serve(SoupServerMessage* message, const char* path) const {
  setHeaders(message);
  const std::string_view method = soup_server_message_get_method(message);
  if (method != SOUP_METHOD_GET && method != SOUP_METHOD_HEAD) {
    answer(message, SOUP_STATUS_METHOD_NOT_ALLOWED, "text/plain", "Only GET is understood.\n");
    return;
  }
  if (std::string_view(path) == "/config.json") {
    const nlohmann::json config = {{"server", "janus"}, {"iceServers", nlohmann::json::array()}};
    answer(message, SOUP_STATUS_OK, "application/json", config.dump());
    return;
  }
  const auto file = fileAt(settings_.page, path);
  const auto type = std::find_if(types.begin(), types.end(), [&](const TypeOf& each) {
    return file && file->extension() == each.ending;
  });
  std::ifstream stream;
  if (type != types.end()) stream.open(*file, std::ios::binary);
  if (!stream.is_open()) {
    answer(message, SOUP_STATUS_NOT_FOUND, "text/plain", "There is no such page.\n");
    return;
  }
  answer(message, SOUP_STATUS_OK, type->type, std::string(std::istreambuf_iterator<char>(stream), {}));
}

void WebServer::onLobby(SoupServerMessage* message) {
  if (!comesFromOwnPage(message)) {
    answer(message, SOUP_STATUS_FORBIDDEN, "text/plain", "The lobby is not to be reached from here.\n");
    return;
  }
  upgrade(message, lobbyProtocol, [this](SoupServerMessage* upgraded) {
    GSocketAddress* remote = soup_server_message_get_remote_address(upgraded);
    GInetAddress* address = g_inet_socket_address_get_address(G_INET_SOCKET_ADDRESS(remote));
    g_autofree char* text = g_inet_address_to_string(address);
    g_autoptr(SoupWebsocketConnection) page =
        connectionOf(upgraded, lobbyProtocol, LobbySocket::largestMessage);
    listener_.onPage(page, text);
  });
}

void WebServer::onJanus(SoupServerMessage* message) {
  const std::string key = seatKeyOf(message);
  const auto seat = listener_.seatOf(key);
  if (!comesFromOwnPage(message) || !seat || relays_.count(*seat) >= mostRelaysASeat) {
    answer(message, SOUP_STATUS_FORBIDDEN, "text/plain", "Only who has a seat gets to the session.\n");
    return;
  }
  upgrade(message, janusProtocol, [this, key](SoupServerMessage* upgraded) { relay(upgraded, key); });
}

void WebServer::relay(SoupServerMessage* message, const std::string& key) {
  g_autoptr(SoupWebsocketConnection) guest = connectionOf(message, janusProtocol, Relay::largestFromGuest);
  // Others may have asked at the same time, and the seat may be gone by now.
  const auto owner = listener_.seatOf(key);
  if (!owner || relays_.count(*owner) >= mostRelaysASeat) return;
  const std::uint32_t seat = *owner;
  auto& sessions = sessions_[seat];
  if (!sessions) sessions = std::make_shared<SeatSessions>();
  relays_.emplace(
      seat, std::make_unique<Relay>(guest, session_, settings_.janus, sessions, [this, seat](Relay& ended) {
        const auto [begin, end] = relays_.equal_range(seat);
        const auto found =
            std::find_if(begin, end, [&](const auto& each) { return each.second.get() == &ended; });
        // Not at once: the relay is still calling.
        loop_.post([gone = std::shared_ptr<Relay>(std::move(found->second))] {});
        relays_.erase(found);
      }));
}

void WebServer::closeSeat(std::uint32_t seat) {
  std::vector<Relay*> ending;
  const auto [begin, end] = relays_.equal_range(seat);
  for (auto each = begin; each != end; ++each) ending.push_back(each->second.get());
  for (Relay* const relay : ending) relay->end();  // each takes itself out
  sessions_.erase(seat);
}

std::string ownAddress() {
  ifaddrs* interfaces = nullptr;
  if (getifaddrs(&interfaces) != 0) return {};
  std::string found;
  for (const ifaddrs* each = interfaces; each && found.empty(); each = each->ifa_next) {
    const bool usable = (each->ifa_flags & IFF_UP) && !(each->ifa_flags & IFF_LOOPBACK);
    if (!usable || !each->ifa_addr || each->ifa_addr->sa_family != AF_INET) continue;
    char text[NI_MAXHOST];
    if (getnameinfo(each->ifa_addr, sizeof(sockaddr_in), text, sizeof text, nullptr, 0, NI_NUMERICHOST) ==
        0) {
      found = text;
    }
  }
  freeifaddrs(interfaces);
  return found;
}

}  // namespace studio
