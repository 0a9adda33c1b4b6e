#include "stage/loop.h"

#include <utility>

namespace studio {

void Loop::post(std::function<void()> task) const {
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
  g_source_attach(source, context_);
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
  source_ = g_timeout_source_new(static_cast<guint>(interval.count()));
  g_source_set_callback(source_, fire, this, nullptr);
  g_source_attach(source_, g_main_context_get_thread_default());
}

void Timer::stop() {
  if (GSource* const source = std::exchange(source_, nullptr)) {
    g_source_destroy(source);
    g_source_unref(source);
  }
}

gboolean Timer::fire(gpointer data) {
  auto& timer = *static_cast<Timer*>(data);
  const auto task = timer.task_;  // the task may start the timer anew, or destroy it
  if (!timer.repeats_) timer.stop();
  task();
  return G_SOURCE_CONTINUE;  // what was stopped meanwhile is destroyed already
}

}  // namespace studio
