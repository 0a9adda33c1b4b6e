#include "link.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "connection.h"
#include "log.h"

namespace platform::xpc {
namespace {

constexpr size_t kOutboxLimit = size_t{8} * 1024 * 1024;
constexpr size_t kChargePerDatagram = 256;
constexpr size_t kChargePerDescriptor = size_t{64} * 1024;
constexpr size_t kMostDescriptorsOfTheSystem = 253;  // SCM_MAX_FD
// So many messages are read before other peers have their turn, though more may be there.
constexpr unsigned kMessagesAtOnce = 32;

size_t chargeOf(const Incoming& incoming, size_t descriptors) {
  return kChargePerDatagram + incoming.bodyLength + descriptors * kChargePerDescriptor;
}

// Large bodies take milliseconds to read. They are read here, one at a time for all links, so that the
// reactor's threads are there for other peers.
dispatch_queue_t largeBodies() {
  static const dispatch_queue_t queue = dispatch_queue_create("xpc large bodies", DISPATCH_QUEUE_SERIAL);
  return queue;
}

}  // namespace

Link::Link(FileDescriptor socket, const ucred& peer, Peers::Place place)
    : place_(std::move(place)), socket_(std::move(socket)), peer_(peer) {}
Link::~Link() = default;

void Link::open(Ref<_xpc_connection_s> connection) {
  connection_ = std::move(connection);
  id_ = Reactor::shared().newId();
  Reactor::shared().add(id_, socket_.get(), EPOLLIN, shared_from_this());
}

uint32_t Link::wantedEvents() const {
  return outbox_.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT;
}

// 0, or what errno says.
int Link::trySend(std::span<const uint8_t> bytes, std::span<const Ref<Descriptor>> descriptors) const {
  iovec vector{const_cast<uint8_t*>(bytes.data()), bytes.size()};
  msghdr message{};
  message.msg_iov = &vector;
  message.msg_iovlen = 1;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(kMostDescriptors * sizeof(int))> control;
  if (!descriptors.empty()) {
    message.msg_control = control.data();
    message.msg_controllen = CMSG_SPACE(descriptors.size() * sizeof(int));
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
    for (size_t i = 0; i < descriptors.size(); i++) {
      const int fd = descriptors[i]->value.get();
      memcpy(CMSG_DATA(header) + i * sizeof fd, &fd, sizeof fd);
    }
  }
  ssize_t sent;
  do sent = sendmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  while (sent < 0 && errno == EINTR);
  return sent < 0 ? errno : 0;
}

void Link::send(const Outgoing& datagram) {
  Outbox dropped;
  const char* reason = nullptr;
  {
    std::lock_guard lock(sendMutex_);
    if (hungUp_) return;
    const int error = outbox_.empty() ? trySend(datagram.bytes, datagram.descriptors) : EAGAIN;
    // A peer that has gone is noticed by the reader, once it has read what the peer sent last.
    if (error == 0 || error == EPIPE || error == ECONNRESET) return;
    const size_t charge = kChargePerDatagram + kHeaderSize + datagram.bodyLength;
    if (error != EAGAIN) {
      reason = strerrordesc_np(error);
    } else if (outboxCharge_ + charge > kOutboxLimit) {
      reason = "it does not read, and more than 8 MiB wait for it";
    } else {
      outbox_.push_back({datagram.bytes, datagram.descriptors, charge});
      outboxCharge_ += charge;
      if (outbox_.size() == 1) Reactor::shared().change(id_, socket_.get(), wantedEvents());
      return;
    }
    dropped = hangUp();
  }
  log(reason);
}

void Link::flush() {
  std::lock_guard lock(sendMutex_);
  while (!outbox_.empty()) {
    const Waiting& next = outbox_.front();
    if (trySend(next.bytes, next.descriptors) == EAGAIN) break;
    outboxCharge_ -= next.charge;
    outbox_.pop_front();
  }
  if (outbox_.empty() && !hungUp_) Reactor::shared().change(id_, socket_.get(), wantedEvents());
}

void Link::close() {
  Outbox dropped;  // let go without the lock
  std::lock_guard lock(sendMutex_);
  dropped = hangUp();
}

// The end of the socket wakes the reader, which then tells the connection.
Link::Outbox Link::hangUp() {
  hungUp_ = true;
  shutdown(socket_.get(), SHUT_RDWR);
  outboxCharge_ = 0;
  return std::exchange(outbox_, {});
}

void Link::resume() {
  paused_ = false;
  lookAgain();
}

// Gives an event for what has come meanwhile.
void Link::lookAgain() {
  std::lock_guard lock(sendMutex_);
  Reactor::shared().change(id_, socket_.get(), wantedEvents());
}

void Link::ready(uint32_t events) {
  if (events & EPOLLOUT) flush();
  Work work;
  {
    std::lock_guard lock(readMutex_);
    unsigned count = 0;
    while (connection_ && (hungUp_ || !(paused_ || takingIn_))) {
      if (count++ == kMessagesAtOnce) {
        lookAgain();
        break;
      }
      Incoming incoming;
      size_t charge = 0;
      const Received received = receive(incoming, charge);
      if (received == Received::nothing) break;
      if (received == Received::message) {
        connection_->linkReceived(shared_from_this(), std::move(incoming), charge, work);
      } else {
        end(work);
      }
    }
  }
  Reactor::shared().run(work);
}

void Link::end(Work& work) {
  close();
  Reactor::shared().remove(id_, socket_.get());
  std::exchange(connection_, {})->linkClosed(*this, work);
}

Link::Received Link::receive(Incoming& incoming, size_t& charge) {
  if (hungUp_) return Received::end;
  alignas(8) std::array<uint8_t, kHeaderSize + kLargestInline> bytes;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(kMostDescriptorsOfTheSystem * sizeof(int))> control;
  iovec vector{bytes.data(), bytes.size()};
  msghdr message{};
  message.msg_iov = &vector;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();

  ssize_t length;
  // ECONNRESET: the peer has gone with messages unread. What it sent can still be read.
  do length = recvmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  while (length < 0 && (errno == EINTR || errno == ECONNRESET));
  if (length < 0) return errno == EAGAIN ? Received::nothing : Received::end;

  std::array<std::byte, kMostDescriptorsOfTheSystem * sizeof(FileDescriptor)> room;
  std::pmr::monotonic_buffer_resource memory(room.data(), room.size());
  std::pmr::vector<FileDescriptor> descriptors(&memory);
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    descriptors.reserve(descriptors.size() + count);
    for (size_t i = 0; i < count; i++) {
      int fd;
      memcpy(&fd, CMSG_DATA(header) + i * sizeof fd, sizeof fd);
      descriptors.emplace_back(fd);
    }
  }
  if (length == 0 && descriptors.empty()) {
    // The end, or an empty datagram.
    pollfd socket{socket_.get(), POLLRDHUP, 0};
    if (poll(&socket, 1, 0) == 1) return Received::end;
  }
  if (message.msg_flags & MSG_TRUNC) {
    incoming.problem = "a message that is too long";
  } else if (message.msg_flags & MSG_CTRUNC) {
    incoming.problem = "descriptors that could not be taken";
  } else if (const std::span datagram(bytes.data(), static_cast<size_t>(length)); hasLargeBody(datagram)) {
    takingIn_ = true;
    auto large = std::make_shared<Large>(
        Large{{datagram.begin(), datagram.end()},
              {std::make_move_iterator(descriptors.begin()), std::make_move_iterator(descriptors.end())}});
    dispatch_async(largeBodies(), [self = shared_from_this(), large] { self->takeIn(*large); });
    return Received::nothing;
  } else {
    incoming = decode(datagram, descriptors);
  }
  if (incoming.problem) {
    log(incoming.problem);
    return Received::end;
  }
  charge = chargeOf(incoming, descriptors.size());
  return Received::message;
}

void Link::takeIn(Large& datagram) {
  Incoming incoming = decode(datagram.bytes, datagram.descriptors);
  const size_t charge = chargeOf(incoming, datagram.descriptors.size());
  Work work;
  {
    std::lock_guard lock(readMutex_);
    takingIn_ = false;
    if (!connection_) return;
    if (incoming.problem) {
      log(incoming.problem);
      end(work);
    } else {
      connection_->linkReceived(shared_from_this(), std::move(incoming), charge, work);
      lookAgain();
    }
  }
  work.submit();
}

void Link::refuse(const char* reason) {
  log(reason);
  close();
}

void Link::log(const char* reason) const {
  logOffence(peer_.pid, fmt::format("XPC: disconnecting process {}: {}", peer_.pid, reason));
}

}  // namespace platform::xpc
