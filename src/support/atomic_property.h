#pragma once

#include <mutex>
#include <utility>

// A value that is too large for std::atomic and that any thread may read and replace.
template <class T>
class AtomicProperty {
 public:
  T load() const {
    std::lock_guard guard(lock_);
    return value_;
  }

  void store(T value) {
    std::lock_guard guard(lock_);
    std::swap(value_, value);
  }

 private:
  mutable std::mutex lock_;
  T value_{};
};
