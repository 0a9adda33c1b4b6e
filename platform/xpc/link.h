// One connected socket: datagrams out, with what the socket does not take kept back, and datagrams in.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <span>

#include "datagram.h"
#include "peers.h"
#include "reactor.h"

namespace platform::xpc {

class Link final : public Reactor::Source, public std::enable_shared_from_this<Link> {
 public:
  // place: of an accepted connection among its process's; given back when the socket is closed.
  Link(FileDescriptor socket, const ucred& peer, Peers::Place place = {});
  ~Link() override;

  const ucred& peer() const { return peer_; }

  // Begins to read, for the connection's linkReceived and, in the end, its linkClosed. Those calls come on
  // the reactor's threads, one at a time. Called once, before anything else.
  void open(Ref<_xpc_connection_s> connection);
  // Sends the datagram, now or later; drops it if the link is closed.
  void send(const Outgoing& datagram);
  // Hangs up. What has left before still reaches the peer, nothing more is received.
  void close();
  // The same, with a line in the system log that says why.
  void refuse(const char* reason);
  // Stops and goes on reading. What the peer has sent meanwhile waits in the socket, and then at the peer.
  void pause() { paused_ = true; }
  void resume();

  void ready(uint32_t events) override;

 private:
  // A datagram that waits for room in the socket.
  struct Waiting {
    Bytes bytes;
    Descriptors descriptors;
    size_t charge = 0;
  };
  using Outbox = std::list<Waiting>;  // which is mostly empty, and then takes no memory
  // A datagram whose body is read apart.
  struct Large {
    Bytes bytes;
    std::vector<FileDescriptor> descriptors;
  };
  enum class Received { message, nothing, end };

  int trySend(std::span<const uint8_t> bytes, std::span<const Ref<Descriptor>> descriptors) const;
  void flush();
  Outbox hangUp();
  void lookAgain();
  uint32_t wantedEvents() const;
  // With readMutex_ held:
  Received receive(Incoming& incoming, size_t& charge);
  void end(Work& work);

  void takeIn(Large& datagram);
  void log(const char* reason) const;

  const Peers::Place place_;  // until the socket is closed
  const FileDescriptor socket_;
  const ucred peer_;
  std::atomic<bool> hungUp_{false};
  std::atomic<bool> paused_{false};

  std::mutex readMutex_;  // taken before the connection's, which is taken before sendMutex_
  Ref<_xpc_connection_s> connection_;
  bool takingIn_ = false;  // a large body; what comes after it waits

  uint64_t id_ = 0;

  std::mutex sendMutex_;
  Outbox outbox_;
  size_t outboxCharge_ = 0;
};

}  // namespace platform::xpc
