#include "client/report_parser.h"

#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "client/xpc_object.h"

namespace studio {

namespace {

// From here on, streams of which nothing is held are forgotten.
constexpr std::size_t manyStreams = 32;

// Reads a dictionary's entries and remembers the first that is missing or of another type.
class Reader {
 public:
  explicit Reader(xpc_object_t message) : message_(message) {}

  std::string_view text(const char* key) {
    const char* text = xpc_dictionary_get_string(message_, key);
    if (!text) complain(key, "text");
    return text ? text : std::string_view();
  }

  std::optional<std::string_view> textIfThere(const char* key) {
    if (!has(key)) return std::nullopt;
    return text(key);
  }

  bool flag(const char* key) {
    expect(key, XPC_TYPE_BOOL, "flag");
    return xpc_dictionary_get_bool(message_, key);
  }

  void integer(const char* key) { expect(key, XPC_TYPE_INT64, "integer"); }

  bool has(const char* key) const { return xpc_dictionary_get_value(message_, key) != nullptr; }

  const std::optional<std::string>& fault() const { return fault_; }

 private:
  void expect(const char* key, xpc_type_t type, const char* kind) {
    const xpc_object_t value = xpc_dictionary_get_value(message_, key);
    if (!value || xpc_get_type(value) != type) complain(key, kind);
  }

  void complain(const char* key, const char* kind) {
    if (!fault_) fault_ = std::string("a report without the ") + kind + " \"" + key + "\"";
  }

  xpc_object_t message_;
  std::optional<std::string> fault_;
};

bool isEmpty(xpc_object_t message) {
  return xpc_dictionary_apply(message, [](const char*, xpc_object_t) { return false; });
}

void answer(xpc_object_t message) {
  const XpcObject reply(xpc_dictionary_create_reply(message));
  if (reply) xpc_connection_send_message(xpc_dictionary_get_remote_connection(message), reply.get());
}

}  // namespace

void ReportParser::handle(xpc_object_t event) {
  const xpc_type_t type = xpc_get_type(event);
  if (type == XPC_TYPE_DICTIONARY) {
    report(event);
  } else if (event == XPC_ERROR_CONNECTION_INTERRUPTED) {
    watch_.lost();
    listener_.onLost(Client::Loss::interrupted);
  } else if (event == XPC_ERROR_TERMINATION_IMMINENT) {
    listener_.onLost(Client::Loss::terminating);
  } else if (type == XPC_TYPE_ERROR) {
    listener_.onLost(Client::Loss::invalid);
  }
}

void ReportParser::report(xpc_object_t message) {
  Reader read(message);
  // Whether the report may be handed on; where it may not, it is refused here.
  const auto sound = [&] {
    if (read.fault()) listener_.onRefused(*read.fault());
    return !read.fault();
  };

  if (read.has("surface")) {
    frame(message);
  } else if (read.has("sound")) {
    this->sound(message);
  } else if (read.has("ring")) {
    const Ring ring{read.text("ring"), read.text("name"), read.text("sessionId"), read.flag("screenShare")};
    if (!sound()) return;
    watch_.ring(ring.id);
    listener_.onRing(ring);
  } else if (read.has("sessionHasAudioChanged")) {
    const AudioChanged change{read.flag("hasAudio"), read.text("sessionHasAudioChanged")};
    if (sound()) listener_.onAudioChanged(change);
  } else if (read.has("dropped")) {
    const Dropped dropped{read.text("dropped"), read.text("sessionId")};
    if (!sound()) return;
    watch_.dropped(dropped.id);
    listener_.onDropped(dropped);
  } else if (read.has("message") || read.has("name")) {
    const Chat chat{read.textIfThere("message"), read.textIfThere("name"), read.text("uuid"),
                    read.text("sessionId")};
    if (sound()) listener_.onChat(chat);
  } else if (read.has("state")) {
    const Favourite favourite{read.textIfThere("uuid"), read.text("state"), read.text("sessionId")};
    if (sound()) listener_.onFavourite(favourite);
  } else if (read.has("logMessage")) {
    const std::string_view line = read.text("logMessage");
    if (sound()) listener_.onLogLine(line);
  } else if (read.has("fatalErrorMessage")) {
    const std::string_view text = read.text("fatalErrorMessage");
    if (sound()) listener_.onFatalError(text);
  } else if (read.has("sessionId")) {
    // A guest's chat of neither text nor name, or a mark without a state: nothing to show.
  } else if (isEmpty(message)) {
    listener_.onFatalError({});
  } else {
    listener_.onRefused("a report of an unknown kind");
    answer(message);
  }
}

void ReportParser::frame(xpc_object_t message) {
  Reader read(message);
  read.text("sessionId");
  read.text("name");
  read.text("id");
  read.integer("num");
  read.integer("timestamp");
  Surface surface(IOSurfaceLookupFromXPCObject(xpc_dictionary_get_value(message, "surface")));
  if (read.fault() || !surface) {
    listener_.onRefused(read.fault() ? *read.fault() : "a frame whose surface is none");
    // The service counts the frames that have not been answered, whatever became of them.
    answer(message);
    return;
  }
  const Frame::Held held = heldOf(read.text("id"));
  if (held->load(std::memory_order_acquire) < Frame::maxHeld) {
    Frame frame(Message(xpc_retain(message)), std::move(surface), held);
    answer(message);  // after the use has been counted, by which the surface stays out of its pool
    listener_.onFrame(std::move(frame));
  } else {
    answer(message);
  }
}

Frame::Held ReportParser::heldOf(std::string_view stream) {
  const auto found = held_.find(stream);
  if (found != held_.end()) return found->second;
  if (held_.size() >= manyStreams) {
    std::erase_if(held_, [](const auto& each) { return each.second->load(std::memory_order_acquire) == 0; });
  }
  return held_.emplace(stream, std::make_shared<std::atomic<int>>(0)).first->second;
}

void ReportParser::sound(xpc_object_t message) {
  Reader read(message);
  const std::string_view sessionId = read.text("sessionId");
  std::size_t length = 0;
  const void* bytes = xpc_dictionary_get_data(message, "sound", &length);
  if (!read.fault() && bytes && length == 0) return;
  if (read.fault() || !bytes || length % (2 * sizeof(std::int16_t)) != 0) {
    listener_.onRefused(read.fault() ? *read.fault() : "a sound that is no whole number of stereo samples");
    return;
  }
  samples_.resize(length / sizeof(std::int16_t));
  std::memcpy(samples_.data(), bytes, length);
  listener_.onSound({samples_, sessionId});
}

}  // namespace studio
