// A service program for the studio's tests: a guest's camera "abc" rings at each "Init", and what the service
// is told comes back as lines of its log. What its guest and its network shall do, comments tell it: "VERB",
// or "ROOM VERB" where it is meant for the service in that room alone.
#include <signal.h>

#include <sstream>
#include <string>

#include "link.h"

namespace {

std::string room;

std::string textOf(xpc_object_t event, const char* key) {
  const char* text = xpc_dictionary_get_string(event, key);
  return text ? text : "";
}

// The command as a line: its key, its value, and what belongs to it.
std::string lineOf(xpc_object_t event) {
  constexpr std::pair<const char*, const char*> commands[] = {
      {"StartBroadcast", "ID"}, {"StopBroadcast", "ID"},
      {"SetOffAirAudio", ""},   {"GreenroomStatus", "ID"},
      {"RemoteMute", "ID"},     {"LiveStatus", "RecordOnly"},
      {"ViewerCount", ""},      {"PrefUpdate", ""},
      {"ChatText", "ChatName"}, {"CommentText", "CommentName"},
      {"FavUUID", "FavState"},  {"Stop", ""}};
  for (const auto& [key, more] : commands) {
    if (!xpc_dictionary_get_value(event, key)) continue;
    const std::string value = textOf(event, key);
    std::string line = key;
    if (std::string_view(more) != "ID" || line == "GreenroomStatus" || line == "RemoteMute")
      line += " " + value;
    if (*more != '\0') line += " " + textOf(event, more);
    return line;
  }
  return {};
}

void obey(xpc_connection_t studio, const std::string& text) {
  const auto send = [&](const Object& report) { xpc_connection_send_message(studio, report); };
  const auto ring = [&](const std::string& id, bool screen) {
    const Object report = message(
        {{"ring", id}, {"name", "Guest - " + std::string(screen ? "Screen" : "Abc")}, {"sessionId", room}});
    xpc_dictionary_set_bool(report, "screenShare", screen);
    send(report);
  };
  std::istringstream words(text);
  std::string verb, id;
  words >> verb;
  if (verb == room) words >> verb;
  words >> id;
  if (verb == "die") kill(getpid(), SIGKILL);
  if (verb == "leave") std::_Exit(3);
  if (verb == "ring") ring(id, false);
  if (verb == "screen") ring(id, true);
  if (verb == "drop") send(message({{"dropped", id == "all" ? "" : id}, {"sessionId", room}}));
  if (verb == "write") {
    send(message({{"message", "from the guest"}, {"name", "x"}, {"uuid", id}, {"sessionId", room}}));
  }
  if (verb == "mark") send(message({{"uuid", id}, {"state", "yes"}, {"sessionId", room}}));
  if (verb == "flood") {
    for (int line = 0; line < 3000; ++line) {
      const std::string number = std::to_string(line);
      send(message({{"message", number}, {"name", "Eve"}, {"uuid", "flood" + number}, {"sessionId", room}}));
    }
    send(message("logMessage", "flooded"));
  }
}

void handle(xpc_connection_t studio, xpc_object_t event) {
  if (xpc_get_type(event) != XPC_TYPE_DICTIONARY) return;
  if (xpc_dictionary_get_value(event, "Init")) {
    xpc_transaction_begin();
    room = textOf(event, "sessionId");
    obey(studio, "ring abc");
  } else if (xpc_dictionary_get_value(event, "Exit")) {
    std::_Exit(0);
  } else if (const std::string line = lineOf(event); !line.empty()) {
    xpc_connection_send_message(studio, message("logMessage", line.c_str()));
    if (line.starts_with("ChatText")) {
      // What goes to all comes back, as from the room.
      xpc_connection_send_message(studio, message({{"message", textOf(event, "ChatText")},
                                                   {"name", textOf(event, "ChatName")},
                                                   {"uuid", textOf(event, "ChatUUID")},
                                                   {"sessionId", room}}));
    } else if (line.starts_with("CommentText")) {
      obey(studio, textOf(event, "CommentText"));
    } else if (line.starts_with("FavUUID")) {
      xpc_connection_send_message(studio, message({{"uuid", textOf(event, "FavUUID")},
                                                   {"state", textOf(event, "FavState")},
                                                   {"sessionId", room}}));
    }
  }
  const Object reply(xpc_dictionary_create_reply(event));
  if (reply) xpc_connection_send_message(studio, reply);
}

}  // namespace

int main() {
  xpc_main([](xpc_connection_t studio) {
    xpc_connection_set_event_handler(studio, [studio](xpc_object_t event) { handle(studio, event); });
    xpc_connection_resume(studio);
  });
}
