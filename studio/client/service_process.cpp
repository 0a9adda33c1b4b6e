#include "studio/service_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string_view>

namespace studio {

namespace {

constexpr std::chrono::seconds startLimit(10);

// The environment of this process with the given entries in place of their namesakes.
std::vector<std::string> environmentWith(const std::vector<std::pair<std::string, std::string>>& entries) {
  std::vector<std::string> environment;
  for (char** entry = environ; *entry; ++entry) {
    const std::string_view text(*entry);
    const std::string_view name = text.substr(0, text.find('='));
    bool replaced = false;
    for (const auto& [key, value] : entries) replaced = replaced || key == name;
    if (!replaced) environment.emplace_back(text);
  }
  for (const auto& [key, value] : entries) environment.push_back(std::string(key).append("=").append(value));
  return environment;
}

// Whether a socket of that path listens. Told without a connection, which the service would take for a
// studio that came and went.
bool listens(const std::string& path) {
  constexpr std::string_view listening = "00010000";  // __SO_ACCEPTCON
  std::ifstream sockets("/proc/net/unix");
  for (std::string line; std::getline(sockets, line);) {
    // "Num: RefCount Protocol Flags Type St Inode Path"
    if (line.ends_with(" " + path) && line.find(" " + std::string(listening) + " ") != std::string::npos) {
      return true;
    }
  }
  return false;
}

bool endedWithin(int pidfd, std::chrono::milliseconds time) {
  pollfd waiting{pidfd, POLLIN, 0};
  return poll(&waiting, 1, static_cast<int>(time.count())) > 0;
}

// In the child: nothing here may allocate or lock.
[[noreturn]] void become(const char* program, char* const* arguments, char* const* environment, int output,
                         int failure, pid_t parent) {
  setpgid(0, 0);  // a Ctrl-C at the studio's terminal is the studio's to act on
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  dup2(nothing, STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  execve(program, arguments, environment);
  const int error = errno;
  const ssize_t written = write(failure, &error, sizeof error);
  _exit(written == sizeof error ? 127 : 126);
}

}  // namespace

std::string ServiceProcess::End::describe() const {
  if (signal != 0) return "killed by signal " + std::to_string(signal) + " (" + strsignal(signal) + ")";
  return "ended with status " + std::to_string(status);
}

ServiceProcess::ServiceProcess(const Settings& settings, std::function<void(End)> ended) {
  std::promise<int> forked;
  std::future<int> failure = forked.get_future();
  std::future<bool> started = started_.get_future();
  // A child's death signal follows the thread that forked it: one thread forks, and stays for the child.
  watcher_ = std::thread(
      [this, &settings, &forked, ended = std::move(ended), started = std::move(started)]() mutable {
        const int error = spawn(settings);
        forked.set_value(error);  // `settings` and `forked` are gone from here on
        if (error != 0) return;
        int state = 0;
        while (waitpid(pid_, &state, 0) < 0 && errno == EINTR) {
        }
        if (!started.get()) return;
        ended(WIFSIGNALED(state) ? End{0, WTERMSIG(state)} : End{WEXITSTATUS(state), 0});
      });

  std::string fault;
  if (const int error = failure.get(); error != 0) {
    fault = settings.executable.string() + " cannot be started: " + std::strerror(error);
  } else if (!listensWithin(startLimit, (settings.runtimeDirectory / settings.name).string())) {
    fault = settings.executable.string() + " ended at its start, or did not listen at " +
            (settings.runtimeDirectory / settings.name).string() + "; what it wrote says why";
  }
  started_.set_value(fault.empty());
  if (fault.empty()) return;
  end();
  throw std::runtime_error(fault);
}

ServiceProcess::~ServiceProcess() {
  end();
}

void ServiceProcess::end() {
  if (pidfd_ >= 0) syscall(SYS_pidfd_send_signal, pidfd_, SIGKILL, nullptr, 0);
  watcher_.join();
  if (pidfd_ >= 0) close(pidfd_);
}

// Answers the error of fork or exec, or 0.
int ServiceProcess::spawn(const Settings& settings) {
  auto entries = settings.environment;
  entries.emplace_back("XPC_SERVICE_NAME", settings.name);
  entries.emplace_back("XDG_RUNTIME_DIR", settings.runtimeDirectory.string());
  std::vector<std::string> variables = environmentWith(entries);
  std::vector<char*> environment;
  environment.reserve(variables.size() + 1);
  for (std::string& variable : variables) environment.push_back(variable.data());
  environment.push_back(nullptr);
  std::string program = settings.executable.string();
  char* const arguments[] = {program.data(), nullptr};

  int failure[2];
  if (pipe2(failure, O_CLOEXEC) < 0) return errno;
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) become(program.c_str(), arguments, environment.data(), settings.output, failure[1], parent);
  int error = pid_ < 0 ? errno : 0;
  close(failure[1]);
  if (pid_ > 0 && read(failure[0], &error, sizeof error) > 0) waitpid(pid_, nullptr, 0);
  close(failure[0]);
  if (error == 0) pidfd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
  return error;
}

bool ServiceProcess::listensWithin(std::chrono::milliseconds limit, const std::string& path) const {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!listens(path)) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    if (endedWithin(pidfd_, std::chrono::milliseconds(5))) return false;
  }
  return true;
}

std::filesystem::path besideThisProgram(const std::string& name) {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}

}  // namespace studio
