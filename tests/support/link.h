// Both ends of the host link, for tests.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <xpc/xpc.h>

#include <cstring>
#include <functional>
#include <map>
#include <string>

#include "waiting.h"

class Object {
 public:
  explicit Object(xpc_object_t adopted = nullptr) : object_(adopted) {}
  Object(Object&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  Object(const Object& other) : object_(xpc_retain(other.object_)) {}
  Object& operator=(Object other) {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Object() { xpc_release(object_); }
  operator xpc_object_t() const { return object_; }

 private:
  xpc_object_t object_;
};

using Texts = std::map<std::string, std::string>;

// A message of texts, and the texts of a message.
inline Object message(const Texts& texts) {
  Object dictionary(xpc_dictionary_create_empty());
  for (const auto& [key, value] : texts) xpc_dictionary_set_string(dictionary, key.c_str(), value.c_str());
  return dictionary;
}
inline Object message(const char* key, const char* value) {
  return message({{key, value}});
}

inline Texts textsOf(xpc_object_t message) {
  Texts texts;
  xpc_dictionary_apply(message, [&](const char* key, xpc_object_t value) {
    return texts.emplace(key, xpc_string_get_string_ptr(value)).second;
  });
  return texts;
}

class Events : public Mailbox<Object> {
 public:
  void put(xpc_object_t object) { Mailbox::put(Object(xpc_retain(object))); }
  xpc_handler_t handler() {
    return [this](xpc_object_t event) { put(event); };
  }
};

// A connection that is cancelled and gone when the test ends. Without another handler it keeps its events.
class Connection {
 public:
  explicit Connection(xpc_connection_t adopted, const xpc_handler_t& handler = nullptr, bool active = true)
      : connection_(adopted) {
    xpc_connection_set_event_handler(connection_, [this, handler](xpc_object_t event) {
      const bool last = event == XPC_ERROR_CONNECTION_INVALID;
      handler ? handler(event) : events.put(event);
      if (last) last_.put(event);
    });
    if (active) xpc_connection_activate(connection_);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() {
    xpc_connection_activate(connection_);
    xpc_connection_cancel(connection_);
    EXPECT_TRUE(last_.next());
    xpc_release(connection_);
  }
  operator xpc_connection_t() const { return connection_; }
  Object ask(const Object& message) const {
    return Object(xpc_connection_send_message_with_reply_sync(connection_, message));
  }

  Events events;

 private:
  xpc_connection_t connection_;
  Events last_;
};

inline xpc_connection_t client(const char* name) {
  return xpc_connection_create(name, nullptr);
}
inline xpc_connection_t listener(const char* name) {
  return xpc_connection_create_mach_service(name, nullptr, XPC_CONNECTION_MACH_SERVICE_LISTENER);
}
inline xpc_connection_t asConnection(xpc_object_t object) {
  return static_cast<xpc_connection_t>(object);
}

// A listener's handler: each peer is made ready by `prepare`, which sets its event handler.
inline xpc_handler_t accepting(const std::function<void(xpc_connection_t)>& prepare) {
  return [prepare](xpc_object_t peer) {
    if (xpc_get_type(peer) != XPC_TYPE_CONNECTION) return;
    prepare(asConnection(peer));
    xpc_connection_activate(asConnection(peer));
  };
}

// Answers each message with what it holds.
inline void echo(xpc_object_t event) {
  if (xpc_get_type(event) != XPC_TYPE_DICTIONARY) return;
  const Object reply(xpc_dictionary_create_reply(event));
  if (!reply) return;
  xpc_dictionary_apply(event, [&](const char* key, xpc_object_t value) {
    xpc_dictionary_set_value(reply, key, value);
    return true;
  });
  xpc_connection_send_message(xpc_dictionary_get_remote_connection(event), reply);
}
inline xpc_handler_t acceptingEcho() {
  return accepting([](xpc_connection_t peer) { xpc_connection_set_event_handler(peer, echo); });
}

inline sockaddr_un socketAddress(const std::string& path) {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}
inline int listeningSocket(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  const sockaddr_un address = socketAddress(path);
  EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(listen(fd, 8), 0);
  return fd;
}
// A bare socket connected to the service; -1 if that fails.
inline int bareClient(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  const sockaddr_un address = socketAddress(path);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  close(fd);
  return -1;
}
