#include "service/service_delegate.h"

#include <CoreVideo/CoreVideo.h>
#include <IOSurface/IOSurface.h>

#include "service/host_connection.h"
#include "session/log.h"
#include "support/strings.h"

namespace {

constexpr char kVideoAPIKey[] = "31877405";
constexpr int32_t kFramesAwaitingAnswer = 2;

// A message to the studio. A value that is none leaves its key out.
class Report {
 public:
  Report& set(const char* key, const std::string& value) {
    xpc_dictionary_set_string(message_.get(), key, value.c_str());
    return *this;
  }
  Report& set(const char* key, const std::optional<std::string>& value) {
    return value ? set(key, *value) : *this;
  }
  Report& set(const char* key, const std::shared_ptr<const std::string>& value) {
    return value ? set(key, *value) : *this;
  }
  Report& setFlag(const char* key, bool value) {
    xpc_dictionary_set_bool(message_.get(), key, value);
    return *this;
  }
  Report& setInteger(const char* key, int64_t value) {
    xpc_dictionary_set_int64(message_.get(), key, value);
    return *this;
  }
  Report& setData(const char* key, const void* bytes, size_t length) {
    xpc_dictionary_set_data(message_.get(), key, bytes, length);
    return *this;
  }
  Report& setValue(const char* key, xpc_object_t value) {
    xpc_dictionary_set_value(message_.get(), key, value);
    return *this;
  }

  // Sends it to the studio; while none is connected it is dropped.
  void send() const {
    if (const auto connection = appConn.load()) xpc_connection_send_message(connection.get(), message_.get());
  }

  xpc_object_t message() const { return message_.get(); }

 private:
  Ref<xpc_object_t> message_ = Ref<xpc_object_t>::adopt(xpc_dictionary_create(nullptr, nullptr, 0));
};

}  // namespace

// A guest's frame on its way through the send queue.
struct ServiceDelegate::Frame {
  Ref<xpc_connection_t> connection;
  Ref<CVPixelBufferRef> buffer;
  Ref<xpc_object_t> surface;
  std::string name;
  std::string id;
  int32_t number;
  uint64_t timestamp;
};

ServiceDelegate::ServiceDelegate() {
  _frameQueue = Ref<dispatch_queue_t>::adopt(dispatch_queue_create(
      "send_queue",
      dispatch_queue_attr_make_with_qos_class(DISPATCH_QUEUE_SERIAL, QOS_CLASS_USER_INTERACTIVE, 0)));
  // No session carries this line yet; it is lost, and that is accepted.
  logMessageToApp("ServiceDelegate started");
  _guestSession = ZarvoGuestSession::initWithAPIKey(kVideoAPIKey);
  guestSession()->setDelegate(this);
}

void ServiceDelegate::startWithSession(const std::string& id, const std::string& andToken) {
  guestSession()->joinWithSession(id, andToken);
}

void ServiceDelegate::startBroadcasting() {
  guestSession()->startPublishingToSession();
}

void ServiceDelegate::stopCurrentBroadcast() {
  guestSession()->stopCurrentSession(true);
}

void ServiceDelegate::ringForName(const std::string& forName, const std::string& andID, bool screenShare) {
  Report()
      .set("ring", andID)
      .set("name", forName)
      .set("sessionId", guestSession()->sessionId())
      .setFlag("screenShare", screenShare)
      .send();
}

void ServiceDelegate::hasAudioChanged(bool hasAudio) {
  Report().setFlag("hasAudio", hasAudio).set("sessionHasAudioChanged", guestSession()->sessionId()).send();
}

void ServiceDelegate::streamDropped(const std::string& id) {
  Report().set("dropped", id).set("sessionId", guestSession()->sessionId()).send();
}

void ServiceDelegate::chatMessage(const std::optional<std::string>& text,
                                  const std::optional<std::string>& name, const std::string& uuid) {
  Report()
      .set("message", text)
      .set("name", name)
      .set("uuid", uuid)
      .set("sessionId", guestSession()->sessionId())
      .send();
}

void ServiceDelegate::favMessage(const std::optional<std::string>& uuid,
                                 const std::optional<std::string>& state) {
  Report().set("uuid", uuid).set("state", state).set("sessionId", guestSession()->sessionId()).send();
}

void ServiceDelegate::soundReceived(const void* samples, int64_t length, const std::optional<std::string>&) {
  Report()
      .setData("sound", samples, static_cast<size_t>(length))
      .set("sessionId", guestSession()->sessionId())
      .send();
}

void ServiceDelegate::sendLogMessage(const std::string& text) {
  if (!appConn.load()) return;
  Report().set("logMessage", replacingInvalidUTF8(text)).send();
}

void ServiceDelegate::reportFatalError(const std::optional<std::string>& text) {
  if (!appConn.load()) return;
  Report().set("fatalErrorMessage", text).send();
}

void ServiceDelegate::pixelBufferReceived(CVPixelBufferRef buffer, const std::string& forName,
                                          const std::string& andID, uint64_t timestamp) {
  auto owned = Ref<CVPixelBufferRef>::adopt(buffer);
  auto surface = Ref<xpc_object_t>::adopt(IOSurfaceCreateXPCObject(CVPixelBufferGetIOSurface(buffer)));
  const auto number = static_cast<int32_t>(frameCount.fetch_add(1, std::memory_order_relaxed) + 1);
  auto connection = appConn.load();
  if (!connection || !surface) return;
  const auto frame = std::make_shared<Frame>(
      Frame{std::move(connection), std::move(owned), std::move(surface), forName, andID, number, timestamp});
  dispatch_async(_frameQueue.get(), [this, frame] { sendFrame(frame); });
}

void ServiceDelegate::sendFrame(const std::shared_ptr<Frame>& frame) {
  if (numberOfFramesQueued >= kFramesAwaitingAnswer) {
    logMessageToApp("too many pixelbuffers queued for guest");
    return;
  }
  const Report report = Report()
                            .set("sessionId", guestSession()->sessionId())
                            .setValue("surface", frame->surface.get())
                            .setInteger("num", frame->number)
                            .setInteger("timestamp", static_cast<int64_t>(frame->timestamp))
                            .set("name", frame->name)
                            .set("id", frame->id);
  // From here on the report holds the surface, and the connection holds the handler.
  frame->surface = {};
  const auto connection = std::exchange(frame->connection, {});
  numberOfFramesQueued++;
  // The buffer lives until the studio has answered, whatever the answer, or until the connection fails. It is
  // back in its pool before the next frame may go.
  xpc_connection_send_message_with_reply(connection.get(), report.message(), _frameQueue.get(),
                                         [this, frame](xpc_object_t) {
                                           frame->buffer = {};
                                           numberOfFramesQueued--;
                                         });
}
