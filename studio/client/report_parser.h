// From the service's dictionaries to typed reports.
#pragma once

#include <xpc/xpc.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "client/session_watch.h"
#include "studio/client.h"

namespace studio {

/// Takes the events of a connection one at a time. What is not exactly as agreed is refused.
class ReportParser {
 public:
  /// The watch learns from a report before the listener is told.
  ReportParser(Client::Listener& listener, SessionWatch& watch) : listener_(listener), watch_(watch) {}

  void handle(xpc_object_t event);

 private:
  void report(xpc_object_t message);
  void frame(xpc_object_t message);
  void sound(xpc_object_t message);
  Frame::Held heldOf(std::string_view stream);

  Client::Listener& listener_;
  SessionWatch& watch_;
  std::map<std::string, Frame::Held, std::less<>> held_;  // by stream
  // Sound is copied to here, since nothing aligns it inside a message.
  std::vector<std::int16_t> samples_;
};

}  // namespace studio
