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
  lock_ = {};
  connection = std::move(connection_);
}

void Listener::ready(uint32_t) {
  Work work;
  {
    std::lock_guard lock(mutex_);
    while (connection_) {
      FileDescriptor socket(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (!socket) {
        if (errno == EINTR || errno == ECONNABORTED) continue;
        if (errno != EAGAIN) logLine(fmt::format("XPC: cannot accept a client: {}", strerror(errno)));
        break;
      }
      ucred peer{};
      socklen_t size = sizeof peer;
      if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) < 0 || peer.uid != geteuid()) {
        logLine(fmt::format("XPC: refusing process {} of user {}", peer.pid, peer.uid));
        socket = {};
        service::endIfIdle();
        continue;
      }
      connection_->accepted(std::make_shared<Link>(std::move(socket), peer), work);
    }
  }
  Reactor::shared().run(work);
}

}  // namespace platform::xpc
