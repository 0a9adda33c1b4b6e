#include <dispatch/parker.h>
#include <dispatch/queue.h>

#include <cstdio>
#include <cstdlib>

namespace platform {

void dispatchFatal(const char* text) noexcept {
  std::fprintf(stderr, "%s\n", text);
  std::abort();
}

// A block that was submitted. The queue is kept only by a concurrent queue's: a serial one is kept by its
// turn.
struct Queue::Block : Job {
  dispatch_block_t block;
  Queue* queue;
};

// A thread that waits in sync for the queue to be handed to it. It has no run function.
struct Queue::Waiter : Job {
  Parker parker;
};

// That the calling thread runs on the queue, and inside which others.
class Queue::Running {
 public:
  explicit Running(const Queue& queue) noexcept : queue_(queue), outer_(std::exchange(current, this)) {}
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;
  ~Running() { current = outer_; }

  static const Queue* innermost() { return current ? &current->queue_ : nullptr; }
  static bool on(const Queue& queue) {
    for (const Running* running = current; running; running = running->outer_) {
      if (&running->queue_ == &queue) return true;
    }
    return false;
  }

 private:
  static thread_local constinit const Running* current;

  const Queue& queue_;
  const Running* const outer_;
};

thread_local constinit const Queue::Running* Queue::Running::current = nullptr;

const char* Queue::currentLabel() {
  const Queue* queue = Running::innermost();
  return queue ? queue->label() : "";
}

void Queue::setTarget(Queue& target) {
  target_.emplace(Retained<Queue>::retain(target));
}

// The serial queue whose order this one's work is part of.
Queue* Queue::serialTarget() const {
  if (!target_) return nullptr;
  Queue& target = **target_;
  return target.kind_ == Kind::serial ? &target : target.serialTarget();
}

void Queue::async(dispatch_block_t block) {
  if (kind_ == Kind::concurrent) retain();
  auto* job = new Block{{}, std::move(block), this};
  job->run = [](Job* base) noexcept {
    auto* self = static_cast<Block*>(base);
    if (self->queue->kind_ == Kind::serial) {
      self->block();
      delete self;
    } else {
      const auto queue = Retained<Queue>::adopt(*self->queue);
      const Running running(*queue);
      self->block();
      delete self;
    }
  };
  submit(*job);
}

void Queue::submit(Job& job) {
  if (kind_ == Kind::concurrent) {
    if (Queue* below = serialTarget()) {
      below->submit(job);
    } else {
      Pool::shared().run(job);
    }
    return;
  }
  {
    const std::lock_guard guard(lock_);
    jobs_.append(job);
    if (std::exchange(busy_, true)) return;
  }
  retain();
  askForTurn();
}

void Queue::askForTurn() {
  if (Queue* below = serialTarget()) {
    below->submit(turn_);
  } else {
    Pool::shared().runNow(turn_);
  }
}

void Queue::drain(Job* turn) noexcept {
  Queue& queue = *static_cast<Turn*>(turn)->queue;
  const Running running(queue);
  for (;;) {
    Job* job = nullptr;
    {
      const std::lock_guard guard(queue.lock_);
      if (queue.jobs_.empty()) {
        queue.busy_ = false;
      } else {
        job = &queue.jobs_.take();
      }
    }
    if (!job) return queue.release();
    if (!job->run) return static_cast<Waiter*>(job)->parker.wake();
    job->run(job);
  }
}

void Queue::sync(const dispatch_block_t& block) noexcept {
  Queue* below = serialTarget();
  if (kind_ == Kind::concurrent) {
    const Running running(*this);
    return below ? below->sync(block) : block();
  }

  std::unique_lock lock(lock_);
  if (std::exchange(busy_, true)) {
    if (Running::on(*this)) {
      dispatchFatal("dispatch_sync on a queue that the calling thread already runs on");
    }
    Waiter waiter;
    jobs_.append(waiter);
    lock.unlock();
    waiter.parker.wait();
  } else {
    lock.unlock();
    retain();
  }
  {
    const Running running(*this);
    below ? below->sync(block) : block();
  }
  passTurn();
}

// Gives the queue to the next who waits for it.
void Queue::passTurn() {
  std::unique_lock lock(lock_);
  if (jobs_.empty()) {
    busy_ = false;
    lock.unlock();
    release();
  } else if (!jobs_.front()->run) {
    auto& waiter = static_cast<Waiter&>(jobs_.take());
    lock.unlock();
    waiter.parker.wake();
  } else {
    lock.unlock();
    askForTurn();
  }
}

namespace {

class Attribute final : public DispatchObject<Attribute, dispatch_queue_attr_s> {
 public:
  constexpr Attribute() noexcept : DispatchObject(Lifetime::endless) {}
};

constinit Attribute serialAttribute;
constinit Attribute concurrentAttribute;

}  // namespace

}  // namespace platform

using platform::Queue;

const dispatch_queue_attr_t _dispatch_queue_attr_concurrent = &platform::concurrentAttribute;

void dispatch_retain(dispatch_object_t object) {
  object->retain();
}

void dispatch_release(dispatch_object_t object) {
  object->release();
}

void dispatch_resume(dispatch_object_t object) {
  object->resume();
}

dispatch_queue_attr_t dispatch_queue_attr_make_with_qos_class(dispatch_queue_attr_t attr,
                                                              dispatch_qos_class_t qos_class,
                                                              int relative_priority) {
  constexpr int kLowestRelativePriority = -15;
  switch (qos_class) {
    case QOS_CLASS_USER_INTERACTIVE:
    case QOS_CLASS_USER_INITIATED:
    case QOS_CLASS_DEFAULT:
    case QOS_CLASS_UTILITY:
    case QOS_CLASS_BACKGROUND:
    case QOS_CLASS_UNSPECIFIED:
      break;
    default:
      return nullptr;
  }
  if (relative_priority > 0 || relative_priority < kLowestRelativePriority) return nullptr;
  return attr ? attr : &platform::serialAttribute;
}

dispatch_queue_t dispatch_queue_create(const char* label, dispatch_queue_attr_t attr) {
  return new Queue(label, attr == DISPATCH_QUEUE_CONCURRENT ? Queue::Kind::concurrent : Queue::Kind::serial);
}

dispatch_queue_t dispatch_get_global_queue(intptr_t identifier, uintptr_t flags) {
  static auto& global = *new Queue("global", Queue::Kind::concurrent, Queue::Lifetime::endless);
  switch (identifier) {
    case DISPATCH_QUEUE_PRIORITY_HIGH:
    case DISPATCH_QUEUE_PRIORITY_DEFAULT:
    case DISPATCH_QUEUE_PRIORITY_LOW:
    case DISPATCH_QUEUE_PRIORITY_BACKGROUND:
    case QOS_CLASS_USER_INTERACTIVE:
    case QOS_CLASS_USER_INITIATED:
    case QOS_CLASS_DEFAULT:
    case QOS_CLASS_UTILITY:
    case QOS_CLASS_BACKGROUND:
      return flags == 0 ? &global : nullptr;
    default:
      return nullptr;
  }
}

void dispatch_set_target_queue(dispatch_object_t object, dispatch_queue_t queue) {
  static_cast<Queue*>(object)->setTarget(Queue::from(queue));
}

const char* dispatch_queue_get_label(dispatch_queue_t queue) {
  return queue == DISPATCH_CURRENT_QUEUE_LABEL ? Queue::currentLabel() : Queue::from(queue).label();
}

void dispatch_async(dispatch_queue_t queue, dispatch_block_t block) {
  Queue::from(queue).async(std::move(block));
}

void dispatch_sync(dispatch_queue_t queue, const dispatch_block_t& block) {
  Queue::from(queue).sync(block);
}
