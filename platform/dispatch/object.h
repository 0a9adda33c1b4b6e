#pragma once

#include <dispatch/dispatch.h>

#include <atomic>
#include <utility>

namespace platform {

// Ends the process: the program has misused the interface in a way that it cannot go on from.
[[noreturn]] void dispatchFatal(const char* text) noexcept;

// The count of a dispatch object. Base is the interface's structure, Derived the final class.
template <class Derived, class Base>
class DispatchObject : public Base {
 public:
  enum class Lifetime : bool { counted, endless };

  DispatchObject(const DispatchObject&) = delete;
  DispatchObject& operator=(const DispatchObject&) = delete;

  void retain() noexcept final {
    if (lifetime_ == Lifetime::counted) references_.fetch_add(1, std::memory_order_relaxed);
  }
  void release() noexcept final {
    if (lifetime_ == Lifetime::endless) return;
    if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete static_cast<Derived*>(this);
  }
  void resume() noexcept override { dispatchFatal("dispatch_resume of an object that is not at rest"); }

 protected:
  constexpr explicit DispatchObject(Lifetime lifetime = Lifetime::counted) noexcept : lifetime_(lifetime) {}
  ~DispatchObject() = default;

 private:
  std::atomic<long> references_{1};
  const Lifetime lifetime_;
};

// One reference to a dispatch object.
template <class T>
class Retained {
 public:
  static Retained adopt(T& object) { return Retained(object); }
  static Retained retain(T& object) {
    object.retain();
    return Retained(object);
  }
  Retained(Retained&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  Retained(const Retained&) = delete;
  Retained& operator=(const Retained&) = delete;
  ~Retained() {
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): the analyser does not follow the count.
    if (object_) object_->release();
  }

  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }

 private:
  explicit Retained(T& object) : object_(&object) {}

  T* object_;
};

}  // namespace platform
