#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "child.h"
#include "link.h"

// A service process with the scripted SDK in the SDK's place. It is given its listening socket, so that a
// studio may connect at once.
class ServiceProcess {
 public:
  explicit ServiceProcess(const std::string& scenario = "") {
    const int socket = listeningSocket(folder_ / kName);
    const int log = open((folder_ / "log").c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
    process_.emplace(std::vector<std::string>{SERVICE_PROGRAM}, std::map{std::pair(2, log), {3, socket}},
                     [&] {
                       setenv("LD_LIBRARY_PATH", SCRIPTED_SDK_FOLDER, 1);
                       setenv("SDK_SCENARIO", scenario.c_str(), 1);
                     });
    close(socket);
    close(log);
  }

  // The name at which studios of this test process find it.
  static constexpr char kName[] = "service";

  int waitForEnd(int seconds) { return process_->waitForEnd(std::chrono::seconds(seconds)); }

  // What it has written to the system log.
  std::string systemLog() const {
    std::ostringstream text;
    text << std::ifstream(folder_ / "log").rdbuf();
    return text.str();
  }

 private:
  TemporaryFolder folder_;
  std::optional<Child> process_;
};
