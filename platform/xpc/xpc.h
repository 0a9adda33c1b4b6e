// XPC on Linux: messages between processes of one user, with replies and descriptors.
//
// The C interface that macOS calls <xpc/xpc.h>, as far as it is used here, with the system's own names and
// signatures. docs/host-link.md describes what goes over the socket.
//
// Names. A service listens at $XDG_RUNTIME_DIR/NAME (/run/user/UID/NAME where XDG_RUNTIME_DIR is not set).
// Its own NAME is the environment variable XPC_SERVICE_NAME, else the file name of its program. A client
// gives the name to xpc_connection_create.
//
// Objects. xpc_object_t is a counted reference. Functions called "create" hand over a reference that the
// caller releases; "get" functions hand out what belongs to the object asked. Objects may be retained,
// released, read and sent from any thread. A dictionary must not be changed while another thread uses it.
//
// Strings are UTF-8. Bytes that are not are replaced by U+FFFD as a string enters an object, so that no
// text from elsewhere can spoil a message; a peer that sends such bytes is disconnected.
#pragma once

#include <dispatch/dispatch.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#define XPC_NORETURN __attribute__((__noreturn__))
#define XPC_DECL(name) typedef struct _##name##_s* name##_t
#define XPC_TYPE(type) const struct _xpc_type_s type
#define XPC_GLOBAL_OBJECT(object) (static_cast<xpc_object_t>(&(object)))

typedef void* xpc_object_t;
typedef const struct _xpc_type_s* xpc_type_t;
XPC_DECL(xpc_connection);

// What macOS declares as blocks. A null handler is an empty one.
typedef platform::Closure<void(xpc_object_t object)> xpc_handler_t;
typedef platform::Closure<bool(const char* key, xpc_object_t value)> xpc_dictionary_applier_t;
typedef void (*xpc_connection_handler_t)(xpc_connection_t connection);

extern "C" {

// Types. xpc_get_type answers one of these addresses.

extern XPC_TYPE(_xpc_type_connection);
extern XPC_TYPE(_xpc_type_error);
extern XPC_TYPE(_xpc_type_dictionary);
extern XPC_TYPE(_xpc_type_array);
extern XPC_TYPE(_xpc_type_bool);
extern XPC_TYPE(_xpc_type_int64);
extern XPC_TYPE(_xpc_type_uint64);
extern XPC_TYPE(_xpc_type_double);
extern XPC_TYPE(_xpc_type_string);
extern XPC_TYPE(_xpc_type_data);
extern XPC_TYPE(_xpc_type_fd);

#define XPC_TYPE_CONNECTION (&_xpc_type_connection)
#define XPC_TYPE_ERROR (&_xpc_type_error)
#define XPC_TYPE_DICTIONARY (&_xpc_type_dictionary)
#define XPC_TYPE_ARRAY (&_xpc_type_array)
#define XPC_TYPE_BOOL (&_xpc_type_bool)
#define XPC_TYPE_INT64 (&_xpc_type_int64)
#define XPC_TYPE_UINT64 (&_xpc_type_uint64)
#define XPC_TYPE_DOUBLE (&_xpc_type_double)
#define XPC_TYPE_STRING (&_xpc_type_string)
#define XPC_TYPE_DATA (&_xpc_type_data)
#define XPC_TYPE_FD (&_xpc_type_fd)

// Errors: events and replies of type XPC_TYPE_ERROR, told apart by identity. They are never freed.

extern struct _xpc_error_s _xpc_error_connection_interrupted;
extern struct _xpc_error_s _xpc_error_connection_invalid;
extern struct _xpc_error_s _xpc_error_termination_imminent;

// At a client: the service has gone. The connection stays usable: the next message connects anew.
#define XPC_ERROR_CONNECTION_INTERRUPTED XPC_GLOBAL_OBJECT(_xpc_error_connection_interrupted)
// The connection is of no more use: it was cancelled, the peer of a service has gone, or a client found no
// service of its own user at the name. It is the last event of a connection, whose handler is then let go.
#define XPC_ERROR_CONNECTION_INVALID XPC_GLOBAL_OBJECT(_xpc_error_connection_invalid)
// At a service, on every connection of a client: the process was asked to end (SIGTERM). See xpc_main.
#define XPC_ERROR_TERMINATION_IMMINENT XPC_GLOBAL_OBJECT(_xpc_error_termination_imminent)

// Objects.

// Returns its argument. Errors and a null object may be given.
xpc_object_t xpc_retain(xpc_object_t object);
void xpc_release(xpc_object_t object);
xpc_type_t xpc_get_type(xpc_object_t object);

// Creators copy what they are given.
xpc_object_t xpc_int64_create(int64_t value);
xpc_object_t xpc_uint64_create(uint64_t value);
xpc_object_t xpc_string_create(const char* string);
xpc_object_t xpc_data_create(const void* bytes, size_t length);

// Getters answer 0, false or null for an object of another type and for null.
bool xpc_bool_get_value(xpc_object_t xbool);
int64_t xpc_int64_get_value(xpc_object_t xint);
uint64_t xpc_uint64_get_value(xpc_object_t xuint);
const char* xpc_string_get_string_ptr(xpc_object_t xstring);
const void* xpc_data_get_bytes_ptr(xpc_object_t xdata);
size_t xpc_data_get_length(xpc_object_t xdata);

// Dictionaries. Keys and values are copied or retained; setting a key anew replaces its value, and the null
// value takes the key out. Getters answer 0, false or null where the key is missing or of another type.

xpc_object_t xpc_dictionary_create(const char* const* keys, const xpc_object_t* values, size_t count);
xpc_object_t xpc_dictionary_create_empty(void);
// The answer to a received message, to be filled and sent with xpc_connection_send_message; null if the
// message's sender awaits none, or one was created already.
xpc_object_t xpc_dictionary_create_reply(xpc_object_t original);
// The connection on which a message came (or a reply will go); null for a dictionary made here.
xpc_connection_t xpc_dictionary_get_remote_connection(xpc_object_t xdict);

// Calls the applier with each pair, in the order of setting, until it answers false. False if it did.
bool xpc_dictionary_apply(xpc_object_t xdict, xpc_dictionary_applier_t applier);

void xpc_dictionary_set_value(xpc_object_t xdict, const char* key, xpc_object_t value);
void xpc_dictionary_set_bool(xpc_object_t xdict, const char* key, bool value);
void xpc_dictionary_set_int64(xpc_object_t xdict, const char* key, int64_t value);
void xpc_dictionary_set_uint64(xpc_object_t xdict, const char* key, uint64_t value);
void xpc_dictionary_set_string(xpc_object_t xdict, const char* key, const char* string);
void xpc_dictionary_set_data(xpc_object_t xdict, const char* key, const void* bytes, size_t length);
void xpc_dictionary_set_fd(xpc_object_t xdict, const char* key, int fd);  // duplicates the descriptor

xpc_object_t xpc_dictionary_get_value(xpc_object_t xdict, const char* key);
bool xpc_dictionary_get_bool(xpc_object_t xdict, const char* key);
int64_t xpc_dictionary_get_int64(xpc_object_t xdict, const char* key);
uint64_t xpc_dictionary_get_uint64(xpc_object_t xdict, const char* key);
const char* xpc_dictionary_get_string(xpc_object_t xdict, const char* key);
const void* xpc_dictionary_get_data(xpc_object_t xdict, const char* key, size_t* length);

// Connections.
//
// A connection begins inactive: set its event handler, then activate it. Its handler gets one event at a time
// and in order, on the target queue (the global default queue for null), even where that queue is concurrent:
// a dictionary for each message, an error as said above; at a listener a connection for each client.
//
// Messages are sent in the order of the calls and the calls never wait: what the socket does not take at once
// is kept, up to 8 MiB; a peer that reads so slowly that more would gather is disconnected. A message that
// is larger than 8 MiB or carries more than 64 descriptors is refused with a line in the system log.
//
// An active connection is kept alive by itself until its last event, XPC_ERROR_CONNECTION_INVALID, was
// delivered. So cancel a connection before you release it.

#define XPC_CONNECTION_MACH_SERVICE_LISTENER (1 << 0)

// The client's end of a connection with a service. The service is sought when the first message is sent.
xpc_connection_t xpc_connection_create(const char* name, dispatch_queue_t targetq);
// The same (flags 0), or a listener at the name (XPC_CONNECTION_MACH_SERVICE_LISTENER), whose socket is made
// when it is activated; if that cannot be done a line is logged and the handler gets
// XPC_ERROR_CONNECTION_INVALID.
xpc_connection_t xpc_connection_create_mach_service(const char* name, dispatch_queue_t targetq,
                                                    uint64_t flags);

void xpc_connection_set_target_queue(xpc_connection_t connection, dispatch_queue_t targetq);
void xpc_connection_set_event_handler(xpc_connection_t connection, xpc_handler_t handler);
// Makes an inactive connection active, or undoes one xpc_connection_suspend.
void xpc_connection_resume(xpc_connection_t connection);
void xpc_connection_activate(xpc_connection_t connection);
// No event is delivered until resumed; one that is being handled goes on.
void xpc_connection_suspend(xpc_connection_t connection);
// Closes the connection. Events that were not delivered are dropped, then the handler gets
// XPC_ERROR_CONNECTION_INVALID, and so do handlers that await a reply.
void xpc_connection_cancel(xpc_connection_t connection);

// Sends a dictionary; it may be changed or released as soon as the call returns.
void xpc_connection_send_message(xpc_connection_t connection, xpc_object_t message);
// The handler is called once, on replyq (the target queue for null): with the reply, or with the error that
// ended the connection.
void xpc_connection_send_message_with_reply(xpc_connection_t connection, xpc_object_t message,
                                            dispatch_queue_t replyq, xpc_handler_t handler);
// Waits for the reply, or the error, and hands over a reference to it.
xpc_object_t xpc_connection_send_message_with_reply_sync(xpc_connection_t connection, xpc_object_t message);

// The peer's process as it was when it connected, or when it began to listen; 0 while there is no peer.
pid_t xpc_connection_get_pid(xpc_connection_t connection);

// Services.

// Serves: calls the handler with every new connection, which it configures and activates. Takes the socket
// that systemd passed, else makes one at the service's name. A name that a live process listens at ends
// the process with status 1 and a line that says so.
//
// On SIGTERM every connection gets XPC_ERROR_TERMINATION_IMMINENT; the process ends with status 0 as soon as
// their handlers have returned, whatever transactions are open, and after 5 seconds in any case. It may have
// so many descriptors open as the system lets it, up to 65536, and each other process 32 connections. A
// process started by systemd's socket also ends with status 0 whenever it has no connection and no open
// transaction: the next client starts it again.
XPC_NORETURN void xpc_main(xpc_connection_handler_t handler);

// Between begin and end (they nest and may be called anywhere) the process is not idle.
void xpc_transaction_begin(void);
void xpc_transaction_end(void);

}  // extern "C"
