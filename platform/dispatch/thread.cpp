#include <dispatch/thread.h>
#include <pthread.h>

#include <csignal>
#include <system_error>
#include <thread>

namespace platform {

bool startThread(const char* name, std::function<void()> body) noexcept {
  sigset_t blocked;
  sigfillset(&blocked);
  for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGABRT, SIGSYS}) {
    sigdelset(&blocked, fault);
  }
  sigset_t former;
  pthread_sigmask(SIG_SETMASK, &blocked, &former);
  bool started = true;
  try {
    std::thread([name, body = std::move(body)] {
      pthread_setname_np(pthread_self(), name);
      // A thread that was made urgent does not make urgent what it starts.
      const sched_param ordinary{};
      pthread_setschedparam(pthread_self(), SCHED_OTHER, &ordinary);
      body();
    }).detach();
  } catch (const std::system_error&) {
    started = false;
  }
  pthread_sigmask(SIG_SETMASK, &former, nullptr);
  return started;
}

}  // namespace platform
