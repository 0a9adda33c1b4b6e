#pragma once

#include <deque>
#include <memory>
#include <mutex>

namespace engine {

// Keeps an object as long as the process runs. The interface's objects are small and some of them have no
// call that ends them; those that have are kept as well, so that a call that comes too late finds out.
template <typename T>
T* keep(std::unique_ptr<T> object) {
  static std::mutex& mutex = *new std::mutex;
  static std::deque<std::unique_ptr<T>>& kept = *new std::deque<std::unique_ptr<T>>;
  const std::lock_guard lock(mutex);
  return kept.emplace_back(std::move(object)).get();
}

}  // namespace engine
