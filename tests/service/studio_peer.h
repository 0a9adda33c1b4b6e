#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "link.h"

// A studio: a client of the service at `name` that keeps what the service sends. While `answering`, it
// answers every message that wants an answer, as studios do.
class StudioPeer {
 public:
  using Entries = std::map<std::string, std::string>;

  explicit StudioPeer(const char* name)
      : connection_(client(name), [this](xpc_object_t event) { keep(event); }) {}

  void send(const Entries& entries) { xpc_connection_send_message(connection_, message(entries)); }

  // Sends, waits for the answer, and gives its "Hello".
  std::string ask(const Object& message) {
    const Object reply = connection_.ask(message);
    const char* hello = xpc_dictionary_get_string(reply, "Hello");
    return hello ? hello : "no answer";
  }
  std::string ask(const Entries& entries) { return ask(message(entries)); }

  // The next message that has `key`; those before it are passed over. None after the deadline.
  Object next(const char* key) {
    Object message = received_.next();
    while (message && !xpc_dictionary_get_value(message, key)) message = received_.next();
    return message;
  }

  // Waits until the service has logged this line.
  bool waitForLog(const std::string& text) {
    while (const Object line = next("logMessage")) {
      if (xpc_dictionary_get_string(line, "logMessage") == text) return true;
    }
    return false;
  }

  // Answers the messages that wait for an answer, and from now on each at once, or none.
  void setAnswering(bool answering) {
    std::lock_guard guard(lock_);
    answering_ = answering;
    if (!answering) return;
    for (const Object& message : unanswered_) answer(message);
    unanswered_.clear();
  }

 private:
  void keep(xpc_object_t event) {
    if (xpc_get_type(event) != XPC_TYPE_DICTIONARY) return;
    received_.put(event);
    std::lock_guard guard(lock_);
    if (answering_) return answer(event);
    unanswered_.emplace_back(xpc_retain(event));
  }

  static void answer(xpc_object_t message) {
    const Object reply(xpc_dictionary_create_reply(message));
    if (reply) xpc_connection_send_message(xpc_dictionary_get_remote_connection(message), reply);
  }

  Events received_;
  std::mutex lock_;  // guards what follows
  std::vector<Object> unanswered_;
  bool answering_ = true;
  Connection connection_;
};
