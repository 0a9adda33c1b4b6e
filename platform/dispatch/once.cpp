#include <dispatch/dispatch.h>

#include <atomic>

namespace {

constexpr dispatch_once_t kUntouched = 0;
constexpr dispatch_once_t kRunning = 1;
constexpr dispatch_once_t kDone = ~0l;

}  // namespace

void dispatch_once(dispatch_once_t* predicate, const dispatch_block_t& block) {
  const std::atomic_ref state(*predicate);
  dispatch_once_t seen = state.load(std::memory_order_acquire);
  if (seen == kDone) return;
  if (seen == kUntouched && state.compare_exchange_strong(seen, kRunning, std::memory_order_acquire)) {
    block();
    state.store(kDone, std::memory_order_release);
    state.notify_all();
    return;
  }
  state.wait(kRunning, std::memory_order_acquire);
}
