#include "stage/sound/clock.h"

#include <pthread.h>

#include <chrono>
#include <utility>

#include "stage/sound/format.h"

namespace studio::sound {

namespace {

constexpr std::chrono::milliseconds mostToMakeUp(250);
constexpr int modestPriority = 5;

}  // namespace

Clock::Clock(std::function<void(Time)> tick) : tick_(std::move(tick)), thread_([this] { run(); }) {
  const sched_param priority{modestPriority};
  pthread_setschedparam(thread_.native_handle(), SCHED_RR,
                        &priority);  // refused to most users, and not needed
}

Clock::~Clock() {
  ends_ = true;
  thread_.join();
}

void Clock::run() const {
  auto next = std::chrono::steady_clock::now();
  while (!ends_) {
    next += blockTime;
    std::this_thread::sleep_until(next);
    const auto now = std::chrono::steady_clock::now();
    if (now - next > mostToMakeUp) next = now;
    tick_(next);
  }
}

}  // namespace studio::sound
