#include "connection.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <future>

#include "log.h"
#include "service.h"

using namespace platform::xpc;
using platform::xpc::Ref;

namespace {

// So much may have been read and not yet handled before the connection stops reading.
constexpr size_t kInboxLimit = size_t{8} * 1024 * 1024;

Ref<> reference(xpc_object_t object) {
  return Ref<>::retained(static_cast<Object*>(object));
}

QueueRef queueOrDefault(dispatch_queue_t queue) {
  return QueueRef(queue ? queue : dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0));
}

void addReply(const QueueRef& queue, xpc_handler_t handler, Ref<> reply, Work& work) {
  if (!queue) return handler(reply.get());
  work.add(queue, std::move(handler), std::move(reply));
}

}  // namespace

_xpc_connection_s::_xpc_connection_s(Role role, std::string name, dispatch_queue_t target)
    : Object(XPC_TYPE_CONNECTION),
      role_(role),
      name_(std::move(name)),
      target_(queueOrDefault(target)),
      peer_{0, geteuid(), getegid()} {}

Ref<_xpc_connection_s> _xpc_connection_s::forPeer(std::shared_ptr<Link> link) {
  auto connection = make<_xpc_connection_s>(Role::peer, "", nullptr);
  service::peerAccepted();
  connection->peer_ = link->peer();
  connection->link_ = std::move(link);
  return connection;
}

Ref<_xpc_connection_s> _xpc_connection_s::forListener(std::shared_ptr<Listener> listener) {
  auto connection = make<_xpc_connection_s>(Role::listener, "", nullptr);
  connection->listener_ = std::move(listener);
  return connection;
}

_xpc_connection_s::~_xpc_connection_s() {
  if (role_ == Role::peer && !active_) service::peerGone(this);
}

void _xpc_connection_s::setTarget(dispatch_queue_t target) {
  std::lock_guard lock(mutex_);
  target_ = queueOrDefault(target);
}

void _xpc_connection_s::setHandler(xpc_handler_t handler) {
  auto next = std::make_shared<const xpc_handler_t>(std::move(handler));
  std::lock_guard lock(mutex_);
  if (!ended_) handler_.swap(next);
}

void _xpc_connection_s::activate() {
  Work work;
  {
    std::lock_guard lock(mutex_);
    if (active_ || ended_) return;
    active_ = true;
    self_ = Ref<_xpc_connection_s>::retained(this);
    if (role_ == Role::listener) startListening(work);
    if (role_ == Role::peer) {
      service::peerActivated(this);
      link_->open(self_);
    }
    for (Held& held : std::exchange(held_, {}))
      if (auto link = prepare(held.datagram, std::move(held.pending), work)) link->send(held.datagram);
  }
  work.submit();
}

void _xpc_connection_s::suspend() {
  std::lock_guard lock(mutex_);
  suspensions_++;
}

void _xpc_connection_s::resume() {
  Work work;
  {
    std::unique_lock lock(mutex_);
    if (!active_) {
      lock.unlock();
      return activate();
    }
    if (suspensions_ > 0) suspensions_--;
    startDraining(work);
  }
  work.submit();
}

void _xpc_connection_s::cancel() {
  Work work;
  std::deque<Event> dropped;
  std::shared_ptr<Link> link;
  std::shared_ptr<Listener> listener;
  {
    std::lock_guard lock(mutex_);
    if (ended_) return;
    link = std::move(link_);
    listener = std::move(listener_);
    dropped = std::exchange(inbox_, {});
    failPending(XPC_ERROR_CONNECTION_INVALID, work);
    end(XPC_ERROR_CONNECTION_INVALID, work);
  }
  if (link) link->close();
  if (listener) listener->close();
  for (Event& event : dropped)
    if (event.done) event.done();
  work.submit();
}

void _xpc_connection_s::send(Dictionary& message) {
  if (!message.isReply) return post(message, {});
  const uint32_t serial = message.serial.exchange(0);
  if (!serial) return;
  Outgoing datagram;
  if (const char* problem = encode(message, datagram))
    return logLine(fmt::format("XPC: cannot send a reply: {}", problem));
  setKind(datagram, Kind::reply, serial);
  message.link->send(datagram);
}

void _xpc_connection_s::sendAwaitingReply(const Dictionary& message, QueueRef queue, xpc_handler_t handler) {
  post(message, {std::move(queue), std::move(handler)});
}

void _xpc_connection_s::post(const Dictionary& message, Pending pending) {
  Work work;
  std::shared_ptr<Link> link;
  Outgoing datagram;
  if (const char* problem = encode(message, datagram)) {
    logLine(fmt::format("XPC: cannot send a message: {}", problem));
    if (pending.handler)
      addReply(pending.queue, std::move(pending.handler), reference(XPC_ERROR_CONNECTION_INVALID), work);
  } else {
    std::lock_guard lock(mutex_);
    if (!active_ && !ended_) {
      held_.push_back({datagram, std::move(pending)});
      return;
    }
    link = prepare(datagram, std::move(pending), work);
  }
  if (link) link->send(datagram);
  work.submit();
}

// The link to send the datagram on, or null if there is none to be had; then the awaited reply is an error.
std::shared_ptr<Link> _xpc_connection_s::prepare(Outgoing& datagram, Pending pending, Work& work) {
  if (ended_ || (!link_ && !connect(work))) {
    if (pending.handler)
      addReply(pending.queue, std::move(pending.handler), reference(XPC_ERROR_CONNECTION_INVALID), work);
    return nullptr;
  }
  if (pending.handler) {
    do ++lastSerial_;
    while (lastSerial_ == 0 || pending_.contains(lastSerial_));
    setKind(datagram, Kind::messageAwaitingReply, lastSerial_);
    if (sparePending_.empty()) {
      pending_.emplace(lastSerial_, std::move(pending));
    } else {
      sparePending_.key() = lastSerial_;
      sparePending_.mapped() = std::move(pending);
      pending_.insert(std::move(sparePending_));
    }
  }
  return link_;
}

bool _xpc_connection_s::connect(Work& work) {
  const auto failed = [&](const std::string& why) {
    logLine(fmt::format("XPC: cannot reach the service {}: {}", name_, why));
    end(XPC_ERROR_CONNECTION_INVALID, work);
    return false;
  };
  if (role_ != Role::client) return false;
  sockaddr_un address;
  if (const char* problem = addressOf(name_, address)) return failed(problem);
  FileDescriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket || ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0)
    return failed(fmt::format("{}: {}", address.sun_path, strerror(errno)));
  socklen_t size = sizeof peer_;
  if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer_, &size) < 0 || peer_.uid != geteuid())
    return failed(fmt::format("{} belongs to user {}", address.sun_path, peer_.uid));
  link_ = std::make_shared<Link>(std::move(socket), peer_);
  link_->open(Ref<_xpc_connection_s>::retained(this));
  return true;
}

void _xpc_connection_s::startListening(Work& work) {
  std::string problem;
  if (!listener_) listener_ = Listener::create(name_, problem);
  if (listener_) return listener_->open(self_);
  logLine(fmt::format("XPC: service {}: {}", name_, problem));
  end(XPC_ERROR_CONNECTION_INVALID, work);
}

void _xpc_connection_s::deliver(xpc_object_t error, dispatch_block_t done) {
  Work work;
  {
    std::lock_guard lock(mutex_);
    if (!ended_) enqueue({reference(error), 0, std::exchange(done, {})}, work);
  }
  if (done) done();
  work.submit();
}

pid_t _xpc_connection_s::peerPid() {
  std::lock_guard lock(mutex_);
  return peer_.pid;
}

void _xpc_connection_s::linkReceived(const std::shared_ptr<Link>& link, Incoming message, size_t charge,
                                     Work& work) {
  std::lock_guard lock(mutex_);
  if (link != link_) return;
  if (message.kind == Kind::reply) {
    const auto found = pending_.find(message.serial);
    if (found == pending_.end()) return link->refuse("a reply that nobody awaits");
    sparePending_ = pending_.extract(found);
    Pending pending = std::exchange(sparePending_.mapped(), {});
    return addReply(pending.queue, std::move(pending.handler), std::move(message.dictionary), work);
  }
  message.dictionary->connection = Ref<_xpc_connection_s>::retained(this);
  if (message.kind == Kind::messageAwaitingReply) {
    message.dictionary->link = link;
    message.dictionary->serial = message.serial;
  }
  enqueue({std::move(message.dictionary), charge, {}}, work);
  if (inboxCharge_ > kInboxLimit && !linkPaused_) {
    linkPaused_ = true;
    link->pause();
  }
}

void _xpc_connection_s::linkClosed(Link& link, Work& work) {
  std::lock_guard lock(mutex_);
  if (&link != link_.get()) return;
  link_ = nullptr;
  linkPaused_ = false;
  if (role_ == Role::client) {
    failPending(XPC_ERROR_CONNECTION_INTERRUPTED, work);
    enqueue({reference(XPC_ERROR_CONNECTION_INTERRUPTED), 0, {}}, work);
  } else {
    failPending(XPC_ERROR_CONNECTION_INVALID, work);
    end(XPC_ERROR_CONNECTION_INVALID, work);
  }
}

void _xpc_connection_s::accepted(std::shared_ptr<Link> link, Work& work) {
  auto peer = forPeer(std::move(link));
  std::lock_guard lock(mutex_);
  enqueue({std::move(peer), 0, {}}, work);
}

void _xpc_connection_s::failPending(xpc_object_t error, Work& work) {
  for (auto& [serial, pending] : std::exchange(pending_, {}))
    addReply(pending.queue, std::move(pending.handler), reference(error), work);
  for (Held& held : std::exchange(held_, {}))
    if (held.pending.handler)
      addReply(held.pending.queue, std::move(held.pending.handler), reference(error), work);
}

void _xpc_connection_s::end(xpc_object_t error, Work& work) {
  enqueue({reference(error), 0, {}}, work);
  ended_ = true;
  if (!active_) handler_ = nullptr;
}

void _xpc_connection_s::enqueue(Event event, Work& work) {
  if (ended_) return;
  inboxCharge_ += event.charge;
  inbox_.push_back(std::move(event));
  startDraining(work);
}

void _xpc_connection_s::startDraining(Work& work) {
  if (draining_ || !active_ || suspensions_ || inbox_.empty()) return;
  draining_ = true;
  const auto drain = [](xpc_object_t self) { static_cast<_xpc_connection_s*>(self)->drain(); };
  work.add(target_, drain, Ref<Object>::retained(this));
}

// On the target queue. Only one thread at a time is here.
void _xpc_connection_s::drain() {
  for (;;) {
    Event event;
    std::shared_ptr<const xpc_handler_t> handler;
    bool isLast;
    {
      std::lock_guard lock(mutex_);
      if (suspensions_ || inbox_.empty()) {
        draining_ = false;
        return;
      }
      event = std::move(inbox_.front());
      inbox_.pop_front();
      inboxCharge_ -= event.charge;
      if (linkPaused_ && inboxCharge_ <= kInboxLimit) {
        linkPaused_ = false;
        link_->resume();
      }
      isLast = ended_ && inbox_.empty();
      handler = isLast ? std::move(handler_) : handler_;
    }
    if (handler && *handler) (*handler)(event.object.get());
    if (event.done) event.done();
    if (isLast) {
      if (role_ == Role::peer) service::peerGone(this);
      Ref<_xpc_connection_s> self;
      std::lock_guard lock(mutex_);
      self = std::move(self_);
    }
  }
}

extern "C" {

xpc_connection_t xpc_connection_create(const char* name, dispatch_queue_t targetq) {
  return xpc_connection_create_mach_service(name, targetq, 0);
}

xpc_connection_t xpc_connection_create_mach_service(const char* name, dispatch_queue_t targetq,
                                                    uint64_t flags) {
  using Role = _xpc_connection_s::Role;
  const Role role = flags & XPC_CONNECTION_MACH_SERVICE_LISTENER ? Role::listener : Role::client;
  return new _xpc_connection_s(role, name, targetq);
}

void xpc_connection_set_target_queue(xpc_connection_t connection, dispatch_queue_t targetq) {
  connection->setTarget(targetq);
}

void xpc_connection_set_event_handler(xpc_connection_t connection, xpc_handler_t handler) {
  connection->setHandler(std::move(handler));
}

void xpc_connection_resume(xpc_connection_t connection) {
  connection->resume();
}
void xpc_connection_activate(xpc_connection_t connection) {
  connection->activate();
}
void xpc_connection_suspend(xpc_connection_t connection) {
  connection->suspend();
}
void xpc_connection_cancel(xpc_connection_t connection) {
  connection->cancel();
}

void xpc_connection_send_message(xpc_connection_t connection, xpc_object_t message) {
  if (auto* dictionary = cast<Dictionary>(message, XPC_TYPE_DICTIONARY)) connection->send(*dictionary);
}

void xpc_connection_send_message_with_reply(xpc_connection_t connection, xpc_object_t message,
                                            dispatch_queue_t replyq, xpc_handler_t handler) {
  if (auto* dictionary = cast<Dictionary>(message, XPC_TYPE_DICTIONARY))
    connection->sendAwaitingReply(*dictionary, queueOrDefault(replyq), std::move(handler));
}

xpc_object_t xpc_connection_send_message_with_reply_sync(xpc_connection_t connection, xpc_object_t message) {
  auto* dictionary = cast<Dictionary>(message, XPC_TYPE_DICTIONARY);
  if (!dictionary) return nullptr;
  std::promise<xpc_object_t> reply;
  connection->sendAwaitingReply(*dictionary, {},
                                [&reply](xpc_object_t object) { reply.set_value(xpc_retain(object)); });
  return reply.get_future().get();
}

pid_t xpc_connection_get_pid(xpc_connection_t connection) {
  return connection->peerPid();
}

}  // extern "C"
