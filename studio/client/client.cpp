#include "studio/client.h"

#include <dispatch/dispatch.h>

#include <utility>

#include "client/report_parser.h"
#include "client/session_watch.h"
#include "client/xpc_object.h"

namespace studio {

// What the connection's handlers hold: it outlives the client by as long as they need it.
struct Client::Link : std::enable_shared_from_this<Link> {
  explicit Link(Listener& to)
      : queue(dispatch_queue_create("com.zarvo.studio.reports", DISPATCH_QUEUE_SERIAL)), parser(to, watch) {}
  ~Link() {
    xpc_release(connection);
    dispatch_release(queue);
  }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  void open(const std::string& service);
  void send(const XpcObject& command) const { xpc_connection_send_message(connection, command.get()); }
  void sendFrame(const XpcObject& command, Surface surface);

  dispatch_queue_t queue;
  xpc_connection_t connection = nullptr;
  SessionWatch watch;
  ReportParser parser;    // used on the queue
  bool detached = false;  // used on the queue
  std::atomic<int> framesInFlight{0};
};

void Client::Link::open(const std::string& service) {
  connection = xpc_connection_create(service.c_str(), queue);
  xpc_connection_set_event_handler(connection, [link = shared_from_this()](xpc_object_t event) {
    if (!link->detached) link->parser.handle(event);
  });
  xpc_connection_resume(connection);
}

void Client::Link::sendFrame(const XpcObject& command, Surface surface) {
  // The service counts its own use of the surface only once it has decoded the message: until it has
  // answered, ours keeps the surface from being written to.
  IOSurfaceIncrementUseCount(surface.get());
  xpc_connection_send_message_with_reply(connection, command.get(), queue,
                                         [link = shared_from_this(), held = surface.release()](xpc_object_t) {
                                           IOSurfaceDecrementUseCount(held);
                                           CFRelease(held);
                                           link->framesInFlight.fetch_sub(1, std::memory_order_release);
                                         });
}

namespace {

XpcObject command() {
  return XpcObject(xpc_dictionary_create(nullptr, nullptr, 0));
}

void set(const XpcObject& command, const char* key, const std::string& value) {
  xpc_dictionary_set_string(command.get(), key, value.c_str());
}

void setFlag(const XpcObject& command, const char* key, bool value) {
  xpc_dictionary_set_string(command.get(), key, value ? "yes" : "no");
}

// A command that its key alone makes.
XpcObject command(const char* key) {
  XpcObject made = command();
  setFlag(made, key, true);
  return made;
}

}  // namespace

Client::Client(const std::string& service, Listener& listener) : link_(std::make_shared<Link>(listener)) {
  link_->open(service);
}

Client::~Client() {
  dispatch_sync(link_->queue, [link = link_.get()] { link->detached = true; });
  xpc_connection_cancel(link_->connection);
}

void Client::init(const std::string& sessionId, const std::string& token) {
  const XpcObject made = command("Init");
  set(made, "sessionId", sessionId);
  set(made, "token", token);
  link_->watch.init([&] { link_->send(made); });
}

void Client::exit() {
  link_->send(command("Exit"));
}

void Client::there(std::function<void(bool alive)> answer) {
  xpc_connection_send_message_with_reply(link_->connection, command("There").get(), link_->queue,
                                         [link = link_, answer = std::move(answer)](xpc_object_t reply) {
                                           if (!link->detached)
                                             answer(xpc_get_type(reply) == XPC_TYPE_DICTIONARY);
                                         });
}

bool Client::startBroadcast(const std::string& id) {
  const XpcObject made = command("StartBroadcast");
  set(made, "ID", id);
  return link_->watch.startBroadcast([&] { link_->send(made); });
}

void Client::stopBroadcast(const std::string& id) {
  const XpcObject made = command("StopBroadcast");
  set(made, "ID", id);
  link_->watch.stopBroadcast(id, [&] { link_->send(made); });
}

void Client::setOffAirAudio(bool on) {
  const XpcObject made = command();
  setFlag(made, "SetOffAirAudio", on);
  link_->send(made);
}

void Client::greenroomStatus(const std::string& id, bool inGreenroom) {
  const XpcObject made = command();
  setFlag(made, "GreenroomStatus", inGreenroom);
  set(made, "ID", id);
  link_->send(made);
}

void Client::comment(const std::string& name, const std::string& text, const std::string& uuid) {
  const XpcObject made = command();
  set(made, "CommentName", name);
  set(made, "CommentText", text);
  set(made, "CommentUUID", uuid);
  link_->send(made);
}

void Client::favourite(const std::string& uuid, const std::string& state) {
  const XpcObject made = command();
  set(made, "FavUUID", uuid);
  set(made, "FavState", state);
  link_->send(made);
}

void Client::chat(const std::string& name, const std::string& text, const std::string& uuid) {
  const XpcObject made = command();
  set(made, "ChatName", name);
  set(made, "ChatText", text);
  set(made, "ChatUUID", uuid);
  link_->send(made);
}

void Client::prefUpdate(const std::string& text) {
  const XpcObject made = command();
  set(made, "PrefUpdate", text);
  link_->send(made);
}

void Client::remoteMute(const std::string& id, bool muted) {
  const XpcObject made = command();
  setFlag(made, "RemoteMute", muted);
  set(made, "ID", id);
  link_->send(made);
}

void Client::stop() {
  link_->watch.stop([&] { link_->send(command("Stop")); });
}

void Client::liveStatus(bool live, bool recordOnly) {
  const XpcObject made = command();
  setFlag(made, "LiveStatus", live);
  setFlag(made, "RecordOnly", recordOnly);
  link_->send(made);
}

void Client::viewerCount(const std::string& count) {
  const XpcObject made = command();
  set(made, "ViewerCount", count);
  link_->send(made);
}

bool Client::videoFrame(IOSurfaceRef surface) {
  if (link_->framesInFlight.fetch_add(1, std::memory_order_acquire) >= maxFramesInFlight) {
    link_->framesInFlight.fetch_sub(1, std::memory_order_relaxed);
    return false;
  }
  const XpcObject made = command();
  const XpcObject shared(IOSurfaceCreateXPCObject(surface));
  xpc_dictionary_set_value(made.get(), "VideoFrame", shared.get());
  CFRetain(surface);
  link_->sendFrame(made, Surface(surface));
  return true;
}

void Client::audioData(std::span<const std::int16_t> samples) {
  const XpcObject made = command();
  xpc_dictionary_set_data(made.get(), "AudioData", samples.data(), samples.size_bytes());
  link_->send(made);
}

}  // namespace studio
