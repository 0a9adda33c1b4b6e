#include "listener.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "connection.h"
#include "log.h"
#include "service.h"

namespace platform::xpc {
namespace {

// After this a listener that could not accept looks again.
constexpr int64_t kPause = 100 * NSEC_PER_MSEC;

}  // namespace

const char* addressOf(const std::string& name, sockaddr_un& address) {
  if (name.empty() || name.find('/') != std::string::npos) return "this is no name of a service";
  const char* directory = getenv("XDG_RUNTIME_DIR");
  const std::string path = directory && *directory ? fmt::format("{}/{}", directory, name)
                                                   : fmt::format("/run/user/{}/{}", getuid(), name);
  address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return "its socket's path is too long";
  memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return nullptr;
}

Listener::Listener(FileDescriptor socket) : socket_(std::move(socket)) {
  fcntl(socket_.get(), F_SETFL, fcntl(socket_.get(), F_GETFL) | O_NONBLOCK);
}

Listener::~Listener() = default;

namespace {

bool isLive(const sockaddr_un& address) {
  const FileDescriptor probe(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
         errno == EAGAIN;
}

}  // namespace

std::shared_ptr<Listener> Listener::create(const std::string& name, std::string& problem) {
  sockaddr_un address;
  if (const char* wrong = addressOf(name, address)) {
    problem = wrong;
    return nullptr;
  }
  const auto failed = [&](const char* what, const char* why) {
    problem = fmt::format("{} {}: {}", what, address.sun_path, why);
    return nullptr;
  };

  // The lock keeps two processes from taking each other's socket for a stale one; a socket may also be held
  // by a process that knows nothing of the lock, such as systemd.
  FileDescriptor lock(
      ::open(fmt::format("{}.lock", address.sun_path).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!lock) return failed("cannot lock", strerror(errno));
  if (flock(lock.get(), LOCK_EX | LOCK_NB) < 0 || isLive(address))
    return failed("cannot listen at", "another process does");
  struct stat status;
  if (lstat(address.sun_path, &status) == 0) {
    if (!S_ISSOCK(status.st_mode)) return failed("cannot listen at", "there is something else");
    unlink(address.sun_path);
  }

  FileDescriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  // The mode that the socket has is the one its file gets.
  if (!socket || fchmod(socket.get(), 0600) < 0 ||
      bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0 ||
      listen(socket.get(), SOMAXCONN) < 0)
    return failed("cannot listen at", strerror(errno));
  auto listener = std::make_shared<Listener>(std::move(socket));
  listener->lock_ = std::move(lock);
  return listener;
}

void Listener::open(Ref<_xpc_connection_s> connection) {
  connection_ = std::move(connection);
  id_ = Reactor::shared().newId();
  Reactor::shared().add(id_, socket_.get(), EPOLLIN, shared_from_this());
}

void Listener::close() {
  Ref<_xpc_connection_s> connection;
  std::lock_guard lock(mutex_);
  Reactor::shared().remove(id_, socket_.get());
  socket_ = {};
  reserve_ = {};
  lock_ = {};
  connection = std::move(connection_);
}

void Listener::ready(uint32_t) {
  Work work;
  acceptAll(work);
  Reactor::shared().run(work);
}

void Listener::acceptAll(Work& work) {
  std::lock_guard lock(mutex_);
  while (connection_) {
    if (!reserve_) reserve_ = FileDescriptor(fcntl(socket_.get(), F_DUPFD_CLOEXEC, 0));
    FileDescriptor socket(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket && (errno == EMFILE || errno == ENFILE) && reserve_) {
      reserve_ = {};
      socket = FileDescriptor(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    }
    if (!socket) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno == EAGAIN) return;
      logLine(fmt::format("XPC: cannot accept a client: {}", strerror(errno)));
      return lookAgainLater();
    }
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) < 0 || peer.uid != geteuid()) {
      logOffence(peer.pid, fmt::format("XPC: refusing process {} of user {}", peer.pid, peer.uid));
      socket = {};
      service::endIfIdle();
    } else if (auto place = peers_.enter(peer.pid)) {
      connection_->accepted(std::make_shared<Link>(std::move(socket), peer, std::move(place)), work);
    } else {
      logOffence(peer.pid, fmt::format("XPC: refusing process {}: too many connections", peer.pid));
    }
  }
}

// No event tells that there are descriptors again.
void Listener::lookAgainLater() {
  dispatch_after(dispatch_time(DISPATCH_TIME_NOW, kPause), dispatch_get_global_queue(QOS_CLASS_DEFAULT, 0),
                 [weak = weak_from_this()] {
                   Work work;
                   if (auto self = weak.lock()) self->acceptAll(work);
                   work.submit();
                 });
}

}  // namespace platform::xpc
