// A service that answers each message with what it holds, and does what some of them say.
#include "link.h"

static void handle(xpc_object_t event) {
  if (xpc_dictionary_get_value(event, "begin")) xpc_transaction_begin();
  if (xpc_dictionary_get_value(event, "end")) xpc_transaction_end();
  echo(event);
  if (xpc_dictionary_get_value(event, "hang"))
    for (;;) pause();
}

int main() {
  xpc_main([](xpc_connection_t peer) {
    xpc_connection_set_event_handler(peer, [peer](xpc_object_t event) {
      if (event == XPC_ERROR_TERMINATION_IMMINENT)
        xpc_connection_send_message(peer, message("ending", "yes"));
      if (xpc_get_type(event) == XPC_TYPE_DICTIONARY) handle(event);
    });
    xpc_connection_resume(peer);
  });
}
