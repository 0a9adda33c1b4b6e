#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace platform {

template <class Signature>
class Closure;

// What macOS has as blocks: something to call, and what it has captured. It is std::function with more room:
// most handlers are made, handed from queue to queue and called without an allocation.
template <class Result, class... Arguments>
class Closure<Result(Arguments...)> {
 public:
  Closure() = default;
  Closure(std::nullptr_t) {}
  template <class Callable>
  requires(!std::same_as<std::remove_cvref_t<Callable>, Closure> &&
           std::invocable<std::decay_t<Callable>&, Arguments...>) Closure(Callable&& callable) {
    using Given = std::decay_t<Callable>;
    using Held = std::conditional_t<fits<Given>, Given, Boxed<Given>>;
    new (place_) Held(std::forward<Callable>(callable));
    operations_ = &operationsOf<Held>;
  }
  Closure(const Closure& other) : operations_(other.operations_) {
    if (operations_) operations_->copy(other.place_, place_);
  }
  Closure(Closure&& other) noexcept : operations_(std::exchange(other.operations_, nullptr)) {
    if (operations_) operations_->move(other.place_, place_);
  }
  Closure& operator=(Closure other) noexcept {
    this->~Closure();
    return *new (this) Closure(std::move(other));
  }
  ~Closure() {
    if (operations_) operations_->destroy(place_);
  }

  // It must not be empty.
  Result operator()(Arguments... arguments) const {
    return operations_->call(place_, std::forward<Arguments>(arguments)...);
  }
  explicit operator bool() const { return operations_; }

 private:
  static constexpr std::size_t kRoom = 48;

  struct Operations {
    Result (*call)(void* held, Arguments... arguments);
    void (*copy)(const void* held, void* place);
    void (*move)(void* held, void* place) noexcept;  // and destroys what is left
    void (*destroy)(void* held) noexcept;
  };

  template <class Callable>
  static constexpr bool fits =
      sizeof(Callable) <= kRoom &&
      alignof(Callable) <= alignof(std::max_align_t) && std::is_nothrow_move_constructible_v<Callable>;

  // One that is too large to be held in place.
  template <class Callable>
  struct Boxed {
    template <class Given>
    explicit Boxed(Given&& given) : callable(std::make_unique<Callable>(std::forward<Given>(given))) {}
    Boxed(const Boxed& other) : Boxed(*other.callable) {}
    Boxed(Boxed&& other) noexcept = default;

    Result operator()(Arguments... arguments) {
      return std::invoke(*callable, std::forward<Arguments>(arguments)...);
    }

    std::unique_ptr<Callable> callable;
  };

  template <class Held>
  static constexpr Operations operationsOf = {
      [](void* held, Arguments... arguments) -> Result {
        return static_cast<Result>(
            std::invoke(*static_cast<Held*>(held), std::forward<Arguments>(arguments)...));
      },
      [](const void* held, void* place) { new (place) Held(*static_cast<const Held*>(held)); },
      [](void* held, void* place) noexcept {
        new (place) Held(std::move(*static_cast<Held*>(held)));
        static_cast<Held*>(held)->~Held();
      },
      [](void* held) noexcept { static_cast<Held*>(held)->~Held(); },
  };

  // Calling is const, as the system's blocks are called, and changes what was captured by a mutable lambda.
  alignas(std::max_align_t) mutable std::byte place_[kRoom];
  const Operations* operations_ = nullptr;
};

}  // namespace platform
