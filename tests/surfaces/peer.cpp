// The other process of the surface tests: does with each surface what the message asks for.
#include <IOSurface/IOSurface.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace {

xpc_connection_t connection;
IOSurfaceRef held = nullptr;

void obey(xpc_object_t message) {
  const xpc_object_t reply = xpc_dictionary_create_reply(message);
  const std::string command = xpc_dictionary_get_string(message, "do");
  if (command == "use") {
    held = IOSurfaceLookupFromXPCObject(xpc_dictionary_get_value(message, "surface"));
    if (held != nullptr) {
      IOSurfaceIncrementUseCount(held);
      auto* const pixels = static_cast<uint8_t*>(IOSurfaceGetBaseAddress(held));
      xpc_dictionary_set_uint64(reply, "pixel", *pixels);
      xpc_dictionary_set_uint64(reply, "id", IOSurfaceGetID(held));
      *pixels = 77;
    }
  } else if (command == "let go") {
    IOSurfaceDecrementUseCount(held);
    CFRelease(held);
  } else if (command == "scribble") {
    // The use counts are the page before the first plane.
    std::memset(static_cast<uint8_t*>(IOSurfaceGetBaseAddress(held)) - 4096, 0xff, 4096);
  }
  xpc_connection_send_message(connection, reply);
  xpc_release(reply);
}

}  // namespace

int main() {
  connection = xpc_connection_create("surface-test", nullptr);
  xpc_connection_set_event_handler(connection, [](xpc_object_t event) {
    if (xpc_get_type(event) == XPC_TYPE_ERROR) _exit(0);
    obey(event);
  });
  xpc_connection_resume(connection);
  const xpc_object_t hello = xpc_dictionary_create(nullptr, nullptr, 0);
  xpc_connection_send_message(connection, hello);
  while (true) pause();
}
