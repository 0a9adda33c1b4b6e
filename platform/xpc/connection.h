// A connection: its events in order, its replies, and the link that it has at the moment.
#pragma once

#include <xpc/xpc.h>

#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "link.h"
#include "listener.h"
#include "object.h"
#include "reactor.h"

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

  using PendingReplies = std::unordered_map<uint32_t, Pending>;

  // What was sent before the activation.
  struct Held {
    platform::xpc::Outgoing datagram;
    Pending pending;
  };

  void post(const platform::xpc::Dictionary& message, Pending pending);
  // With mutex_ held:
  std::shared_ptr<Link> prepare(platform::xpc::Outgoing& datagram, Pending pending, Work& work);
  bool connect(Work& work);
  void startListening(Work& work);
  void enqueue(Event event, Work& work);
  void startDraining(Work& work);
  void end(xpc_object_t error, Work& work);
  void failPending(xpc_object_t error, Work& work);

  void drain();

  const Role role_;
  const std::string name_;

  std::mutex mutex_;
  platform::xpc::QueueRef target_;
  std::shared_ptr<const xpc_handler_t> handler_;
  Ref<_xpc_connection_s> self_;  // from activation to the last event
  bool active_ = false;
  bool ended_ = false;  // no more events come after those in the inbox
  unsigned suspensions_ = 0;

  std::deque<Event> inbox_;
  size_t inboxCharge_ = 0;
  bool draining_ = false;
  bool linkPaused_ = false;

  std::shared_ptr<Link> link_;
  std::shared_ptr<platform::xpc::Listener> listener_;
  ucred peer_;
  std::list<Held> held_;
  PendingReplies pending_;
  PendingReplies::node_type sparePending_;  // the one that was answered last, to be used again
  uint32_t lastSerial_ = 0;
};
