#pragma once

#include <functional>

namespace platform {

// Starts a detached thread with all asynchronous signals blocked: they belong to the program's own threads.
// False if the system has no more threads to give.
bool startThread(const char* name, std::function<void()> body) noexcept;

}  // namespace platform
