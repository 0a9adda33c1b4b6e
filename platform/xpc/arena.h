#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory_resource>

namespace platform::xpc {

// The memory of a dictionary and of what it holds: one piece of the heap, which is given away from its front
// and goes back as a whole when nothing lives in it any more. So a message, however many values it has, is
// one allocation. What does not fit comes from the heap by itself. Any thread may use it.
class Arena final : public std::pmr::memory_resource {
 public:
  // One hold is the caller's.
  static Arena* create(size_t room);
  void hold() { holds_.fetch_add(1, std::memory_order_relaxed); }
  void letGo();

  // Null when there is no room left.
  void* take(size_t size);

 private:
  explicit Arena(size_t room) : room_(room) {}
  ~Arena() = default;

  std::byte* begin() { return reinterpret_cast<std::byte*>(this + 1); }

  void* do_allocate(size_t size, size_t alignment) override;
  void do_deallocate(void* memory, size_t size, size_t alignment) override;
  bool do_is_equal(const memory_resource& other) const noexcept override { return this == &other; }

  std::atomic<uint32_t> holds_{1};
  std::atomic<size_t> taken_{0};
  const size_t room_;
};

}  // namespace platform::xpc
