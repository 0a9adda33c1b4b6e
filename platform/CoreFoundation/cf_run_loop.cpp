#include <CoreFoundation/cf_run_loop_source.h>
#include <pthread.h>

#include <atomic>
#include <vector>

struct __CFRunLoop final : platform::CFObject {
  ~__CFRunLoop() override {
    for (CFRunLoopSourceRef source : sources) CFRelease(source);
    g_main_context_unref(context);
  }

  CFTypeID typeId() const override { return platform::typeIdOf<__CFRunLoop>(); }

  GMainContext* const context = g_main_context_new();
  std::vector<CFRunLoopSourceRef> sources;
  std::atomic<bool> stopped{false};
};

namespace {

// A key of the thread library and not a thread_local: its destructor runs when a thread ends and not when
// the process does, as it may from inside a run loop's callback.
pthread_key_t runLoopKey() {
  static const pthread_key_t key = [] {
    pthread_key_t made = 0;
    pthread_key_create(&made, [](void* runLoop) { CFRelease(runLoop); });
    return made;
  }();
  return key;
}

}  // namespace

const CFRunLoopMode kCFRunLoopDefaultMode = CFSTR("kCFRunLoopDefaultMode");
const CFRunLoopMode kCFRunLoopCommonModes = CFSTR("kCFRunLoopCommonModes");

CFRunLoopRef CFRunLoopGetCurrent(void) {
  auto* runLoop = static_cast<CFRunLoopRef>(pthread_getspecific(runLoopKey()));
  if (!runLoop) {
    runLoop = new __CFRunLoop;
    pthread_setspecific(runLoopKey(), runLoop);
  }
  return runLoop;
}

void CFRunLoopRun(void) {
  CFRunLoopRef runLoop = CFRunLoopGetCurrent();
  if (runLoop->sources.empty()) return;
  while (!runLoop->stopped.exchange(false)) g_main_context_iteration(runLoop->context, TRUE);
}

void CFRunLoopStop(CFRunLoopRef rl) {
  rl->stopped = true;
  g_main_context_wakeup(rl->context);
}

void CFRunLoopAddSource(CFRunLoopRef rl, CFRunLoopSourceRef source, CFRunLoopMode) {
  CFRetain(source);
  rl->sources.push_back(source);
  source->schedule(rl->context);
}
