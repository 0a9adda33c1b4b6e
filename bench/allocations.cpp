#include "allocations.h"

#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <cstddef>

// The C library's own, under their other names.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

std::atomic<bool> counting{false};
std::atomic<int64_t> count{0};
std::atomic<int64_t> bytes{0};
std::atomic<int64_t> largest{0};

void note(size_t size) {
  if (!counting.load(std::memory_order_relaxed)) return;
  const auto amount = static_cast<int64_t>(size);
  count.fetch_add(1, std::memory_order_relaxed);
  bytes.fetch_add(amount, std::memory_order_relaxed);
  int64_t seen = largest.load(std::memory_order_relaxed);
  while (amount > seen && !largest.compare_exchange_weak(seen, amount, std::memory_order_relaxed)) {
  }
}

}  // namespace

extern "C" {

void* malloc(size_t size) {
  note(size);
  return __libc_malloc(size);
}

void* calloc(size_t number, size_t size) {
  note(number * size);
  return __libc_calloc(number, size);
}

void* realloc(void* memory, size_t size) {
  note(size);
  return __libc_realloc(memory, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
  note(size);
  return __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, size_t alignment, size_t size) {
  note(size);
  *memory = __libc_memalign(alignment, size);
  return *memory != nullptr ? 0 : ENOMEM;
}
}

namespace bench {

void countAllocations(bool on) {
  counting = on;
}

Allocations allocations() {
  return {count.load(), bytes.load(), largest.exchange(0)};
}

int64_t minorFaults() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_minflt;
}

}  // namespace bench
