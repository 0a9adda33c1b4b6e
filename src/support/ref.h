#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <dispatch/dispatch.h>
#include <xpc/xpc.h>
#include <mutex>
#include <utility>

// How an object of handle type T is retained and released. CoreFoundation's way unless said otherwise;
// surfaces, pixel buffers and pools are CoreFoundation objects, too.
template <class T>
struct RefTraits {
  static void retain(T object) { CFRetain(object); }
  static void release(T object) { CFRelease(object); }
};

template <>
struct RefTraits<xpc_object_t> {
  static void retain(xpc_object_t object) { xpc_retain(object); }
  static void release(xpc_object_t object) { xpc_release(object); }
};

template <>
struct RefTraits<xpc_connection_t> {
  static void retain(xpc_connection_t object) { xpc_retain(object); }
  static void release(xpc_connection_t object) { xpc_release(object); }
};

template <>
struct RefTraits<dispatch_queue_t> {
  static void retain(dispatch_queue_t object) { dispatch_retain(object); }
  static void release(dispatch_queue_t object) { dispatch_release(object); }
};

template <>
struct RefTraits<dispatch_source_t> {
  static void retain(dispatch_source_t object) { dispatch_retain(object); }
  static void release(dispatch_source_t object) { dispatch_release(object); }
};

// Owns one reference to a retained C object, or none.
template <class T>
class Ref {
 public:
  Ref() = default;
  Ref(const Ref& other) : object_(other.object_) {
    if (object_) RefTraits<T>::retain(object_);
  }
  Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  Ref& operator=(Ref other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Ref() {
    if (object_) RefTraits<T>::release(object_);
  }

  // Takes over a reference that the caller owns.
  static Ref adopt(T object) { return Ref(object); }

  // Takes a reference of its own.
  static Ref retain(T object) {
    if (object) RefTraits<T>::retain(object);
    return Ref(object);
  }

  // Hands the reference to the caller, who must release it.
  [[nodiscard]] T leak() { return std::exchange(object_, nullptr); }

  T get() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }

 private:
  explicit Ref(T object) : object_(object) {}

  T object_ = nullptr;
};

// A Ref that any thread may read and replace.
template <class T>
class AtomicRef {
 public:
  Ref<T> load() const {
    std::lock_guard guard(lock_);
    return ref_;
  }

  void store(Ref<T> ref) {
    {
      std::lock_guard guard(lock_);
      std::swap(ref_, ref);
    }
    // The old object is released here, outside the lock.
  }

 private:
  mutable std::mutex lock_;
  Ref<T> ref_;
};
