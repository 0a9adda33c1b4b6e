// What the service's process writes to its standard output and error.
#pragma once

#include <glib.h>

#include <functional>
#include <string>

namespace studio {

/// A pipe whose far end a child is given. For the main loop's thread.
class ServiceOutput {
 public:
  explicit ServiceOutput(std::function<void(const std::string& line)> onLine);
  ~ServiceOutput();
  ServiceOutput(const ServiceOutput&) = delete;
  ServiceOutput& operator=(const ServiceOutput&) = delete;

  int childEnd() const { return ends_[1]; }
  /// Takes what has been written by now.
  void drain();

 private:
  std::function<void(const std::string& line)> onLine_;
  int ends_[2];
  guint watch_;
  std::string unread_;
};

}  // namespace studio
