#include "service/host_connection.h"

#include <dispatch/dispatch.h>

#include "service/commands.h"
#include "support/system_log.h"

// Process-wide, and never destroyed: other threads go on while the process ends.
AtomicRef<xpc_connection_t>& appConn = *new AtomicRef<xpc_connection_t>;

namespace {

void handleError(xpc_object_t error) {
  if (error == XPC_ERROR_CONNECTION_INTERRUPTED) {
    systemLog("XPC connection interupted.");
  } else if (error == XPC_ERROR_CONNECTION_INVALID) {
    systemLog("XPC connection invalid, releasing.");
  } else {
    systemLog("XPC connection some other error, releasing.");
  }
  appConn.store({});
}

// Answers a message whose sender asked for an answer.
void sendCommonReply(xpc_object_t message) {
  const auto reply = Ref<xpc_object_t>::adopt(xpc_dictionary_create_reply(message));
  if (!reply) return;
  xpc_dictionary_set_string(reply.get(), "Hello", "world");
  xpc_connection_send_message(xpc_dictionary_get_remote_connection(message), reply.get());
}

void handleConnectionEvent(xpc_connection_t connection, xpc_object_t event) {
  if (xpc_get_type(event) == XPC_TYPE_ERROR) {
    handleError(event);
    return;
  }
  if (xpc_get_type(event) == XPC_TYPE_DICTIONARY) {
    decodeMessage(event, connection);
    sendCommonReply(event);
  }
}

}  // namespace

void acceptConnection(xpc_connection_t connection) {
  dispatch_queue_attr_t attributes =
      dispatch_queue_attr_make_with_qos_class(DISPATCH_QUEUE_CONCURRENT, QOS_CLASS_USER_INTERACTIVE, 0);
  const auto queue = Ref<dispatch_queue_t>::adopt(dispatch_queue_create("event handler queue", attributes));
  xpc_connection_set_target_queue(connection, queue.get());
  const auto held = Ref<xpc_connection_t>::retain(connection);
  xpc_connection_set_event_handler(connection,
                                   [held](xpc_object_t event) { handleConnectionEvent(held.get(), event); });
  xpc_connection_resume(connection);
}
