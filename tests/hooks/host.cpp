// Loaded into the service before it starts: looks the hooks up as a host does, tries them and ends the
// process.
#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

template <typename Type>
Type* lookUp(const char* name) {
  void* const found = dlsym(RTLD_DEFAULT, name);
  if (found == nullptr) {
    printf("%s is not there\n", name);
    fflush(stdout);
    _exit(1);
  }
  return reinterpret_cast<Type*>(found);
}

__attribute__((constructor)) void tryHooks() {
  lookUp<void()>("duckExactlyElevenDucks")();
  lookUp<void()>("patchThreadPriority")();
  lookUp<int32_t(uint32_t, float, const void*, float)>("myDuck")(1, 0, nullptr, 0);
  const sched_param fifty{.sched_priority = 50};
  lookUp<int(pthread_t, int, const sched_param*)>("mySetSchedParam")(pthread_self(), SCHED_RR, &fifty);
  puts(*lookUp<bool>("dontRebindImages") ? "rebinding is off" : "rebinding is on");
  fflush(stdout);
  _exit(0);
}

}  // namespace
