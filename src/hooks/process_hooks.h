// Two changes to how the process behaves toward the system. Nothing in the service makes them: a host looks
// the entry points up by name.
#pragma once

#include <pthread.h>

#include <cstdint>

#pragma GCC visibility push(default)
extern "C" {

// From now on nothing ducks the machine's audio: AudioDeviceDuck becomes myDuck in every image.
void duckExactlyElevenDucks();

// From now on pthread_setschedparam is mySetSchedParam in every image.
void patchThreadPriority();

// Takes what AudioDeviceDuck takes. Ducks nothing, prints "Unduck" and returns 0.
int32_t myDuck(uint32_t device, float duckedLevel, const void* startTime, float rampDuration);

// Takes what pthread_setschedparam takes. A request for SCHED_RR with priority 0 gives the calling thread,
// whichever is named, 2 ms of the processor, within 4 ms, in each second; should the system refuse that, a
// line is printed. Every other request does nothing. Returns 0 in any case.
int mySetSchedParam(pthread_t thread, int policy, const sched_param* parameters);
}
#pragma GCC visibility pop
