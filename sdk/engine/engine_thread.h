#pragma once

#include <glib.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace engine {

using Task = std::function<void()>;

// The one thread that everything but media runs on: the WebSockets, the sessions' state and
// the sessions' callbacks. What lives on it needs no lock. It runs as long as the process.
class EngineThread {
 public:
  // Starts the thread on first use.
  static EngineThread& get();

  bool isCurrent() const;
  // Any thread. Tasks run in the order in which they are posted.
  void post(Task task);
  // Runs the task on the engine's thread and returns when it has run. What takes half a minute is an error in
  // the log, on which the program may end itself.
  void run(const Task& task);
  GMainContext* context() const { return context_; }

 private:
  EngineThread();
  static gboolean hasTasks(GSource* source, gint* timeout);
  static gboolean runTasks(GSource* source, GSourceFunc callback, gpointer user_data);

  GMainContext* const context_;
  std::mutex mutex_;
  std::vector<Task> tasks_;
};

// A timer of the engine's thread; to be used on that thread only. Destroying it stops it.
class Timer {
 public:
  Timer() = default;
  ~Timer() { stop(); }
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Calls the task once, or every so often. A timer that is running starts anew.
  void once(std::chrono::milliseconds delay, Task task);
  void every(std::chrono::milliseconds interval, Task task);
  void stop();
  bool running() const { return source_ != nullptr; }

 private:
  void start(std::chrono::milliseconds delay, bool repeat, Task task);

  GSource* source_ = nullptr;
};

}  // namespace engine
