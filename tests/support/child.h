#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "waiting.h"

// A program that a test starts, and that ends with the test.
class Child {
 public:
  static constexpr int kRuns = 1000;

  // `descriptors` says which of the test's the program finds under which number, 3 as systemd passes a
  // socket. `prepare` runs in the new process.
  explicit Child(
      std::vector<std::string> command, const std::map<int, int>& descriptors = {},
      const std::function<void()>& prepare = [] {}) {
    std::vector<char*> arguments;
    for (std::string& argument : command) arguments.push_back(argument.data());
    arguments.push_back(nullptr);
    pid_ = fork();
    if (pid_ != 0) return;
    // By another number first, since a descriptor is not copied onto itself.
    for (const auto& [number, own] : descriptors) dup2(dup(own), number);
    if (descriptors.contains(3)) {
      setenv("LISTEN_FDS", "1", 1);
      setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    }
    prepare();
    execvp(arguments[0], arguments.data());
    _exit(127);
  }
  ~Child() {
    if (pid_ <= 0) return;
    sendSignal(SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  void sendSignal(int number) const { kill(pid_, number); }

  // The exit status, minus the signal that ended it, or kRuns after `limit`. An end is told once.
  int waitForEnd(std::chrono::seconds limit = kDeadline) {
    const int process = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    pollfd ended = {process, POLLIN, 0};
    const int ready = poll(&ended, 1, static_cast<int>(std::chrono::milliseconds(limit).count()));
    close(process);
    if (ready != 1) return kRuns;
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  pid_t pid_;
};
