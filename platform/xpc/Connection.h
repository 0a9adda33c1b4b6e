// A connection: its events in order, its replies, and the link that it has at the moment.
#pragma once

#include <xpc/xpc.h>

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "Link.h"
#include "Listener.h"
#include "Object.h"
#include "Reactor.h"

struct _xpc_connection_s : platform::xpc::Object {
  template <class T>
  using Ref = platform::xpc::Ref<T>;
  using Link = platform::xpc::Link;
  using Work = platform::xpc::Work;

  enum class Role { client, listener, peer };

  _xpc_connection_s(Role role, std::string name, dispatch_queue_t target);

  // A service's end of a new client's connection.
  static Ref<_xpc_connection_s> forPeer(std::shared_ptr<Link> link);
  static Ref<_xpc_connection_s> forListener(std::shared_ptr<platform::xpc::Listener> listener);
  ~_xpc_connection_s();

  void setTarget(dispatch_queue_t target);
  void setHandler(xpc_handler_t handler);
  void activate();
  void suspend();
  void resume();
  void cancel();

  // Sends the message. A handler awaits a reply, which it gets on its queue, or for the null queue right on
  // the thread that reads it.
  void send(platform::xpc::Dictionary& message);
  void sendAwaitingReply(const platform::xpc::Dictionary& message, platform::xpc::QueueRef queue,
                         xpc_handler_t handler);
  // Delivers an error after what is there already, and then calls done.
  void deliver(xpc_object_t error, dispatch_block_t done);

  pid_t peerPid();

  // From the link and the listener.
  void linkReceived(const std::shared_ptr<Link>& link, platform::xpc::Incoming message, size_t charge,
                    Work& work);
  void linkClosed(Link& link, Work& work);
  void accepted(std::shared_ptr<Link> link, Work& work);

 private:
  struct Event {
    Ref<platform::xpc::Object> object;
    size_t charge = 0;
    dispatch_block_t done;  // called once it is handled, or never will be
  };
  struct Pending {
    platform::xpc::QueueRef queue;
    xpc_handler_t handler;
  };

  // What was sent before the activation.
  struct Held {
    platform::xpc::Outgoing datagram;
    Pending pending;
  };

  void post(const platform::xpc::Dictionary& message, Pending pending);
  // With m_mutex held:
  std::shared_ptr<Link> prepare(platform::xpc::Outgoing& datagram, Pending pending, Work& work);
  bool connect(Work& work);
  void startListening(Work& work);
  void enqueue(Event event, Work& work);
  void startDraining(Work& work);
  void end(xpc_object_t error, Work& work);
  void failPending(xpc_object_t error, Work& work);

  void drain();

  const Role m_role;
  const std::string m_name;

  std::mutex m_mutex;
  platform::xpc::QueueRef m_target;
  std::shared_ptr<const xpc_handler_t> m_handler;
  Ref<_xpc_connection_s> m_self;  // from activation to the last event
  bool m_active = false;
  bool m_ended = false;  // no more events come after those in the inbox
  unsigned m_suspensions = 0;

  std::deque<Event> m_inbox;
  size_t m_inboxCharge = 0;
  bool m_draining = false;
  bool m_linkPaused = false;

  std::shared_ptr<Link> m_link;
  std::shared_ptr<platform::xpc::Listener> m_listener;
  ucred m_peer;
  std::vector<Held> m_held;
  std::unordered_map<uint32_t, Pending> m_pending;
  uint32_t m_lastSerial = 0;
};
