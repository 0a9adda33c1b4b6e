// What the process hooks replace, called as an SDK would call it.

extern int AudioDeviceDuck(unsigned device, float level, const void* start, float ramp);
extern int pthread_setschedparam(void* thread, int policy, const void* parameters);

int duck(void) {
  return AudioDeviceDuck(11, 0.5f, 0, 1.0f);
}
int setPriority(void* thread, int policy, const void* parameters) {
  return pthread_setschedparam(thread, policy, parameters);
}
