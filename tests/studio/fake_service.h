// A service inside the test: takes the studio's messages and sends what the test wants.
#pragma once

#include <dispatch/dispatch.h>
#include <gtest/gtest.h>
#include <xpc/xpc.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "studio/handles.h"

constexpr std::chrono::seconds deadline(20);

/// A dictionary's entries; a value that is no text is shown by its kind.
using Entries = std::map<std::string, std::string>;
inline Entries entriesOf(xpc_object_t dictionary) {
  Entries entries;
  xpc_dictionary_apply(dictionary, [&](const char* key, xpc_object_t value) {
    const char* text = xpc_string_get_string_ptr(value);
    entries[key] = text ? text : xpc_get_type(value) == XPC_TYPE_DATA ? "(data)" : "(other)";
    return true;
  });
  return entries;
}

inline studio::XpcObject dictionary() {
  return studio::XpcObject(xpc_dictionary_create(nullptr, nullptr, 0));
}

class FakeService {
 public:
  explicit FakeService(const std::string& name)
      : queue_(dispatch_queue_create("fake service", DISPATCH_QUEUE_SERIAL)),
        listener_(
            xpc_connection_create_mach_service(name.c_str(), queue_, XPC_CONNECTION_MACH_SERVICE_LISTENER)) {
    xpc_connection_set_event_handler(listener_, [inbox = inbox_, queue = queue_](xpc_object_t event) {
      if (xpc_get_type(event) != XPC_TYPE_CONNECTION) return;
      const auto peer = static_cast<xpc_connection_t>(event);
      xpc_connection_set_target_queue(peer, queue);
      xpc_connection_set_event_handler(peer, [inbox](xpc_object_t message) { inbox->put(message); });
      inbox->setPeer(peer);
      xpc_connection_resume(peer);
    });
    xpc_connection_resume(listener_);
  }

  ~FakeService() {
    hangUp();
    xpc_connection_cancel(listener_);
    xpc_release(listener_);
    dispatch_release(queue_);
  }

  /// Ends the connection with the studio.
  void hangUp() {
    if (const studio::XpcObject peer = inbox_->setPeer(nullptr)) {
      xpc_connection_cancel(static_cast<xpc_connection_t>(peer.get()));
    }
  }

  /// The next message of the studio.
  studio::XpcObject next() const { return inbox_->take(); }

  void send(const studio::XpcObject& message) const {
    const studio::XpcObject peer = inbox_->peer();
    xpc_connection_send_message(static_cast<xpc_connection_t>(peer.get()), message.get());
  }

  /// Sends a message that is to be answered; the future gets whether it was.
  std::future<bool> ask(const studio::XpcObject& message) const {
    auto answered = std::make_shared<std::promise<bool>>();
    const studio::XpcObject peer = inbox_->peer();
    xpc_connection_send_message_with_reply(
        static_cast<xpc_connection_t>(peer.get()), message.get(), queue_,
        [answered](xpc_object_t reply) { answered->set_value(xpc_get_type(reply) == XPC_TYPE_DICTIONARY); });
    return answered->get_future();
  }

 private:
  class Inbox {
   public:
    void put(xpc_object_t message) {
      if (xpc_get_type(message) != XPC_TYPE_DICTIONARY) return;
      const std::lock_guard lock(mutex_);
      messages_.push_back(studio::retain(message));
      changed_.notify_all();
    }
    studio::XpcObject take() {
      std::unique_lock lock(mutex_);
      if (!changed_.wait_for(lock, deadline, [&] { return !messages_.empty(); })) {
        ADD_FAILURE() << "no message came";
        return dictionary();
      }
      studio::XpcObject message = std::move(messages_.front());
      messages_.pop_front();
      return message;
    }
    studio::XpcObject setPeer(xpc_connection_t peer) {
      const std::lock_guard lock(mutex_);
      return std::exchange(peer_, peer ? studio::retain(peer) : nullptr);
    }
    studio::XpcObject peer() {
      const std::lock_guard lock(mutex_);
      return studio::retain(peer_.get());
    }

   private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<studio::XpcObject> messages_;
    studio::XpcObject peer_;
  };

  std::shared_ptr<Inbox> inbox_ = std::make_shared<Inbox>();
  dispatch_queue_t queue_;
  xpc_connection_t listener_;
};
