#include "engine_thread.h"

#include <condition_variable>
#include <thread>

#include "log.h"

namespace engine {
namespace {

struct TaskSource {
  GSource base;
  EngineThread* thread;
};

// A pipeline that takes longer to come down hangs.
constexpr std::chrono::seconds longestTask(30);

thread_local bool onEngineThread = false;

}  // namespace

EngineThread& EngineThread::get() {
  // Never destroyed: callbacks may run while the process ends.
  static EngineThread& thread = *new EngineThread;
  return thread;
}

EngineThread::EngineThread() : context_(g_main_context_new()) {
  // The list has a mutex of its own, so that handing a task over never depends on GLib's.
  static GSourceFuncs functions = {
      &EngineThread::hasTasks, nullptr, &EngineThread::runTasks, nullptr, nullptr, nullptr};
  GSource* source = g_source_new(&functions, sizeof(TaskSource));
  reinterpret_cast<TaskSource*>(source)->thread = this;
  g_source_attach(source, context_);
  std::thread([this] {
    onEngineThread = true;
    g_main_context_push_thread_default(context_);
    g_main_loop_run(g_main_loop_new(context_, FALSE));
  }).detach();
}

gboolean EngineThread::hasTasks(GSource* source, gint* timeout) {
  if (timeout != nullptr) *timeout = -1;
  EngineThread* self = reinterpret_cast<TaskSource*>(source)->thread;
  const std::lock_guard lock(self->mutex_);
  return self->tasks_.empty() ? FALSE : TRUE;
}

gboolean EngineThread::runTasks(GSource* source, GSourceFunc, gpointer) {
  EngineThread* self = reinterpret_cast<TaskSource*>(source)->thread;
  std::vector<Task> tasks;
  {
    const std::lock_guard lock(self->mutex_);
    tasks.swap(self->tasks_);
  }
  for (Task& task : tasks) {
    task();
    task = nullptr;
  }
  return G_SOURCE_CONTINUE;
}

bool EngineThread::isCurrent() const {
  return onEngineThread;
}

void EngineThread::post(Task task) {
  {
    const std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  g_main_context_wakeup(context_);
}

void EngineThread::run(const Task& task) {
  if (isCurrent()) {
    task();
    return;
  }
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;
  post([&] {
    task();
    const std::lock_guard lock(mutex);
    done = true;
    finished.notify_one();
  });
  std::unique_lock lock(mutex);
  const auto isDone = [&] { return done; };
  if (finished.wait_for(lock, longestTask, isDone)) return;
  lock.unlock();
  logError("The engine has been at one task for {} seconds and may never end it.", longestTask.count());
  lock.lock();
  finished.wait(lock, isDone);
}

void Timer::once(std::chrono::milliseconds delay, Task task) {
  start(delay, false, std::move(task));
}

void Timer::every(std::chrono::milliseconds interval, Task task) {
  start(interval, true, std::move(task));
}

void Timer::start(std::chrono::milliseconds delay, bool repeat, Task task) {
  stop();
  struct Call {
    Timer* timer;
    bool repeat;
    Task task;
  };
  source_ = g_timeout_source_new(static_cast<guint>(delay.count()));
  g_source_set_callback(
      source_,
      [](gpointer data) -> gboolean {
        auto* call = static_cast<Call*>(data);
        if (call->repeat) {
          call->task();
          return G_SOURCE_CONTINUE;
        }
        const Task task = std::move(call->task);
        call->timer->stop();
        task();
        return G_SOURCE_REMOVE;
      },
      new Call{this, repeat, std::move(task)}, [](gpointer data) { delete static_cast<Call*>(data); });
  g_source_attach(source_, EngineThread::get().context());
}

void Timer::stop() {
  if (source_ == nullptr) return;
  g_source_destroy(source_);
  g_source_unref(source_);
  source_ = nullptr;
}

}  // namespace engine
