#pragma once

namespace engine {

// Marks the calling thread as one that runs a callback of the program's, so that a call that
// would wait for callbacks to end does not wait for itself.
class CallbackScope {
 public:
  CallbackScope() { ++depth; }
  ~CallbackScope() { --depth; }
  CallbackScope(const CallbackScope&) = delete;
  CallbackScope& operator=(const CallbackScope&) = delete;

  static bool active() { return depth > 0; }

 private:
  static inline thread_local int depth = 0;
};

}  // namespace engine
