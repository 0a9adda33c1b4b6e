#pragma once

#include <atomic>
#include <map>
#include <string>

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

  static void answer(xpc_object_t message) {
    const Object reply(xpc_dictionary_create_reply(message));
    if (reply) xpc_connection_send_message(xpc_dictionary_get_remote_connection(message), reply);
  }

  std::atomic<bool> answering{true};

 private:
  void keep(xpc_object_t event) {
    if (xpc_get_type(event) != XPC_TYPE_DICTIONARY) return;
    received_.put(event);
    if (answering) answer(event);
  }

  Events received_;
  Connection connection_;
};
