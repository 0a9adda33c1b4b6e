// A service inside the test: takes the studio's messages and sends what the test wants.
#pragma once

#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <future>
#include <map>
#include <memory>
#include <string>

#include "link.h"

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

class FakeService {
 public:
  explicit FakeService(const char* name)
      : listener_(listener(name), accepting([this](xpc_connection_t peer) {
                    peer_ = Object(xpc_retain(peer));
                    // The studio's end may come after this service's.
                    xpc_connection_set_event_handler(peer, [messages = messages_](xpc_object_t message) {
                      if (xpc_get_type(message) == XPC_TYPE_DICTIONARY) messages->put(message);
                    });
                  })) {}
  ~FakeService() { hangUp(); }

  /// The next message of the studio.
  Object next() {
    Object message = messages_->next();
    EXPECT_TRUE(message) << "no message came";
    return message ? message : Object(xpc_dictionary_create_empty());
  }

  // The rest is for the studio that sent the last message.

  /// Ends the connection.
  void hangUp() { xpc_connection_cancel(asConnection(peer_)); }

  void send(const Object& message) { xpc_connection_send_message(asConnection(peer_), message); }

  /// Sends a message that is to be answered; the future gets whether it was.
  std::future<bool> ask(const Object& message) {
    auto answered = std::make_shared<std::promise<bool>>();
    xpc_connection_send_message_with_reply(
        asConnection(peer_), message, nullptr,
        [answered](xpc_object_t reply) { answered->set_value(xpc_get_type(reply) == XPC_TYPE_DICTIONARY); });
    return answered->get_future();
  }

  static void answer(const Object& asked) {
    const Object reply(xpc_dictionary_create_reply(asked));
    xpc_connection_send_message(xpc_dictionary_get_remote_connection(asked), reply);
  }

 private:
  std::shared_ptr<Events> messages_ = std::make_shared<Events>();
  Object peer_;
  Connection listener_;
};
