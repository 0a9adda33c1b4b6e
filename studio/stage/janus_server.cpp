#include "stage/janus_server.h"

#include <fmt/format.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "stage/secret.h"

namespace studio {

namespace {

constexpr std::chrono::seconds restartPause(1);
constexpr std::chrono::seconds endLimit(3);

// A port that nobody listens at just now.
std::uint16_t freePort() {
  GSocket* socket = g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP, nullptr);
  GInetAddress* loopback = g_inet_address_new_loopback(G_SOCKET_FAMILY_IPV4);
  GSocketAddress* any = g_inet_socket_address_new(loopback, 0);
  g_socket_bind(socket, any, FALSE, nullptr);
  GSocketAddress* bound = g_socket_get_local_address(socket, nullptr);
  const std::uint16_t port = bound ? g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(bound)) : 0;
  g_clear_object(&bound);
  g_object_unref(any);
  g_object_unref(loopback);
  g_object_unref(socket);
  return port;
}

// In the child, after fork: a group of its own, so that a Ctrl-C is the studio's to act on, and an end
// with the studio.
void prepareChild(gpointer parent) {
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != static_cast<pid_t>(GPOINTER_TO_INT(parent))) _exit(127);
}

// The folder where Janus's modules of a kind ("plugins", "transports") are installed.
std::filesystem::path installed(const std::string& kind) {
  for (const char* library : {"/usr/lib/x86_64-linux-gnu", "/usr/lib/aarch64-linux-gnu", "/usr/lib64",
                              "/usr/lib", "/usr/local/lib"}) {
    auto folder = std::filesystem::path(library) / "janus" / kind;
    if (std::filesystem::is_directory(folder)) return folder;
  }
  throw std::runtime_error("Janus's " + kind +
                           " are not where they are looked for; install the package janus");
}

}  // namespace

JanusServer::JanusServer(Settings settings, Listener& listener)
    : settings_(std::move(settings)), listener_(listener), adminKey_(unguessable()) {
  if (settings_.port == 0) settings_.port = freePort();
  writeConfiguration();
}

JanusServer::~JanusServer() {
  rooms_.reset();
  if (!process_) return;
  g_cancellable_cancel(watching_);
  g_object_unref(watching_);
  g_subprocess_send_signal(process_, SIGCONT);  // it may have been stopped
  g_subprocess_send_signal(process_, SIGTERM);
  Timer limit;
  limit.once(endLimit, [this] { g_subprocess_force_exit(process_); });
  bool ended = false;
  g_subprocess_wait_async(
      process_, nullptr, [](GObject*, GAsyncResult*, gpointer end) { *static_cast<bool*>(end) = true; },
      &ended);
  while (!ended) loop_.turn();
  g_object_unref(process_);
}

std::string JanusServer::url() const {
  return fmt::format("ws://127.0.0.1:{}", settings_.port);
}

void JanusServer::writeConfiguration() {
  // Of Janus's modules only these are loaded: everything else is one more door.
  for (const auto& [kind, modules] : std::vector<std::pair<std::string, std::vector<std::string>>>{
           {"plugins", {"libjanus_videoroom.so", "libjanus_textroom.so"}},
           {"transports", {"libjanus_websockets.so"}},
           {"events", {}},
           {"loggers", {}}}) {
    std::filesystem::create_directory(directory_.path() / kind);
    for (const std::string& module : modules) {
      std::filesystem::create_symlink(installed(kind) / module, directory_.path() / kind / module);
    }
  }
  const std::string path = directory_.path().string();
  directory_.write("janus.jcfg", fmt::format(R"(general: {{
  configs_folder = "{0}"
  plugins_folder = "{0}/plugins"
  transports_folder = "{0}/transports"
  events_folder = "{0}/events"
  loggers_folder = "{0}/loggers"
  debug_level = 3
  debug_timestamps = true
  debug_colors = false
  session_timeout = 60
  # How long a session outlives its WebSocket, to be claimed by a new one.
  reclaim_session_timeout = 30
}}
media: {{
  twcc_period = 100
}}
nat: {{
  ignore_mdns = true
}}
)",
                                             path));
  directory_.write("janus.transport.websockets.jcfg", fmt::format(R"(general: {{
  json = "compact"
  ws = true
  ws_ip = "127.0.0.1"
  ws_port = {}
  wss = false
}}
)",
                                                                  settings_.port));
  // The key keeps guests from making rooms of their own.
  for (const char* plugin : {"videoroom", "textroom"}) {
    directory_.write(fmt::format("janus.plugin.{}.jcfg", plugin), fmt::format(R"(general: {{
  string_ids = true
  json = "compact"
  admin_key = "{}"
}}
)",
                                                                              adminKey_));
  }
}

void JanusServer::start() {
  GSubprocessLauncher* launcher = g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDERR_MERGE);
  g_subprocess_launcher_set_stdout_file_path(launcher, (directory_.path() / "janus.log").c_str());
  g_subprocess_launcher_set_child_setup(launcher, prepareChild, GINT_TO_POINTER(getpid()), nullptr);
  const std::string folder = "--configs-folder=" + directory_.path().string();
  GError* error = nullptr;
  process_ =
      g_subprocess_launcher_spawn(launcher, &error, settings_.program.c_str(), folder.c_str(), nullptr);
  g_object_unref(launcher);
  if (!process_) {
    const std::string reason = error->message;
    g_error_free(error);
    listener_.onJanusFailed(
        fmt::format("{} cannot be started: {}; install the package janus", settings_.program, reason));
    return;
  }
  watching_ = g_cancellable_new();
  g_subprocess_wait_async(
      process_, watching_,
      [](GObject* process, GAsyncResult* result, gpointer self) {
        if (g_subprocess_wait_finish(G_SUBPROCESS(process), result, nullptr)) {
          static_cast<JanusServer*>(self)->onEnd();
        }
      },
      this);
  look();
}

// Whether it serves is seen by a session with it.
void JanusServer::look() {
  rooms_ = std::make_unique<Rooms>(
      url(), adminKey_,
      JanusClient::Listener{[this] {
                              served_ = true;
                              listener_.onServing(*rooms_);
                            },
                            [this](const std::string& fault) {
                              if (served_) {
                                g_subprocess_force_exit(process_);
                              } else {
                                listener_.onJanusFailed(
                                    fmt::format("Janus does not serve: {}\n{}", fault, logTail()));
                              }
                            }});
}

void JanusServer::onEnd() {
  const std::string reason =
      g_subprocess_get_if_signaled(process_)
          ? fmt::format("killed by signal {}", g_subprocess_get_term_sig(process_))
          : fmt::format("ended with status {}", g_subprocess_get_exit_status(process_));
  g_clear_object(&watching_);
  g_clear_object(&process_);
  if (!served_) {
    listener_.onJanusFailed(fmt::format("Janus {} at its start; its last words:\n{}", reason, logTail()));
    return;
  }
  listener_.onJanusEnded(reason);
  rooms_.reset();
  again_.once(restartPause, [this] { start(); });
}

std::string JanusServer::logTail() const {
  constexpr std::streamoff length = 2000;
  std::ifstream log(directory_.path() / "janus.log", std::ios::ate);
  const std::streamoff size = log.tellg();
  log.seekg(std::max<std::streamoff>(0, size - length));
  return std::string(std::istreambuf_iterator<char>(log), {});
}

}  // namespace studio
