#include <dispatch/clock.h>
#include <dispatch/queue.h>

#include <algorithm>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <memory>

struct dispatch_source_type_s {};
constexpr dispatch_source_type_s _dispatch_source_type_timer = {};

namespace platform {

namespace {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

constexpr nanoseconds kNever = nanoseconds::max();

// A timer at work. It is kept by its source, by the clock while that waits for it, and by what it has
// submitted to its queue.
class Timer : public std::enable_shared_from_this<Timer> {
 public:
  // The timer has a serial queue of its own, so that its handlers never overlap.
  explicit Timer(Queue& target)
      : queue_(Retained<Queue>::adopt(*new Queue(target.label(), Queue::Kind::serial))),
        clock_(timerContext()) {
    queue_->setTarget(target);
  }

  void setEventHandler(dispatch_block_t handler) {
    queue_->async([self = shared_from_this(), handler = std::move(handler)]() mutable {
      if (!self->ended_) self->onEvent_ = std::move(handler);
    });
  }

  void setCancelHandler(dispatch_block_t handler) {
    queue_->async([self = shared_from_this(), handler = std::move(handler)]() mutable {
      if (!self->ended_) self->onCancel_ = std::move(handler);
    });
  }

  void set(dispatch_time_t start, uint64_t interval) {
    const auto first = start == DISPATCH_TIME_FOREVER ? steady_clock::time_point::max() : timePoint(start);
    const auto longest = static_cast<uint64_t>(kNever.count());
    const nanoseconds step(static_cast<nanoseconds::rep>(std::clamp<uint64_t>(interval, 1, longest)));
    asio::post(timerContext(), [self = shared_from_this(), first, step] {
      self->next_ = first;
      self->interval_ = step;
      if (self->resumed_) self->wait();
    });
  }

  void resume() {
    asio::post(timerContext(), [self = shared_from_this()] {
      self->resumed_ = true;
      self->wait();
    });
  }

  void cancel() {
    if (cancelled_.exchange(true)) return;
    asio::post(timerContext(), [self = shared_from_this()] { self->clock_.cancel(); });
    queue_->async([self = shared_from_this()] {
      self->ended_ = true;
      self->onEvent_ = nullptr;
      if (const auto handler = std::exchange(self->onCancel_, nullptr)) handler();
    });
  }

  std::size_t ticks() const { return ticks_; }

 private:
  void wait() {
    if (cancelled_ || next_ == steady_clock::time_point::max()) {
      clock_.cancel();
      return;
    }
    clock_.expires_at(next_);
    clock_.async_wait([self = shared_from_this()](const asio::error_code& error) {
      if (!error) self->expired();
    });
  }

  void expired() {
    const auto now = steady_clock::now();
    // A wait that was over when the timer was set anew.
    if (cancelled_ || now < next_) return;
    std::size_t ticks = 1;
    if (interval_ == kNever) {
      next_ = steady_clock::time_point::max();
    } else {
      ticks += static_cast<std::size_t>((now - next_) / interval_);
      next_ += interval_ * static_cast<nanoseconds::rep>(ticks);
    }
    if (pending_.fetch_add(ticks) == 0) {
      queue_->async([self = shared_from_this()] { self->deliver(); });
    }
    wait();
  }

  void deliver() {
    ticks_ = pending_.exchange(0);
    if (!cancelled_ && onEvent_) onEvent_();
  }

  const Retained<Queue> queue_;
  std::atomic<bool> cancelled_{false};
  std::atomic<std::size_t> pending_{0};
  std::atomic<std::size_t> ticks_{0};

  // Used on the queue only.
  dispatch_block_t onEvent_;
  dispatch_block_t onCancel_;
  bool ended_ = false;

  // Used on the timers' thread only.
  asio::steady_timer clock_;
  steady_clock::time_point next_ = steady_clock::time_point::max();
  nanoseconds interval_ = kNever;
  bool resumed_ = false;
};

class Source final : public DispatchObject<Source, dispatch_source_s> {
 public:
  explicit Source(Queue& target) : timer_(std::make_shared<Timer>(target)) {}
  ~Source() { timer_->cancel(); }

  static Source& from(dispatch_source_t source) { return *static_cast<Source*>(source); }

  Timer& timer() const { return *timer_; }
  void resume() noexcept override {
    if (resumed_.exchange(true)) DispatchObject::resume();
    timer_->resume();
  }

 private:
  const std::shared_ptr<Timer> timer_;
  std::atomic<bool> resumed_{false};
};

}  // namespace

}  // namespace platform

using platform::Queue;
using platform::Source;

dispatch_source_t dispatch_source_create(dispatch_source_type_t type, uintptr_t handle, uintptr_t mask,
                                         dispatch_queue_t queue) {
  if (type != DISPATCH_SOURCE_TYPE_TIMER || handle != 0 || mask != 0) return nullptr;
  return new Source(Queue::from(queue));
}

void dispatch_source_set_event_handler(dispatch_source_t source, dispatch_block_t handler) {
  Source::from(source).timer().setEventHandler(std::move(handler));
}

void dispatch_source_set_cancel_handler(dispatch_source_t source, dispatch_block_t handler) {
  Source::from(source).timer().setCancelHandler(std::move(handler));
}

void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start, uint64_t interval, uint64_t) {
  Source::from(source).timer().set(start, interval);
}

uintptr_t dispatch_source_get_data(dispatch_source_t source) {
  return Source::from(source).timer().ticks();
}

void dispatch_source_cancel(dispatch_source_t source) {
  Source::from(source).timer().cancel();
}

void dispatch_after(dispatch_time_t when, dispatch_queue_t queue, dispatch_block_t block) {
  if (when == DISPATCH_TIME_FOREVER) return;
  const auto clock =
      std::make_shared<asio::steady_timer>(platform::timerContext(), platform::timePoint(when));
  clock->async_wait(
      [clock, kept = platform::Retained<Queue>::retain(Queue::from(queue)),
       block = std::move(block)](const asio::error_code&) mutable { kept->async(std::move(block)); });
}
