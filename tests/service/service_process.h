#pragma once

#include <string>

// A service process with the scripted SDK in the SDK's place. It is given its listening socket, so that a
// studio may connect at once.
class ServiceProcess {
 public:
  explicit ServiceProcess(const std::string& scenario);
  ~ServiceProcess();
  ServiceProcess(const ServiceProcess&) = delete;
  ServiceProcess& operator=(const ServiceProcess&) = delete;

  // The name at which studios of this test process find it.
  const std::string& name() const { return name_; }

  // Waits for the end: the exit status, 1000 + the signal that ended it, or -1 after `seconds`.
  int waitForEnd(int seconds);

  // What it has written to the system log.
  std::string systemLog() const;

  int pid() const { return pid_; }

 private:
  std::string folder_;
  std::string name_ = "service";
  int pid_ = -1;
};
