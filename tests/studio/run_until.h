#pragma once

#include "app/main_loop.h"
#include "waiting.h"

// Runs the main loop until the condition holds; false after the deadline.
template <class Condition>
bool runUntil(Condition condition) {
  bool late = false;
  studio::Timer limit;
  limit.once(kDeadline, [&] { late = true; });
  studio::Timer look;
  look.every(std::chrono::milliseconds(5), [] {});
  while (!condition()) {
    if (late) return false;
    g_main_context_iteration(nullptr, TRUE);
  }
  return true;
}
