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
      body();
    }).detach();
  } catch (const std::system_error&) {
    started = false;
  }
  pthread_sigmask(SIG_SETMASK, &former, nullptr);
  return started;
}

}  // namespace platform
