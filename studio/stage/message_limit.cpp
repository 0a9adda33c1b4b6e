#include "stage/message_limit.h"

#include <libsoup/soup.h>

namespace {

// Nothing is agreed on with the peer: the extension only looks at the frames that come.
struct MessageLimit {
  SoupWebsocketExtension parent;
  gsize limit;
  gsize taken;  // of the message that is coming in
};
struct MessageLimitClass {
  SoupWebsocketExtensionClass parent;
};

G_DEFINE_TYPE(MessageLimit, message_limit, SOUP_TYPE_WEBSOCKET_EXTENSION)

GBytes* takeFrame(SoupWebsocketExtension* self, guint8* header, GBytes* payload, GError** error) {
  constexpr guint8 lastFrame = 0x80;
  constexpr guint8 control = 0x08;
  auto* limit = reinterpret_cast<MessageLimit*>(self);
  if (*header & control) return payload;
  limit->taken += g_bytes_get_size(payload);
  if (limit->taken > limit->limit) {
    g_bytes_unref(payload);
    g_set_error_literal(error, SOUP_WEBSOCKET_ERROR, SOUP_WEBSOCKET_CLOSE_TOO_BIG, "the message is too long");
    return nullptr;
  }
  if (*header & lastFrame) limit->taken = 0;
  return payload;
}

void message_limit_init(MessageLimit*) {}

void message_limit_class_init(MessageLimitClass* type) {
  type->parent.process_incoming_message = takeFrame;
}

}  // namespace

namespace studio {

GList* messageLimit(std::size_t bytes) {
  gpointer made = g_object_new(message_limit_get_type(), nullptr);
  static_cast<MessageLimit*>(made)->limit = bytes;
  return g_list_append(nullptr, made);
}

}  // namespace studio
