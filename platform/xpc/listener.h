// A listening socket, and the names of sockets.
#pragma once

#include <sys/un.h>

#include <memory>
#include <mutex>
#include <string>

#include "file_descriptor.h"
#include "object.h"
#include "peers.h"
#include "reactor.h"

namespace platform::xpc {

// Where the service of that name listens. Answers what is wrong with the name, or null.
const char* addressOf(const std::string& name, sockaddr_un& address);

class Listener final : public Reactor::Source, public std::enable_shared_from_this<Listener> {
 public:
  // Takes a socket that listens already.
  explicit Listener(FileDescriptor socket);
  ~Listener() override;

  // Makes the socket at the service's name. On failure answers null and says why.
  static std::shared_ptr<Listener> create(const std::string& name, std::string& problem);

  // Begins to accept, for the connection's accepted.
  void open(Ref<_xpc_connection_s> connection);
  void close();

  void ready(uint32_t events) override;

 private:
  void acceptAll(Work& work);
  void lookAgainLater();

  FileDescriptor lock_;  // of a name: held as long as the process listens there
  std::mutex mutex_;
  FileDescriptor socket_;
  // Given up for a client when descriptors have run out: it is let in, or what has too many connections is
  // turned away, and the next one has its turn.
  FileDescriptor reserve_;
  Peers peers_;
  uint64_t id_ = 0;
  Ref<_xpc_connection_s> connection_;
};

}  // namespace platform::xpc
