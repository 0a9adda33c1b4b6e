// What the tests of the host link share.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <xpc/xpc.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

constexpr std::chrono::seconds kDeadline{20};

// A directory for sockets that goes with the test.
class RuntimeDirectory {
 public:
  RuntimeDirectory() {
    if (!mkdtemp(m_path)) abort();
    setenv("XDG_RUNTIME_DIR", m_path, 1);
  }
  ~RuntimeDirectory() { std::filesystem::remove_all(m_path); }
  std::string path(const std::string& name) const { return std::string(m_path) + "/" + name; }

 private:
  char m_path[32] = "/tmp/xpc-test-XXXXXX";
};

class Object {
 public:
  explicit Object(xpc_object_t adopted = nullptr) : m_object(adopted) {}
  Object(Object&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
  Object(const Object& other) : m_object(xpc_retain(other.m_object)) {}
  Object& operator=(Object other) {
    std::swap(m_object, other.m_object);
    return *this;
  }
  ~Object() { xpc_release(m_object); }
  operator xpc_object_t() const { return m_object; }

 private:
  xpc_object_t m_object;
};

inline Object message(const char* key, const char* value) {
  Object dictionary(xpc_dictionary_create_empty());
  xpc_dictionary_set_string(dictionary, key, value);
  return dictionary;
}

inline std::string describe(xpc_object_t object) {
  char* text = xpc_copy_description(object);
  std::string result = text;
  free(text);
  return result;
}

// Takes objects in on any thread and gives them out on the test's.
class Events {
 public:
  void put(xpc_object_t object) {
    std::lock_guard lock(m_mutex);
    m_objects.emplace_back(xpc_retain(object));
    m_changed.notify_all();
  }
  xpc_handler_t handler() {
    return [this](xpc_object_t object) { put(object); };
  }
  // Null after the deadline.
  Object next() {
    std::unique_lock lock(m_mutex);
    if (!m_changed.wait_for(lock, kDeadline, [&] { return !m_objects.empty(); })) return Object();
    Object object = std::move(m_objects.front());
    m_objects.pop_front();
    return object;
  }
  size_t count() {
    std::lock_guard lock(m_mutex);
    return m_objects.size();
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<Object> m_objects;
};

// A connection that is cancelled and gone when the test ends. Other events than the last are put by.
class Connection {
 public:
  explicit Connection(xpc_connection_t adopted) : Connection(adopted, nullptr) {}
  Connection(xpc_connection_t adopted, std::function<void(xpc_object_t)> handler) : m_connection(adopted) {
    xpc_connection_set_event_handler(m_connection, [this, handler](xpc_object_t event) {
      const bool last = event == XPC_ERROR_CONNECTION_INVALID;
      if (handler)
        handler(event);
      else
        events.put(event);
      if (last) m_last.put(event);
    });
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() {
    xpc_connection_activate(m_connection);
    xpc_connection_cancel(m_connection);
    EXPECT_TRUE(m_last.next());
    xpc_release(m_connection);
  }
  operator xpc_connection_t() const { return m_connection; }

  Events events;

 private:
  xpc_connection_t m_connection;
  Events m_last;
};

inline xpc_connection_t client(const char* name) {
  return xpc_connection_create(name, nullptr);
}
inline xpc_connection_t listener(const char* name) {
  return xpc_connection_create_mach_service(name, nullptr, XPC_CONNECTION_MACH_SERVICE_LISTENER);
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

inline void acceptEcho(xpc_object_t peer) {
  if (xpc_get_type(peer) != XPC_TYPE_CONNECTION) return;
  auto* connection = static_cast<xpc_connection_t>(peer);
  xpc_connection_set_event_handler(connection, echo);
  xpc_connection_activate(connection);
}

// A bare socket connected to the service; -1 if that fails.
inline int bareClient(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
  close(fd);
  return -1;
}

inline bool eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kDeadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

inline size_t openDescriptors() {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) count++;
  return count;
}
