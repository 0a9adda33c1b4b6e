// The loop on which the studio's state lives: a GLib main context.
#pragma once

#include <glib.h>

#include <chrono>
#include <functional>

namespace studio {

/// The main context that was its thread's default where this object was made.
class Loop {
 public:
  Loop() : context_(g_main_context_ref_thread_default()) {}
  ~Loop() { g_main_context_unref(context_); }
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  /// Runs `task` on the loop's thread, soon and in the order of the calls. Any thread.
  void post(std::function<void()> task) const;
  /// Runs what is due, or waits for the next; for the loop's thread, at the end of what lives on it.
  void turn() const { g_main_context_iteration(context_, TRUE); }

 private:
  GMainContext* context_;
};

/// Calls a function on the loop of the thread that starts it, once or again and again, until it is stopped
/// or destroyed. For that thread.
class Timer {
 public:
  Timer() = default;
  ~Timer() { stop(); }
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  void once(std::chrono::milliseconds after, std::function<void()> task);
  void every(std::chrono::milliseconds interval, std::function<void()> task);
  void stop();
  bool runs() const { return source_ != nullptr; }

 private:
  static gboolean fire(gpointer timer);

  GSource* source_ = nullptr;
  bool repeats_ = false;
  std::function<void()> task_;
};

}  // namespace studio
