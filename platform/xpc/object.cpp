#include "object.h"

#include <fcntl.h>
#include <glib.h>

#include "connection.h"

using namespace platform::xpc;

namespace {

template <class T>
void destroy(Object* object) {
  delete static_cast<T*>(object);
}

}  // namespace

extern "C" {

XPC_TYPE(_xpc_type_connection) = {destroy<_xpc_connection_s>};
XPC_TYPE(_xpc_type_error) = {nullptr};
XPC_TYPE(_xpc_type_dictionary) = {destroy<Dictionary>};
XPC_TYPE(_xpc_type_array) = {destroy<Array>};
XPC_TYPE(_xpc_type_bool) = {destroy<Box<bool>>};
XPC_TYPE(_xpc_type_int64) = {destroy<Box<int64_t>>};
XPC_TYPE(_xpc_type_uint64) = {destroy<Box<uint64_t>>};
XPC_TYPE(_xpc_type_double) = {destroy<Box<double>>};
XPC_TYPE(_xpc_type_string) = {destroy<Box<std::string>>};
XPC_TYPE(_xpc_type_data) = {destroy<Box<Bytes>>};
XPC_TYPE(_xpc_type_fd) = {destroy<Descriptor>};

constinit _xpc_error_s _xpc_error_connection_interrupted;
constinit _xpc_error_s _xpc_error_connection_invalid;
constinit _xpc_error_s _xpc_error_termination_imminent;

}  // extern "C"

namespace platform::xpc {

void retain(Object* object) {
  if (object->type->destroy) object->references.fetch_add(1, std::memory_order_relaxed);
}

void release(Object* object) {
  if (object->type->destroy && object->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
    object->type->destroy(object);
}

Dictionary::Dictionary() : Object(XPC_TYPE_DICTIONARY) {}
Dictionary::~Dictionary() = default;

Object* Dictionary::find(std::string_view key) const {
  for (const Entry& entry : entries)
    if (entry.key == key) return entry.value.get();
  return nullptr;
}

std::string validText(const char* text) {
  std::string result = text;
  if (!g_utf8_validate(text, -1, nullptr)) {
    char* valid = g_utf8_make_valid(text, -1);
    result = valid;
    g_free(valid);
  }
  return result;
}

}  // namespace platform::xpc

namespace {

void set(xpc_object_t xdict, const char* key, Ref<> value) {
  auto* dictionary = cast<Dictionary>(xdict, XPC_TYPE_DICTIONARY);
  if (!dictionary || !key || !value) return;
  std::string text = validText(key);
  for (Dictionary::Entry& entry : dictionary->entries) {
    if (entry.key == text) {
      entry.value = std::move(value);
      return;
    }
  }
  dictionary->entries.push_back({std::move(text), std::move(value)});
}

void remove(xpc_object_t xdict, const char* key) {
  if (auto* dictionary = cast<Dictionary>(xdict, XPC_TYPE_DICTIONARY); dictionary && key)
    std::erase_if(dictionary->entries, [&](const Dictionary::Entry& entry) { return entry.key == key; });
}

template <class T>
T scalar(xpc_object_t object) {
  auto* box = cast<Box<T>>(object, typeOf<T>);
  return box ? box->value : T{};
}

}  // namespace

extern "C" {

xpc_object_t xpc_retain(xpc_object_t object) {
  if (object) retain(static_cast<Object*>(object));
  return object;
}

void xpc_release(xpc_object_t object) {
  if (object) release(static_cast<Object*>(object));
}

xpc_type_t xpc_get_type(xpc_object_t object) {
  return static_cast<Object*>(object)->type;
}

xpc_object_t xpc_int64_create(int64_t value) {
  return new Box<int64_t>(value);
}
xpc_object_t xpc_uint64_create(uint64_t value) {
  return new Box<uint64_t>(value);
}

xpc_object_t xpc_string_create(const char* string) {
  return string ? new Box<std::string>(validText(string)) : nullptr;
}

xpc_object_t xpc_data_create(const void* bytes, size_t length) {
  auto* first = static_cast<const uint8_t*>(bytes);
  return bytes ? new Box<Bytes>(first, first + length) : new Box<Bytes>(length);
}

bool xpc_bool_get_value(xpc_object_t xbool) {
  return scalar<bool>(xbool);
}
int64_t xpc_int64_get_value(xpc_object_t xint) {
  return scalar<int64_t>(xint);
}
uint64_t xpc_uint64_get_value(xpc_object_t xuint) {
  return scalar<uint64_t>(xuint);
}

const char* xpc_string_get_string_ptr(xpc_object_t xstring) {
  auto* box = cast<Box<std::string>>(xstring, XPC_TYPE_STRING);
  return box ? box->value.c_str() : nullptr;
}

const void* xpc_data_get_bytes_ptr(xpc_object_t xdata) {
  auto* box = cast<Box<Bytes>>(xdata, XPC_TYPE_DATA);
  return box && !box->value.empty() ? box->value.data() : nullptr;
}

size_t xpc_data_get_length(xpc_object_t xdata) {
  auto* box = cast<Box<Bytes>>(xdata, XPC_TYPE_DATA);
  return box ? box->value.size() : 0;
}

xpc_object_t xpc_dictionary_create(const char* const* keys, const xpc_object_t* values, size_t count) {
  auto dictionary = make<Dictionary>();
  for (size_t i = 0; i < count; i++) xpc_dictionary_set_value(dictionary.get(), keys[i], values[i]);
  return dictionary.leak();
}

xpc_object_t xpc_dictionary_create_empty(void) {
  return new Dictionary;
}

xpc_object_t xpc_dictionary_create_reply(xpc_object_t original) {
  auto* message = cast<Dictionary>(original, XPC_TYPE_DICTIONARY);
  if (!message || message->isReply) return nullptr;
  uint32_t serial = message->serial.exchange(0);
  if (!serial) return nullptr;
  auto reply = make<Dictionary>();
  reply->connection = message->connection;
  reply->link = message->link;
  reply->serial = serial;
  reply->isReply = true;
  return reply.leak();
}

xpc_connection_t xpc_dictionary_get_remote_connection(xpc_object_t xdict) {
  auto* dictionary = cast<Dictionary>(xdict, XPC_TYPE_DICTIONARY);
  return dictionary ? dictionary->connection.get() : nullptr;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the system's signature
bool xpc_dictionary_apply(xpc_object_t xdict, xpc_dictionary_applier_t applier) {
  if (auto* dictionary = cast<Dictionary>(xdict, XPC_TYPE_DICTIONARY))
    for (const auto& entry : dictionary->entries)
      if (!applier(entry.key.c_str(), entry.value.get())) return false;
  return true;
}

void xpc_dictionary_set_value(xpc_object_t xdict, const char* key, xpc_object_t value) {
  if (value)
    set(xdict, key, Ref<>::retained(static_cast<Object*>(value)));
  else
    remove(xdict, key);
}

void xpc_dictionary_set_bool(xpc_object_t xdict, const char* key, bool value) {
  set(xdict, key, make<Box<bool>>(value));
}

void xpc_dictionary_set_int64(xpc_object_t xdict, const char* key, int64_t value) {
  set(xdict, key, make<Box<int64_t>>(value));
}

void xpc_dictionary_set_uint64(xpc_object_t xdict, const char* key, uint64_t value) {
  set(xdict, key, make<Box<uint64_t>>(value));
}

void xpc_dictionary_set_string(xpc_object_t xdict, const char* key, const char* string) {
  set(xdict, key, Ref<>::adopted(static_cast<Object*>(xpc_string_create(string))));
}

void xpc_dictionary_set_data(xpc_object_t xdict, const char* key, const void* bytes, size_t length) {
  set(xdict, key, Ref<>::adopted(static_cast<Object*>(xpc_data_create(bytes, length))));
}

void xpc_dictionary_set_fd(xpc_object_t xdict, const char* key, int fd) {
  FileDescriptor copy(fcntl(fd, F_DUPFD_CLOEXEC, 0));
  if (copy) set(xdict, key, make<Descriptor>(std::move(copy)));
}

xpc_object_t xpc_dictionary_get_value(xpc_object_t xdict, const char* key) {
  if (auto* dictionary = cast<Dictionary>(xdict, XPC_TYPE_DICTIONARY); dictionary && key)
    return dictionary->find(key);
  return nullptr;
}

bool xpc_dictionary_get_bool(xpc_object_t xdict, const char* key) {
  return xpc_bool_get_value(xpc_dictionary_get_value(xdict, key));
}

int64_t xpc_dictionary_get_int64(xpc_object_t xdict, const char* key) {
  return xpc_int64_get_value(xpc_dictionary_get_value(xdict, key));
}

uint64_t xpc_dictionary_get_uint64(xpc_object_t xdict, const char* key) {
  return xpc_uint64_get_value(xpc_dictionary_get_value(xdict, key));
}

const char* xpc_dictionary_get_string(xpc_object_t xdict, const char* key) {
  return xpc_string_get_string_ptr(xpc_dictionary_get_value(xdict, key));
}

const void* xpc_dictionary_get_data(xpc_object_t xdict, const char* key, size_t* length) {
  xpc_object_t value = xpc_dictionary_get_value(xdict, key);
  if (length) *length = xpc_data_get_length(value);
  return xpc_data_get_bytes_ptr(value);
}

}  // extern "C"
