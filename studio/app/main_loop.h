// The studio's main loop: GLib's default one. All of the studio's state lives on its thread.
#pragma once

#include <glib.h>

#include <chrono>
#include <functional>

namespace studio {

/// Runs `task` on the main loop's thread, soon and in the order of the calls. Any thread.
void onMainLoop(std::function<void()> task);

/// Calls a function on the main loop, once or again and again, until it is stopped or destroyed.
class Timer {
 public:
  Timer() = default;
  ~Timer() { stop(); }
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  void once(std::chrono::milliseconds after, std::function<void()> task);
  void every(std::chrono::milliseconds interval, std::function<void()> task);
  void stop();
  bool runs() const { return source_ != 0; }

 private:
  static gboolean fire(gpointer timer);

  guint source_ = 0;
  bool repeats_ = false;
  std::function<void()> task_;
};

}  // namespace studio
