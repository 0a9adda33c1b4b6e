#include "app/main_loop.h"

#include <utility>

namespace studio {

void onMainLoop(std::function<void()> task) {
  GSource* source = g_idle_source_new();
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(
      source,
      [](gpointer data) -> gboolean {
        (*static_cast<std::function<void()>*>(data))();
        return G_SOURCE_REMOVE;
      },
      new std::function<void()>(std::move(task)),
      [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
  g_source_attach(source, nullptr);
  g_source_unref(source);
}

void Timer::once(std::chrono::milliseconds after, std::function<void()> task) {
  every(after, std::move(task));
  repeats_ = false;
}

void Timer::every(std::chrono::milliseconds interval, std::function<void()> task) {
  stop();
  repeats_ = true;
  task_ = std::move(task);
  source_ = g_timeout_add(static_cast<guint>(interval.count()), fire, this);
}

void Timer::stop() {
  if (source_ != 0) g_source_remove(std::exchange(source_, 0));
}

gboolean Timer::fire(gpointer data) {
  auto& timer = *static_cast<Timer*>(data);
  const auto task = timer.task_;  // the task may start the timer anew, or destroy it
  if (timer.repeats_) {
    task();
    return G_SOURCE_CONTINUE;
  }
  timer.source_ = 0;
  task();
  return G_SOURCE_REMOVE;
}

}  // namespace studio
