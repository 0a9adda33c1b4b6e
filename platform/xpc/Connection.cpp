#include "Connection.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <future>

#include "Log.h"
#include "Service.h"

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
  work.add(queue, [handler = std::move(handler), reply = std::move(reply)] { handler(reply.get()); });
}

}  // namespace

_xpc_connection_s::_xpc_connection_s(Role role, std::string name, dispatch_queue_t target)
    : Object(XPC_TYPE_CONNECTION),
      m_role(role),
      m_name(std::move(name)),
      m_target(queueOrDefault(target)),
      m_peer{0, geteuid(), getegid()} {}

Ref<_xpc_connection_s> _xpc_connection_s::forPeer(std::shared_ptr<Link> link) {
  auto connection = make<_xpc_connection_s>(Role::peer, "", nullptr);
  service::peerAccepted();
  connection->m_peer = link->peer();
  connection->m_link = std::move(link);
  return connection;
}

Ref<_xpc_connection_s> _xpc_connection_s::forListener(std::shared_ptr<Listener> listener) {
  auto connection = make<_xpc_connection_s>(Role::listener, "", nullptr);
  connection->m_listener = std::move(listener);
  return connection;
}

_xpc_connection_s::~_xpc_connection_s() {
  if (m_role == Role::peer && !m_active) service::peerGone(this);
}

void _xpc_connection_s::setTarget(dispatch_queue_t target) {
  std::lock_guard lock(m_mutex);
  m_target = queueOrDefault(target);
}

void _xpc_connection_s::setHandler(xpc_handler_t handler) {
  auto next = std::make_shared<const xpc_handler_t>(std::move(handler));
  std::lock_guard lock(m_mutex);
  if (!m_ended) m_handler.swap(next);
}

void _xpc_connection_s::activate() {
  Work work;
  {
    std::lock_guard lock(m_mutex);
    if (m_active || m_ended) return;
    m_active = true;
    m_self = Ref<_xpc_connection_s>::retained(this);
    if (m_role == Role::listener) startListening(work);
    if (m_role == Role::peer) {
      service::peerActivated(this);
      m_link->open(m_self);
    }
    for (Held& held : std::exchange(m_held, {}))
      if (auto link = prepare(held.datagram, std::move(held.pending), work)) link->send(held.datagram);
  }
  work.submit();
}

void _xpc_connection_s::suspend() {
  std::lock_guard lock(m_mutex);
  m_suspensions++;
}

void _xpc_connection_s::resume() {
  Work work;
  {
    std::unique_lock lock(m_mutex);
    if (!m_active) {
      lock.unlock();
      return activate();
    }
    if (m_suspensions > 0) m_suspensions--;
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
    std::lock_guard lock(m_mutex);
    if (m_ended) return;
    link = std::move(m_link);
    listener = std::move(m_listener);
    dropped = std::exchange(m_inbox, {});
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
    std::lock_guard lock(m_mutex);
    if (!m_active && !m_ended) {
      m_held.push_back({std::move(datagram), std::move(pending)});
      return;
    }
    link = prepare(datagram, std::move(pending), work);
  }
  if (link) link->send(datagram);
  work.submit();
}

// The link to send the datagram on, or null if there is none to be had; then the awaited reply is an error.
std::shared_ptr<Link> _xpc_connection_s::prepare(Outgoing& datagram, Pending pending, Work& work) {
  if (m_ended || (!m_link && !connect(work))) {
    if (pending.handler)
      addReply(pending.queue, std::move(pending.handler), reference(XPC_ERROR_CONNECTION_INVALID), work);
    return nullptr;
  }
  if (pending.handler) {
    do ++m_lastSerial;
    while (m_lastSerial == 0 || m_pending.contains(m_lastSerial));
    setKind(datagram, Kind::messageAwaitingReply, m_lastSerial);
    m_pending.emplace(m_lastSerial, std::move(pending));
  }
  return m_link;
}

bool _xpc_connection_s::connect(Work& work) {
  const auto failed = [&](const std::string& why) {
    logLine(fmt::format("XPC: cannot reach the service {}: {}", m_name, why));
    end(XPC_ERROR_CONNECTION_INVALID, work);
    return false;
  };
  if (m_role != Role::client) return false;
  sockaddr_un address;
  if (const char* problem = addressOf(m_name, address)) return failed(problem);
  FileDescriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket || ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0)
    return failed(fmt::format("{}: {}", address.sun_path, strerror(errno)));
  socklen_t size = sizeof m_peer;
  if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &m_peer, &size) < 0 || m_peer.uid != geteuid())
    return failed(fmt::format("{} belongs to user {}", address.sun_path, m_peer.uid));
  m_link = std::make_shared<Link>(std::move(socket), m_peer);
  m_link->open(Ref<_xpc_connection_s>::retained(this));
  return true;
}

void _xpc_connection_s::startListening(Work& work) {
  std::string problem;
  if (!m_listener) m_listener = Listener::create(m_name, problem);
  if (m_listener) return m_listener->open(m_self);
  logLine(fmt::format("XPC: service {}: {}", m_name, problem));
  end(XPC_ERROR_CONNECTION_INVALID, work);
}

void _xpc_connection_s::deliver(xpc_object_t error, dispatch_block_t done) {
  Work work;
  {
    std::lock_guard lock(m_mutex);
    if (!m_ended) enqueue({reference(error), 0, std::exchange(done, {})}, work);
  }
  if (done) done();
  work.submit();
}

pid_t _xpc_connection_s::peerPid() {
  std::lock_guard lock(m_mutex);
  return m_peer.pid;
}

void _xpc_connection_s::linkReceived(const std::shared_ptr<Link>& link, Incoming message, size_t charge,
                                     Work& work) {
  std::lock_guard lock(m_mutex);
  if (link != m_link) return;
  if (message.kind == Kind::reply) {
    const auto found = m_pending.find(message.serial);
    if (found == m_pending.end()) return link->refuse("a reply that nobody awaits");
    Pending pending = std::move(found->second);
    m_pending.erase(found);
    return addReply(pending.queue, std::move(pending.handler), std::move(message.dictionary), work);
  }
  message.dictionary->connection = Ref<_xpc_connection_s>::retained(this);
  if (message.kind == Kind::messageAwaitingReply) {
    message.dictionary->link = link;
    message.dictionary->serial = message.serial;
  }
  enqueue({std::move(message.dictionary), charge, {}}, work);
  if (m_inboxCharge > kInboxLimit && !m_linkPaused) {
    m_linkPaused = true;
    link->pause();
  }
}

void _xpc_connection_s::linkClosed(Link& link, Work& work) {
  std::lock_guard lock(m_mutex);
  if (&link != m_link.get()) return;
  m_link = nullptr;
  m_linkPaused = false;
  if (m_role == Role::client) {
    failPending(XPC_ERROR_CONNECTION_INTERRUPTED, work);
    enqueue({reference(XPC_ERROR_CONNECTION_INTERRUPTED), 0, {}}, work);
  } else {
    failPending(XPC_ERROR_CONNECTION_INVALID, work);
    end(XPC_ERROR_CONNECTION_INVALID, work);
  }
}

void _xpc_connection_s::accepted(std::shared_ptr<Link> link, Work& work) {
  auto peer = forPeer(std::move(link));
  std::lock_guard lock(m_mutex);
  enqueue({std::move(peer), 0, {}}, work);
}

void _xpc_connection_s::failPending(xpc_object_t error, Work& work) {
  for (auto& [serial, pending] : std::exchange(m_pending, {}))
    addReply(pending.queue, std::move(pending.handler), reference(error), work);
  for (Held& held : std::exchange(m_held, {}))
    if (held.pending.handler)
      addReply(held.pending.queue, std::move(held.pending.handler), reference(error), work);
}

void _xpc_connection_s::end(xpc_object_t error, Work& work) {
  enqueue({reference(error), 0, {}}, work);
  m_ended = true;
  if (!m_active) m_handler = nullptr;
}

void _xpc_connection_s::enqueue(Event event, Work& work) {
  if (m_ended) return;
  m_inboxCharge += event.charge;
  m_inbox.push_back(std::move(event));
  startDraining(work);
}

void _xpc_connection_s::startDraining(Work& work) {
  if (m_draining || !m_active || m_suspensions || m_inbox.empty()) return;
  m_draining = true;
  work.add(m_target, [self = Ref<_xpc_connection_s>::retained(this)] { self->drain(); });
}

// On the target queue. Only one thread at a time is here.
void _xpc_connection_s::drain() {
  for (;;) {
    Event event;
    std::shared_ptr<const xpc_handler_t> handler;
    bool isLast;
    {
      std::lock_guard lock(m_mutex);
      if (m_suspensions || m_inbox.empty()) {
        m_draining = false;
        return;
      }
      event = std::move(m_inbox.front());
      m_inbox.pop_front();
      m_inboxCharge -= event.charge;
      if (m_linkPaused && m_inboxCharge <= kInboxLimit) {
        m_linkPaused = false;
        m_link->resume();
      }
      isLast = m_ended && m_inbox.empty();
      handler = isLast ? std::move(m_handler) : m_handler;
    }
    if (handler && *handler) (*handler)(event.object.get());
    if (event.done) event.done();
    if (isLast) {
      if (m_role == Role::peer) service::peerGone(this);
      Ref<_xpc_connection_s> self;
      std::lock_guard lock(m_mutex);
      self = std::move(m_self);
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
