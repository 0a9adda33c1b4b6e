#pragma once

#include <dispatch/object.h>
#include <dispatch/pool.h>

#include <mutex>
#include <optional>
#include <string>

namespace platform {

class Queue final : public DispatchObject<Queue, dispatch_queue_s> {
 public:
  enum class Kind : bool { serial, concurrent };

  Queue(const char* label, Kind kind, Lifetime lifetime = Lifetime::counted)
      : DispatchObject(lifetime), label_(label ? label : ""), kind_(kind), turn_{{}, this} {
    turn_.run = drain;
  }

  static Queue& from(dispatch_queue_t queue) { return *static_cast<Queue*>(queue); }

  const char* label() const { return label_.c_str(); }
  void setTarget(Queue& target);
  void async(dispatch_block_t block);
  void sync(const dispatch_block_t& block) noexcept;

  // The label of the queue that the calling thread runs on.
  static const char* currentLabel();

 private:
  friend class DispatchObject;

  // A job for the pool or the target: one turn on a thread, in which the queue runs all that it has.
  struct Turn : Job {
    Queue* queue;
  };
  struct Block;
  struct Waiter;
  class Running;

  ~Queue() = default;
  Queue* serialTarget() const;
  void submit(Job& job);
  void askForTurn();
  void passTurn();
  static void drain(Job* turn) noexcept;

  const std::string label_;
  const Kind kind_;
  std::optional<Retained<Queue>> target_;
  Turn turn_;

  std::mutex lock_;
  JobList jobs_;
  // Some thread has the queue, or will have it. That thread holds one reference, which goes from hand to hand
  // with the turn.
  bool busy_ = false;
};

}  // namespace platform
