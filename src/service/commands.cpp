#include "service/commands.h"

#include <CoreVideo/CoreVideo.h>
#include <IOSurface/IOSurface.h>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>

#include "service/host_connection.h"
#include "service/service_delegate.h"
#include "session/guest_session.h"
#include "session/log.h"
#include "support/ref.h"
#include "support/strings.h"

namespace {

std::atomic<ServiceDelegate*> serviceDelegate{nullptr};

// Kept alive until the next one comes; nothing reads it.
AtomicRef<xpc_object_t>& lastInitMessage = *new AtomicRef<xpc_object_t>;

std::optional<std::string> stringArgument(xpc_object_t message, const char* key) {
  return stringWithUTF8String(xpc_dictionary_get_string(message, key));
}

// A flag is true exactly when it is the string "yes"; a missing one is false.
bool flagArgument(xpc_object_t message, const char* key) {
  const char* text = xpc_dictionary_get_string(message, key);
  return text && std::strcmp(text, "yes") == 0;
}

void videoFrame(ZarvoGuestSession& session, xpc_object_t message) {
  const auto surface =
      Ref<IOSurfaceRef>::adopt(IOSurfaceLookupFromXPCObject(xpc_dictionary_get_value(message, "VideoFrame")));
  if (!surface) return;
  CVPixelBufferRef wrapped = nullptr;
  const CVReturn status =
      CVPixelBufferCreateWithIOSurface(kCFAllocatorDefault, surface.get(), nullptr, &wrapped);
  const auto buffer = Ref<CVPixelBufferRef>::adopt(wrapped);
  if (status == kCVReturnSuccess && buffer) session.sendVideoFrame(buffer.get());
}

void audioData(ZarvoGuestSession& session, xpc_object_t message) {
  constexpr int32_t kBytesPerSampleFrame = 4;  // 16-bit stereo
  size_t length = 0;
  const void* bytes = xpc_dictionary_get_data(message, "AudioData", &length);
  if (!bytes || length == 0) return;
  session.sendAudioData(static_cast<const int16_t*>(bytes),
                        static_cast<int32_t>(length) / kBytesPerSampleFrame);
}

// Two connections may say "Init" at once; one delegate comes of it.
ServiceDelegate& delegateForInit() {
  static std::mutex& creation = *new std::mutex;
  std::lock_guard guard(creation);
  if (ServiceDelegate* existing = serviceDelegate) {
    existing->stopCurrentBroadcast();
    return *existing;
  }
  auto* created = new ServiceDelegate;
  serviceDelegate = created;
  return *created;
}

void initSession(xpc_object_t message, xpc_connection_t connection) {
  const auto sessionId = stringArgument(message, "sessionId");
  const auto token = stringArgument(message, "token");
  if (!sessionId || !token) return;
  appConn.store(Ref<xpc_connection_t>::retain(connection));
  // Never ended: from now on the system does not end the process for idleness.
  xpc_transaction_begin();
  delegateForInit().startWithSession(*sessionId, *token);
  lastInitMessage.store(Ref<xpc_object_t>::retain(message));
}

void exitProcess() {
  logMessageToApp("Received Exit");
  exit(0);
}

void startBroadcast(ZarvoGuestSession& session, xpc_object_t message) {
  const auto id = stringArgument(message, "ID");
  if (!id) return;
  serviceDelegate.load()->startBroadcasting();
  session.startSubscribing(*id);
}

void stopBroadcast(ZarvoGuestSession& session, xpc_object_t message) {
  if (const auto id = stringArgument(message, "ID")) session.stopSubscribing(*id);
}

void setOffAirAudio(ZarvoGuestSession& session, xpc_object_t message) {
  session.enableOffAirAudio(flagArgument(message, "SetOffAirAudio"));
}

void greenroomStatus(ZarvoGuestSession& session, xpc_object_t message) {
  if (const auto id = stringArgument(message, "ID")) {
    session.greenRoomStatus(flagArgument(message, "GreenroomStatus"), *id);
  }
}

void comment(ZarvoGuestSession& session, xpc_object_t message) {
  const auto text = stringArgument(message, "CommentText");
  const auto name = stringArgument(message, "CommentName");
  const auto uuid = stringArgument(message, "CommentUUID");
  if (text && name && uuid) session.setComment(*text, *name, *uuid);
}

void favourite(ZarvoGuestSession& session, xpc_object_t message) {
  const auto state = stringArgument(message, "FavState");
  const auto uuid = stringArgument(message, "FavUUID");
  if (state && uuid) session.setFav(*uuid, *state);
}

void chat(ZarvoGuestSession& session, xpc_object_t message) {
  const auto text = stringArgument(message, "ChatText");
  const auto name = stringArgument(message, "ChatName");
  const auto uuid = stringArgument(message, "ChatUUID");
  if (text && name && uuid) session.setChatMessage(*text, *name, *uuid);
}

void prefUpdate(ZarvoGuestSession& session, xpc_object_t message) {
  if (const auto text = stringArgument(message, "PrefUpdate")) session.prefUpdate(*text);
}

void remoteMute(ZarvoGuestSession& session, xpc_object_t message) {
  if (const auto id = stringArgument(message, "ID")) {
    session.setRemoteMute(flagArgument(message, "RemoteMute"), *id);
  }
}

void stop(ZarvoGuestSession&, xpc_object_t) {
  serviceDelegate.load()->stopCurrentBroadcast();
}

void liveStatus(ZarvoGuestSession& session, xpc_object_t message) {
  session.broadcastIsLive(flagArgument(message, "LiveStatus"), flagArgument(message, "RecordOnly"));
}

void viewerCount(ZarvoGuestSession& session, xpc_object_t message) {
  if (const auto count = stringArgument(message, "ViewerCount")) session.broadcastViewCount(*count);
}

void nothing(ZarvoGuestSession&, xpc_object_t) {}

struct Command {
  const char* key;
  void (*act)(ZarvoGuestSession& session, xpc_object_t message);
};

// The first key that is present, whatever its value's type, decides.
constexpr Command kCommands[] = {
    {"VideoFrame", videoFrame},
    {"AudioData", audioData},
    {"Init", nullptr},
    {"Exit", nullptr},
    {"There", nothing},
    {"StartBroadcast", startBroadcast},
    {"StopBroadcast", stopBroadcast},
    {"SetOffAirAudio", setOffAirAudio},
    {"GreenroomStatus", greenroomStatus},
    {"CommentName", comment},
    {"FavUUID", favourite},
    {"ChatName", chat},
    {"PrefUpdate", prefUpdate},
    {"RemoteMute", remoteMute},
    {"Stop", stop},
    {"LiveStatus", liveStatus},
    {"ViewerCount", viewerCount},
};

const Command* findCommand(xpc_object_t message) {
  for (const Command& command : kCommands) {
    if (xpc_dictionary_get_value(message, command.key)) return &command;
  }
  return nullptr;
}

}  // namespace

void decodeMessage(xpc_object_t message, xpc_connection_t connection) {
  const Command* command = findCommand(message);
  if (!command) return;
  if (std::strcmp(command->key, "Init") == 0) {
    initSession(message, connection);
  } else if (std::strcmp(command->key, "Exit") == 0) {
    exitProcess();
  } else if (ServiceDelegate* delegate = serviceDelegate) {
    command->act(*delegate->guestSession(), message);
  }
}
