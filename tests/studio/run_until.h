#pragma once

#include <glib.h>

#include "waiting.h"

// Runs the main loop until the condition holds; false after the deadline.
template <class Condition>
bool runUntil(Condition condition) {
  return eventually([&] {
    g_main_context_iteration(nullptr, FALSE);
    return condition();
  });
}
