#include "Link.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "Connection.h"
#include "Log.h"

namespace platform::xpc {
namespace {

constexpr size_t kOutboxLimit = size_t{8} * 1024 * 1024;
constexpr size_t kChargePerDatagram = 256;
constexpr size_t kChargePerDescriptor = size_t{64} * 1024;
constexpr size_t kMostDescriptorsOfTheSystem = 253;  // SCM_MAX_FD
// So many messages are read before their handlers are started, though more may be there.
constexpr unsigned kMessagesAtOnce = 32;

}  // namespace

Link::Link(FileDescriptor socket, const ucred& peer) : m_socket(std::move(socket)), m_peer(peer) {}
Link::~Link() = default;

void Link::open(Ref<_xpc_connection_s> connection) {
  m_connection = std::move(connection);
  m_id = Reactor::shared().newId();
  Reactor::shared().add(m_id, m_socket.get(), EPOLLIN, shared_from_this());
}

uint32_t Link::wantedEvents() const {
  return m_outbox.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT;
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
  do sent = sendmsg(m_socket.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  while (sent < 0 && errno == EINTR);
  return sent < 0 ? errno : 0;
}

void Link::send(const Outgoing& datagram) {
  Outbox dropped;
  const char* reason = nullptr;
  {
    std::lock_guard lock(m_sendMutex);
    if (m_hungUp) return;
    const int error = m_outbox.empty() ? trySend(datagram.bytes, datagram.descriptors) : EAGAIN;
    // A peer that has gone is noticed by the reader, once it has read what the peer sent last.
    if (error == 0 || error == EPIPE || error == ECONNRESET) return;
    const size_t charge = kChargePerDatagram + kHeaderSize + datagram.bodyLength;
    if (error != EAGAIN) {
      reason = strerrordesc_np(error);
    } else if (m_outboxCharge + charge > kOutboxLimit) {
      reason = "it does not read, and more than 8 MiB wait for it";
    } else {
      m_outbox.push_back({datagram.bytes, datagram.descriptors, charge});
      m_outboxCharge += charge;
      if (m_outbox.size() == 1) Reactor::shared().change(m_id, m_socket.get(), wantedEvents());
      return;
    }
    dropped = hangUp();
  }
  log(reason);
}

void Link::flush() {
  std::lock_guard lock(m_sendMutex);
  while (!m_outbox.empty()) {
    const Waiting& next = m_outbox.front();
    if (trySend(next.bytes, next.descriptors) == EAGAIN) break;
    m_outboxCharge -= next.charge;
    m_outbox.pop_front();
  }
  if (m_outbox.empty() && !m_hungUp) Reactor::shared().change(m_id, m_socket.get(), wantedEvents());
}

void Link::close() {
  Outbox dropped;  // let go without the lock
  std::lock_guard lock(m_sendMutex);
  dropped = hangUp();
}

// The end of the socket wakes the reader, which then tells the connection.
Link::Outbox Link::hangUp() {
  m_hungUp = true;
  shutdown(m_socket.get(), SHUT_RDWR);
  m_outboxCharge = 0;
  return std::exchange(m_outbox, {});
}

void Link::resume() {
  m_paused = false;
  std::lock_guard lock(m_sendMutex);
  // Gives an event for what has come meanwhile.
  Reactor::shared().change(m_id, m_socket.get(), wantedEvents());
}

void Link::ready(uint32_t events) {
  if (events & EPOLLOUT) flush();
  Work work;
  {
    std::lock_guard lock(m_readMutex);
    unsigned count = 0;
    while (m_connection && (m_hungUp || !m_paused)) {
      Incoming incoming;
      size_t charge = 0;
      const Received received = receive(incoming, charge);
      if (received == Received::nothing) break;
      if (received == Received::message) {
        m_connection->linkReceived(shared_from_this(), std::move(incoming), charge, work);
        if (++count % kMessagesAtOnce == 0) work.submit();
      } else {
        close();
        Reactor::shared().remove(m_id, m_socket.get());
        std::exchange(m_connection, {})->linkClosed(*this, work);
      }
    }
  }
  Reactor::shared().run(work);
}

Link::Received Link::receive(Incoming& incoming, size_t& charge) {
  if (m_hungUp) return Received::end;
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
  do length = recvmsg(m_socket.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  while (length < 0 && (errno == EINTR || errno == ECONNRESET));
  if (length < 0) return errno == EAGAIN ? Received::nothing : Received::end;

  std::vector<FileDescriptor> descriptors;
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; i++) {
      int fd;
      memcpy(&fd, CMSG_DATA(header) + i * sizeof fd, sizeof fd);
      descriptors.emplace_back(fd);
    }
  }
  if (length == 0 && descriptors.empty()) {
    // The end, or an empty datagram.
    pollfd socket{m_socket.get(), POLLRDHUP, 0};
    if (poll(&socket, 1, 0) == 1) return Received::end;
  }
  if (message.msg_flags & MSG_TRUNC) {
    incoming.problem = "a message that is too long";
  } else if (message.msg_flags & MSG_CTRUNC) {
    incoming.problem = "descriptors that could not be taken";
  } else {
    incoming = decode({bytes.data(), static_cast<size_t>(length)}, descriptors);
  }
  if (incoming.problem) {
    log(incoming.problem);
    return Received::end;
  }
  charge = kChargePerDatagram + incoming.bodyLength + descriptors.size() * kChargePerDescriptor;
  return Received::message;
}

void Link::refuse(const char* reason) {
  log(reason);
  close();
}

void Link::log(const char* reason) const {
  logLine(fmt::format("XPC: disconnecting process {}: {}", m_peer.pid, reason));
}

}  // namespace platform::xpc
