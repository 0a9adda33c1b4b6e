// A service program for the studio's tests: a guest "abc" rings at each "Init", and what is done with them is
// logged; the chat line "die" kills the service, "leave" ends it with status 3, and "flood" has it report
// 3,000 lines of a guest's and then the end of a stream.
#include <signal.h>

#include "link.h"

namespace {

void handle(xpc_connection_t studio, xpc_object_t event) {
  if (xpc_get_type(event) != XPC_TYPE_DICTIONARY) return;
  const auto has = [&](const char* key) { return xpc_dictionary_get_value(event, key) != nullptr; };
  const auto send = [&](const Object& report) { xpc_connection_send_message(studio, report); };
  if (has("Init")) {
    xpc_transaction_begin();
    const Object ring = message({{"ring", "abc"}, {"name", "Guest - Abc"}, {"sessionId", "s"}});
    xpc_dictionary_set_bool(ring, "screenShare", false);
    send(ring);
  } else if (has("Exit")) {
    std::_Exit(0);
  } else if (const char* mute = xpc_dictionary_get_string(event, "RemoteMute")) {
    send(message("logMessage", (std::string("mute ") + mute).c_str()));
  } else if (has("StartBroadcast")) {
    send(message("logMessage", "brought in"));
  } else if (const char* greenroom = xpc_dictionary_get_string(event, "GreenroomStatus")) {
    send(message("logMessage", (std::string("greenroom ") + greenroom).c_str()));
  } else if (const char* text = xpc_dictionary_get_string(event, "ChatText")) {
    send(message("logMessage", "the last words"));
    if (std::string(text) == "die") kill(getpid(), SIGKILL);
    if (std::string(text) == "leave") std::_Exit(3);
    if (std::string(text) == "flood") {
      for (int line = 0; line < 3000; ++line) {
        send(message({{"message", "m"}, {"name", "Eve"}, {"uuid", "u"}, {"sessionId", "s"}}));
      }
      send(message({{"dropped", "other"}, {"sessionId", "s"}}));
    }
  }
  const Object reply(xpc_dictionary_create_reply(event));
  if (reply) send(reply);
}

}  // namespace

int main() {
  xpc_main([](xpc_connection_t studio) {
    xpc_connection_set_event_handler(studio, [studio](xpc_object_t event) { handle(studio, event); });
    xpc_connection_resume(studio);
  });
}
