// Starts the guest service and tells how it ended. For systems whose XPC does not start it by itself.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace studio {

/// The service as a child process. It ends with this object, and with the studio however that ends.
class ServiceProcess {
 public:
  struct Settings {
    std::filesystem::path executable;
    std::string name;                        ///< the service's name; its socket is named so
    std::filesystem::path runtimeDirectory;  ///< where its socket is made
    /// Set in its environment besides the studio's own.
    std::vector<std::pair<std::string, std::string>> environment;
    int output = 2;  ///< where its standard output and error go
  };

  struct End {
    int status = 0;  ///< exit status; meaningless when `signal` is not 0
    int signal = 0;  ///< the signal that ended it, or 0
    std::string describe() const;
  };

  /// Starts the service and waits until its socket listens. Throws std::runtime_error with a text that
  /// says what to do. `ended` is called once, on a thread of this object's, unless the start failed.
  ServiceProcess(const Settings& settings, std::function<void(End)> ended);
  /// Kills the service if it still runs, and waits for it and for `ended`.
  ~ServiceProcess();
  ServiceProcess(const ServiceProcess&) = delete;
  ServiceProcess& operator=(const ServiceProcess&) = delete;

  pid_t pid() const { return pid_; }

 private:
  int spawn(const Settings& settings);
  bool listensWithin(std::chrono::milliseconds limit, const std::string& path) const;
  void end();

  std::promise<bool> started_;
  pid_t pid_ = -1;
  int pidfd_ = -1;
  std::thread watcher_;
};

/// The file of that name beside the running program.
std::filesystem::path besideThisProgram(const std::string& name);

}  // namespace studio
