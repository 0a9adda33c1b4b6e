#include "service.h"

#include <fmt/format.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <unordered_set>

#include "connection.h"
#include "log.h"

namespace platform::xpc::service {
namespace {

// As long as this a process that was asked to end waits for its handlers.
constexpr std::chrono::seconds kTerminationGrace{5};
// So many descriptors are enough for every connection and what it carries.
constexpr rlim_t kEnoughDescriptors = 65'536;

struct State {
  std::mutex mutex;
  std::condition_variable changed;
  unsigned connections = 0;
  std::unordered_set<xpc_connection_t> peers;  // the active ones, which keep themselves alive
  unsigned transactions = 0;
  unsigned unhandledTerminations = 0;
  bool startedOnDemand = false;
};

State& state() {
  static auto& state = *new State;
  return state;
}

[[noreturn]] void fail(const std::string& why) {
  logLine(fmt::format("XPC: cannot serve: {}", why));
  exit(EXIT_FAILURE);
}

std::string ownName() {
  const char* name = getenv("XPC_SERVICE_NAME");
  return name && *name ? name : program_invocation_short_name;
}

// The socket that systemd passed, else one at the service's name.
std::shared_ptr<Listener> listeningSocket() {
  const int count = sd_listen_fds(1);
  if (count < 0 || count > 1 ||
      (count == 1 && sd_is_socket(SD_LISTEN_FDS_START, AF_UNIX, SOCK_SEQPACKET, 1) <= 0))
    fail("systemd must pass one socket, made with ListenSequentialPacket=");
  if (count == 1) {
    state().startedOnDemand = true;
    return std::make_shared<Listener>(FileDescriptor(SD_LISTEN_FDS_START));
  }
  std::string problem;
  auto listener = Listener::create(ownName(), problem);
  if (!listener) fail(problem);
  return listener;
}

// The usual limit of 1024 is meant for programs that call select.
void raiseDescriptorLimit() {
  rlimit descriptors{};
  if (getrlimit(RLIMIT_NOFILE, &descriptors) < 0) return;
  descriptors.rlim_cur = std::max(descriptors.rlim_cur, std::min(descriptors.rlim_max, kEnoughDescriptors));
  setrlimit(RLIMIT_NOFILE, &descriptors);
}

// Ends the process once every client's handler has heard of it, and so has done with what came before. Open
// transactions keep a process that is idle; one that was asked to end they do not hold back, since a service
// may leave them open for good.
[[noreturn]] void terminate() {
  State& state = service::state();
  std::vector<Ref<_xpc_connection_s>> peers;
  {
    std::lock_guard lock(state.mutex);
    for (xpc_connection_t peer : state.peers) peers.push_back(Ref<_xpc_connection_s>::retained(peer));
    state.unhandledTerminations = static_cast<unsigned>(peers.size());
  }
  for (auto& peer : peers) {
    peer->deliver(XPC_ERROR_TERMINATION_IMMINENT, [&state] {
      std::lock_guard lock(state.mutex);
      state.unhandledTerminations--;
      state.changed.notify_all();
    });
  }
  std::unique_lock lock(state.mutex);
  state.changed.wait_for(lock, kTerminationGrace, [&] { return state.unhandledTerminations == 0; });
  lock.unlock();
  exit(EXIT_SUCCESS);
}

}  // namespace

void peerAccepted() {
  std::lock_guard lock(state().mutex);
  state().connections++;
}

void peerActivated(xpc_connection_t peer) {
  std::lock_guard lock(state().mutex);
  state().peers.insert(peer);
}

void peerGone(xpc_connection_t peer) {
  {
    std::lock_guard lock(state().mutex);
    state().peers.erase(peer);
    state().connections--;
  }
  endIfIdle();
}

void endIfIdle() {
  bool idle;
  {
    State& state = service::state();
    std::lock_guard lock(state.mutex);
    idle = state.startedOnDemand && state.connections == 0 && state.transactions == 0;
  }
  // Without the lock: exit runs other people's code.
  if (idle) exit(EXIT_SUCCESS);
}

}  // namespace platform::xpc::service

using namespace platform::xpc;

extern "C" {

void xpc_transaction_begin(void) {
  std::lock_guard lock(service::state().mutex);
  service::state().transactions++;
}

void xpc_transaction_end(void) {
  {
    std::lock_guard lock(service::state().mutex);
    if (service::state().transactions > 0) service::state().transactions--;
  }
  service::endIfIdle();
}

void xpc_main(xpc_connection_handler_t handler) {
  // Blocked in every thread, so that it is this one that takes it.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  service::raiseDescriptorLimit();

  auto listener = _xpc_connection_s::forListener(service::listeningSocket());
  listener->setHandler([handler](xpc_object_t event) {
    if (auto* peer = cast<_xpc_connection_s>(event, XPC_TYPE_CONNECTION)) handler(peer);
  });
  listener->activate();

  int signal;
  while (sigwait(&signals, &signal) != 0) {
  }
  service::terminate();
}

}  // extern "C"
