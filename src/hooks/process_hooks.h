// Two changes to how the process behaves toward the system. Nothing in the service makes them: a host looks
// the entry points up by name.
#pragma once

#pragma GCC visibility push(default)
extern "C" {

// From now on nothing ducks the machine's audio: in every image AudioDeviceDuck prints "Unduck" and returns
// 0.
void duckExactlyElevenDucks();

// From now on pthread_setschedparam is another function in every image. A request for SCHED_RR with priority
// 0 gives the calling thread, whichever is named, 2 ms of the processor, within 4 ms, in each second; should
// the system refuse that, a line is printed. Every other request does nothing. All get the answer 0.
void patchThreadPriority();
}
#pragma GCC visibility pop
