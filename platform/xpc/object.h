// The objects behind xpc_object_t: a type, a count of references, a value.
#pragma once

#include <xpc/xpc.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "file_descriptor.h"

namespace platform::xpc {

class Link;

// The head of every object. Objects of a type without a destroy function live for ever.
struct Object {
  constexpr explicit Object(xpc_type_t objectType) : type(objectType) {}

  const xpc_type_t type;
  std::atomic<uint32_t> references{1};
};

void retain(Object* object);
void release(Object* object);

// Holds a reference to an object.
template <class T = Object>
class Ref {
 public:
  Ref() = default;
  Ref(const Ref& other) : Ref(retained(other.object_)) {}
  Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <class U>
  Ref(Ref<U> other) : object_(other.leak()) {}
  Ref& operator=(Ref other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Ref() {
    if (object_) release(object_);
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the analyzer loses count of references
  }

  static Ref adopted(T* object) {
    Ref ref;
    ref.object_ = object;
    return ref;
  }
  static Ref retained(T* object) {
    if (object) retain(object);
    return adopted(object);
  }

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_; }
  T* leak() { return std::exchange(object_, nullptr); }

 private:
  T* object_ = nullptr;
};

template <class T>
extern const xpc_type_t typeOf;

// An object that holds one value.
template <class T>
struct Box : Object {
  template <class... Args>
  explicit Box(Args&&... args) : Object(typeOf<T>), value(std::forward<Args>(args)...) {}

  T value;
};

using Bytes = std::vector<uint8_t>;

template <>
inline const xpc_type_t typeOf<bool> = XPC_TYPE_BOOL;
template <>
inline const xpc_type_t typeOf<int64_t> = XPC_TYPE_INT64;
template <>
inline const xpc_type_t typeOf<uint64_t> = XPC_TYPE_UINT64;
template <>
inline const xpc_type_t typeOf<double> = XPC_TYPE_DOUBLE;
template <>
inline const xpc_type_t typeOf<std::string> = XPC_TYPE_STRING;
template <>
inline const xpc_type_t typeOf<Bytes> = XPC_TYPE_DATA;
template <>
inline const xpc_type_t typeOf<FileDescriptor> = XPC_TYPE_FD;

using Descriptor = Box<FileDescriptor>;

struct Array : Object {
  Array() : Object(XPC_TYPE_ARRAY) {}

  std::vector<Ref<>> values;
};

struct Dictionary : Object {
  struct Entry {
    std::string key;
    Ref<> value;
  };

  Dictionary();
  ~Dictionary();

  Object* find(std::string_view key) const;

  // In the order of setting. Messages have a handful of keys, among which a search in line is fastest.
  std::vector<Entry> entries;

  // A received message, or a reply to one: the connection and its link, and the serial of the reply that the
  // message's sender awaits. A serial is taken (set to 0) when it is used, so that none is answered twice.
  Ref<_xpc_connection_s> connection;
  std::shared_ptr<Link> link;
  std::atomic<uint32_t> serial{0};
  bool isReply = false;
};

template <class T, class... Args>
Ref<T> make(Args&&... args) {
  return Ref<T>::adopted(new T(std::forward<Args>(args)...));
}

// The object if it is of the wanted type, else null.
template <class T>
T* cast(xpc_object_t object, xpc_type_t type) {
  auto* head = static_cast<Object*>(object);
  return head && head->type == type ? static_cast<T*>(head) : nullptr;
}

// The text itself if it is UTF-8, else with U+FFFD in place of what is not.
std::string validText(const char* text);

}  // namespace platform::xpc

struct _xpc_type_s {
  void (*destroy)(platform::xpc::Object* object);
};

struct _xpc_error_s : platform::xpc::Object {
  constexpr _xpc_error_s() : Object(XPC_TYPE_ERROR) {}
};
