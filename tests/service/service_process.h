#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

#include "link.h"

// A service process with the scripted SDK in the SDK's place. It is given its listening socket, so that a
// studio may connect at once.
class ServiceProcess {
 public:
  explicit ServiceProcess(const std::string& scenario = "") {
    const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const sockaddr_un address = socketAddress(folder_ / kName);
    EXPECT_EQ(bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(socket, 8), 0);
    const int log = open((folder_ / "log").c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);

    pid_ = fork();
    if (pid_ == 0) {
      // Also where it has this number already: the new process must find it open.
      if (dup2(socket, 3) == 3) fcntl(3, F_SETFD, 0);
      dup2(log, STDERR_FILENO);
      setenv("LISTEN_FDS", "1", 1);
      setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
      setenv("LD_LIBRARY_PATH", SCRIPTED_SDK_FOLDER, 1);
      setenv("SDK_SCENARIO", scenario.c_str(), 1);
      execl(SERVICE_PROGRAM, SERVICE_PROGRAM, static_cast<char*>(nullptr));
      _exit(127);
    }
    close(socket);
    close(log);
  }
  ~ServiceProcess() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  ServiceProcess(const ServiceProcess&) = delete;
  ServiceProcess& operator=(const ServiceProcess&) = delete;

  // The name at which studios of this test process find it.
  static constexpr char kName[] = "service";

  // Waits for the end: the exit status, 1000 + the signal that ended it, or -1 after `seconds`.
  int waitForEnd(int seconds) {
    const int process = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    pollfd ended = {process, POLLIN, 0};
    const int ready = poll(&ended, 1, seconds * 1000);
    close(process);
    if (ready != 1) return -1;
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
  }

  // What it has written to the system log.
  std::string systemLog() const {
    std::ostringstream text;
    text << std::ifstream(folder_ / "log").rdbuf();
    return text.str();
  }

 private:
  TemporaryFolder folder_;
  pid_t pid_ = -1;
};
