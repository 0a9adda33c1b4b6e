#include "service_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace {

int listenAt(const std::string& path) {
  const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(socket, 8) != 0) {
    throw std::runtime_error("cannot listen at " + path);
  }
  return socket;
}

}  // namespace

ServiceProcess::ServiceProcess(const std::string& scenario) {
  char folder[] = "/tmp/service-process-XXXXXX";
  folder_ = mkdtemp(folder);
  setenv("XDG_RUNTIME_DIR", folder_.c_str(), 1);
  const int socket = listenAt(folder_ + "/" + name_);
  const int log = open((folder_ + "/log").c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);

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

ServiceProcess::~ServiceProcess() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  std::filesystem::remove_all(folder_);
}

int ServiceProcess::waitForEnd(int seconds) {
  const int process = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
  pollfd ended = {process, POLLIN, 0};
  const int ready = poll(&ended, 1, seconds * 1000);
  close(process);
  if (ready != 1) return -1;
  int status = 0;
  waitpid(std::exchange(pid_, -1), &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

std::string ServiceProcess::systemLog() const {
  std::ostringstream text;
  text << std::ifstream(folder_ + "/log").rdbuf();
  return text.str();
}
