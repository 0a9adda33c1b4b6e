// What the benchmark and the SDK inside the service say to each other, over a plain socket beside the link.
#pragma once

#include <cstdint>
#include <ctime>

namespace bench {

// The environment variables that name the service's descriptors.
inline constexpr char kControlVariable[] = "BENCH_CONTROL";
inline constexpr char kFloorVariable[] = "BENCH_FLOOR";

enum class Order : int32_t {
  echo,           // answered at once: the floor of a message and its reply
  stamp,          // answered with the time that the order took: the floor of a command
  prepare,        // makes the source pictures of a size
  announceGuest,  // makes a guest's stream known to the service
  startCapturer,  // the SDK from now on takes the show's frames
  frame,          // a guest's frame: not answered, the time goes along as the frame's time stamp
  frameFloor,     // one conversion and one round trip on the floor socket; answered with their time
  sound,          // a guest's sound: not answered, the time is in its first samples
  soundFloor,     // the same bytes over the floor socket
  counters,       // answered with the counters, which count on or not as `counting` says
};

struct Message {
  Order order = Order::echo;
  int32_t guest = 0;
  int32_t width = 0;
  int32_t height = 0;
  int64_t sent = 0;  // nanoseconds, see now()
  bool counting = false;
  char padding[39] = {};
};

struct Answer {
  int64_t nanoseconds = 0;
  int64_t allocations = 0;
  int64_t allocatedBytes = 0;
  int64_t largestAllocation = 0;  // since the last answer with counters
  int64_t minorFaults = 0;
};

inline constexpr int kSoundBytes = 3840;  // 20 ms of 16-bit stereo at 48 kHz

// A clock that all processes share.
inline int64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

}  // namespace bench
