#pragma once

#include <dispatch/dispatch.h>

#include <asio/io_context.hpp>
#include <chrono>

namespace platform {

// The one thread that waits for all timers. What it runs must be short: it only submits to queues.
asio::io_context& timerContext();

// The time of the monotonic clock; when is not forever.
std::chrono::steady_clock::time_point timePoint(dispatch_time_t when);

}  // namespace platform
