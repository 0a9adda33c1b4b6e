// A service process that listens at a socket of its own.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "studio/service_process.h"

namespace studio {

class Loop;

/// The process, and the name under which it is reached. May be made on any thread and then handed on.
class GuestService {
 public:
  struct Settings {
    std::filesystem::path executable;
    std::filesystem::path runtimeDirectory;
    std::vector<std::pair<std::string, std::string>> environment;
    int output = 2;
  };

  /// Starts it and waits until it listens. Throws std::runtime_error with a text that says what to do.
  explicit GuestService(const Settings& settings);

  const std::string& name() const { return name_; }
  pid_t pid() const { return process_->pid(); }
  /// `ended` is called on the loop, once, when the process has ended or if it has already; not after the end
  /// of this object.
  void onEnd(const Loop& loop, std::function<void(ServiceProcess::End)> ended);

 private:
  struct Watch;
  // The files by which the service is found: one that is killed leaves them behind.
  struct Address {
    std::filesystem::path socket;
    ~Address();
  };

  std::string name_;
  Address address_;
  std::shared_ptr<Watch> watch_;
  std::unique_ptr<ServiceProcess> process_;  // ended first
};

}  // namespace studio
