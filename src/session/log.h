#pragma once

#include <fmt/printf.h>

#include "session/guest_session.h"

// The one log function: formats the text in printf's syntax and sends it to the studio. A line that is
// logged before the session object exists, or while no studio is connected, is lost. Any thread may call
// it; it never waits for the studio.
template <class... Args>
void logMessageToApp(const char* format, const Args&... args) {
  ZarvoGuestSession* session = sharedGuestSession.load(std::memory_order_acquire);
  if (!format || !session) return;
  session->logMessage(fmt::sprintf(format, args...));
}
