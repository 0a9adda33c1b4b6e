// A service program for the studio's tests: a guest "abc" rings at each "Init"; "StartBroadcast" gives a
// frame that is red, and tone; the chat line "die" kills it, "leave" ends it with status 3.
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "studio/handles.h"
#include "surfaces.h"

namespace {

using studio::XpcObject;

XpcObject report(std::initializer_list<std::pair<const char*, const char*>> texts) {
  XpcObject made(xpc_dictionary_create(nullptr, nullptr, 0));
  for (const auto& [key, value] : texts) xpc_dictionary_set_string(made.get(), key, value);
  return made;
}

void send(xpc_connection_t studio, const XpcObject& message) {
  xpc_connection_send_message(studio, message.get());
}

Ref<IOSurfaceRef> redPicture(int width, int height) {
  auto surface = createSurface(kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange, width, height);
  std::memset(IOSurfaceGetBaseAddressOfPlane(surface.get(), 0), 81,
              IOSurfaceGetBytesPerRowOfPlane(surface.get(), 0) * IOSurfaceGetHeightOfPlane(surface.get(), 0));
  auto* chroma = static_cast<unsigned char*>(IOSurfaceGetBaseAddressOfPlane(surface.get(), 1));
  const std::size_t size =
      IOSurfaceGetBytesPerRowOfPlane(surface.get(), 1) * IOSurfaceGetHeightOfPlane(surface.get(), 1);
  for (std::size_t i = 0; i < size; ++i) chroma[i] = i % 2 == 0 ? 90 : 240;
  return surface;
}

void sendFrame(xpc_connection_t studio) {
  static const auto surface = redPicture(66, 34);
  const XpcObject frame = report({{"sessionId", "s"}, {"name", "Guest - Abc"}, {"id", "abc"}});
  const XpcObject shared(IOSurfaceCreateXPCObject(surface.get()));
  xpc_dictionary_set_value(frame.get(), "surface", shared.get());
  xpc_dictionary_set_int64(frame.get(), "num", 1);
  xpc_dictionary_set_int64(frame.get(), "timestamp", 1);
  // The answer to each frame asks for the next one.
  xpc_connection_send_message_with_reply(studio, frame.get(), nullptr, [studio](xpc_object_t reply) {
    if (xpc_get_type(reply) != XPC_TYPE_DICTIONARY) return;
    const XpcObject sound = report({{"sessionId", "s"}});
    const std::vector<std::int16_t> samples(1920, 8000);
    xpc_dictionary_set_data(sound.get(), "sound", samples.data(), samples.size() * sizeof samples[0]);
    send(studio, sound);
    usleep(10'000);
    sendFrame(studio);
  });
}

void handle(xpc_connection_t studio, xpc_object_t event) {
  if (xpc_get_type(event) != XPC_TYPE_DICTIONARY) return;
  const auto has = [&](const char* key) { return xpc_dictionary_get_value(event, key) != nullptr; };
  if (has("VideoFrame") || has("AudioData")) {
  } else if (has("Init")) {
    xpc_transaction_begin();
    const XpcObject ring = report({{"ring", "abc"}, {"name", "Guest - Abc"}, {"sessionId", "s"}});
    xpc_dictionary_set_bool(ring.get(), "screenShare", false);
    send(studio, ring);
  } else if (has("Exit")) {
    std::_Exit(0);
  } else if (has("StartBroadcast")) {
    sendFrame(studio);
  } else if (has("StopBroadcast")) {
    send(studio, report({{"dropped", "abc"}, {"sessionId", "s"}}));
  } else if (const char* text = xpc_dictionary_get_string(event, "ChatText")) {
    send(studio, report({{"logMessage", "the last words"}}));
    if (std::string(text) == "die") kill(getpid(), SIGKILL);
    if (std::string(text) == "leave") std::_Exit(3);
  }
  const XpcObject reply(xpc_dictionary_create_reply(event));
  if (reply) send(studio, reply);
}

}  // namespace

int main() {
  xpc_main([](xpc_connection_t studio) {
    xpc_connection_set_event_handler(studio, [studio](xpc_object_t event) { handle(studio, event); });
    xpc_connection_resume(studio);
  });
}
