// The objects behind xpc_object_t: a type, a count of references, a value.
#pragma once

#include <xpc/xpc.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <memory_resource>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "arena.h"
#include "file_descriptor.h"

namespace platform::xpc {

class Link;

// The head of every object. Objects of a type without a destroy function live for ever.
struct Object {
  constexpr explicit Object(xpc_type_t objectType) : type(objectType) {}

  const xpc_type_t type;
  std::atomic<uint32_t> references{1};
  Arena* arena = nullptr;  // that the object lives in and holds; null for one with memory of its own
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

using Memory = std::pmr::memory_resource;
using Text = std::pmr::string;
using Bytes = std::pmr::vector<uint8_t>;

// What a data object holds. A string copies its bytes as a block, which a vector with this allocator does
// not.
struct Data {
  using allocator_type = Text::allocator_type;

  Data(const void* first, size_t length, const allocator_type& allocator) : bytes(length, '\0', allocator) {
    if (first) memcpy(bytes.data(), first, length);
  }

  Text bytes;
};

// An object that holds one value, whose own memory, if it needs any, is taken from `memory`.
template <class T>
struct Box : Object {
  template <class... Args>
  explicit Box(Memory& memory, Args&&... args)
      : Object(typeOf<T>),
        value(std::make_obj_using_allocator<T>(std::pmr::polymorphic_allocator<>(&memory),
                                               std::forward<Args>(args)...)) {}

  T value;
};

template <>
inline const xpc_type_t typeOf<bool> = XPC_TYPE_BOOL;
template <>
inline const xpc_type_t typeOf<int64_t> = XPC_TYPE_INT64;
template <>
inline const xpc_type_t typeOf<uint64_t> = XPC_TYPE_UINT64;
template <>
inline const xpc_type_t typeOf<double> = XPC_TYPE_DOUBLE;
template <>
inline const xpc_type_t typeOf<Text> = XPC_TYPE_STRING;
template <>
inline const xpc_type_t typeOf<Data> = XPC_TYPE_DATA;
template <>
inline const xpc_type_t typeOf<FileDescriptor> = XPC_TYPE_FD;

using Descriptor = Box<FileDescriptor>;

struct Array : Object {
  explicit Array(Memory& memory) : Object(XPC_TYPE_ARRAY), values(&memory) {}

  std::pmr::vector<Ref<>> values;
};

struct Dictionary : Object {
  struct Entry {
    Text key;
    Ref<> value;
  };

  explicit Dictionary(Memory& memory);
  ~Dictionary();

  // A dictionary with an arena of its own, which has that many bytes for what the dictionary will hold.
  static Ref<Dictionary> create(size_t room);

  Object* find(std::string_view key) const;
  void add(std::string_view key, Ref<> value);

  // In the order of setting. Messages have a handful of keys, among which a search in line is fastest.
  std::pmr::vector<Entry> entries;

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

// A value in the arena, or with memory of its own if there is no arena or no room left in it.
template <class T, class... Args>
Ref<T> makeIn(Arena* arena, Args&&... args) {
  void* const place = arena ? arena->take(sizeof(T)) : nullptr;
  if (!place) return make<T>(*std::pmr::new_delete_resource(), std::forward<Args>(args)...);
  T* const object = new (place) T(*arena, std::forward<Args>(args)...);
  object->arena = arena;
  arena->hold();
  return Ref<T>::adopted(object);
}

// The object if it is of the wanted type, else null.
template <class T>
T* cast(xpc_object_t object, xpc_type_t type) {
  auto* head = static_cast<Object*>(object);
  return head && head->type == type ? static_cast<T*>(head) : nullptr;
}

}  // namespace platform::xpc

struct _xpc_type_s {
  void (*destroy)(platform::xpc::Object* object);
};

struct _xpc_error_s : platform::xpc::Object {
  constexpr _xpc_error_s() : Object(XPC_TYPE_ERROR) {}
};
