#include "arena.h"

#include <functional>
#include <new>

namespace platform::xpc {
namespace {

constexpr size_t kAlignment = 8;

}  // namespace

Arena* Arena::create(size_t room) {
  return new (::operator new(sizeof(Arena) + room)) Arena(room);
}

void Arena::letGo() {
  if (holds_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  this->~Arena();
  ::operator delete(this);
}

void* Arena::take(size_t size) {
  size_t taken = taken_.load(std::memory_order_relaxed);
  size_t next;
  do {
    if (size >= room_ - taken) return nullptr;
    next = (taken + size + kAlignment - 1) / kAlignment * kAlignment;
  } while (!taken_.compare_exchange_weak(taken, next < room_ ? next : room_, std::memory_order_relaxed));
  return begin() + taken;
}

void* Arena::do_allocate(size_t size, size_t alignment) {
  void* const place = alignment <= kAlignment ? take(size) : nullptr;
  return place ? place : std::pmr::new_delete_resource()->allocate(size, alignment);
}

void Arena::do_deallocate(void* memory, size_t size, size_t alignment) {
  const std::less<const void*> before;
  if (before(memory, begin()) || !before(memory, begin() + room_))
    std::pmr::new_delete_resource()->deallocate(memory, size, alignment);
}

}  // namespace platform::xpc
