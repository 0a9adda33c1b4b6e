#pragma once

#include <chrono>

// Every wait of the service, once.

using namespace std::chrono_literals;

// A connect call that has not come back by then has hung, and the process ends.
inline constexpr std::chrono::nanoseconds kConnectTimeout = 30s;

// Before the process ends on the SDK's error, its last log line gets this long to leave.
inline constexpr std::chrono::microseconds kExitDelayAfterSdkError = 1s;

// The same for the other causes: a hung connect, and the system's sleep.
inline constexpr std::chrono::microseconds kExitDelay = 2s;

// What an unsubscription in the background gets before the guests are told of the new audio settings.
inline constexpr std::chrono::microseconds kUnsubscribePause = 10ms;

// The render timer: 1000 sample frames a tick at 48 kHz.
inline constexpr std::chrono::nanoseconds kRenderInterval = 20'833'333ns;
inline constexpr std::chrono::nanoseconds kRenderLeeway = 333'000ns;
