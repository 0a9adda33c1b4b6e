#pragma once

#include <xpc/xpc.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/ref.h"

// A studio: a client of the service at `name` that keeps what the service sends. While `answering`, it
// answers every message that wants an answer, as studios do.
class StudioPeer {
 public:
  using Entry = std::pair<const char*, const char*>;

  explicit StudioPeer(const std::string& name) {
    connection_ = Ref<xpc_connection_t>::adopt(xpc_connection_create(name.c_str(), nullptr));
    xpc_connection_set_event_handler(connection_.get(), [this](xpc_object_t event) { keep(event); });
    xpc_connection_resume(connection_.get());
  }

  ~StudioPeer() {
    xpc_connection_cancel(connection_.get());
    std::unique_lock guard(lock_);
    changed_.wait(guard, [this] { return invalid_; });
  }

  StudioPeer(const StudioPeer&) = delete;
  StudioPeer& operator=(const StudioPeer&) = delete;

  static Ref<xpc_object_t> message(const std::vector<Entry>& entries) {
    auto message = Ref<xpc_object_t>::adopt(xpc_dictionary_create(nullptr, nullptr, 0));
    for (const auto& [key, value] : entries) xpc_dictionary_set_string(message.get(), key, value);
    return message;
  }

  void send(const std::vector<Entry>& entries) {
    xpc_connection_send_message(connection_.get(), message(entries).get());
  }

  // Sends, waits for the answer, and gives its "Hello".
  std::string ask(xpc_object_t message) {
    const auto reply =
        Ref<xpc_object_t>::adopt(xpc_connection_send_message_with_reply_sync(connection_.get(), message));
    const char* hello = xpc_dictionary_get_string(reply.get(), "Hello");
    return hello ? hello : "no answer";
  }
  std::string ask(const std::vector<Entry>& entries) { return ask(message(entries).get()); }

  // The next message that has `key`; those before it are passed over. None after 20 seconds.
  Ref<xpc_object_t> next(const char* key) {
    std::unique_lock guard(lock_);
    Ref<xpc_object_t> found;
    changed_.wait_for(guard, std::chrono::seconds(20), [&] {
      while (!found && !received_.empty()) {
        if (xpc_dictionary_get_value(received_.front().get(), key)) found = received_.front();
        received_.pop_front();
      }
      return static_cast<bool>(found);
    });
    return found;
  }

  // Waits until the service has logged this line.
  bool waitForLog(const std::string& text) {
    while (const auto line = next("logMessage")) {
      if (xpc_dictionary_get_string(line.get(), "logMessage") == text) return true;
    }
    return false;
  }

  // Waits for the service's end.
  bool waitForInterruption() {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, std::chrono::seconds(60), [this] { return interrupted_; });
  }

  // Answers the messages that wait for an answer, and from now on each at once, or none.
  void setAnswering(bool answering) {
    std::lock_guard guard(lock_);
    answering_ = answering;
    if (!answering) return;
    for (const auto& message : unanswered_) answer(message.get());
    unanswered_.clear();
  }

 private:
  void keep(xpc_object_t event) {
    std::lock_guard guard(lock_);
    if (xpc_get_type(event) == XPC_TYPE_ERROR) {
      (event == XPC_ERROR_CONNECTION_INTERRUPTED ? interrupted_ : invalid_) = true;
    } else {
      received_.push_back(Ref<xpc_object_t>::retain(event));
      if (answering_) {
        answer(event);
      } else {
        unanswered_.push_back(received_.back());
      }
    }
    changed_.notify_all();
  }

  static void answer(xpc_object_t message) {
    const auto reply = Ref<xpc_object_t>::adopt(xpc_dictionary_create_reply(message));
    if (reply) xpc_connection_send_message(xpc_dictionary_get_remote_connection(message), reply.get());
  }

  Ref<xpc_connection_t> connection_;
  std::mutex lock_;
  std::condition_variable changed_;
  std::deque<Ref<xpc_object_t>> received_;
  std::vector<Ref<xpc_object_t>> unanswered_;
  bool answering_ = true;
  bool interrupted_ = false;
  bool invalid_ = false;
};
