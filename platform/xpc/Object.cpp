#include "Object.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <glib.h>

#include <cstdlib>
#include <cstring>
#include <iterator>

#include "Connection.h"

using namespace platform::xpc;

namespace {

template <class T>
void destroy(Object* object) {
  delete static_cast<T*>(object);
}

}  // namespace

extern "C" {

XPC_TYPE(_xpc_type_connection) = {"connection", destroy<_xpc_connection_s>};
XPC_TYPE(_xpc_type_error) = {"error", nullptr};
XPC_TYPE(_xpc_type_dictionary) = {"dictionary", destroy<Dictionary>};
XPC_TYPE(_xpc_type_array) = {"array", destroy<Array>};
XPC_TYPE(_xpc_type_bool) = {"bool", destroy<Box<bool>>};
XPC_TYPE(_xpc_type_int64) = {"int64", destroy<Box<int64_t>>};
XPC_TYPE(_xpc_type_uint64) = {"uint64", destroy<Box<uint64_t>>};
XPC_TYPE(_xpc_type_double) = {"double", destroy<Box<double>>};
XPC_TYPE(_xpc_type_string) = {"string", destroy<Box<std::string>>};
XPC_TYPE(_xpc_type_data) = {"data", destroy<Box<Bytes>>};
XPC_TYPE(_xpc_type_fd) = {"fd", destroy<Descriptor>};

constinit _xpc_error_s _xpc_error_connection_interrupted{"Connection interrupted"};
constinit _xpc_error_s _xpc_error_connection_invalid{"Connection invalid"};
constinit _xpc_error_s _xpc_error_termination_imminent{"Process to be terminated"};
const char* const _xpc_error_key_description = "XPCErrorDescription";

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

Ref<Descriptor> duplicated(int fd) {
  FileDescriptor copy(fcntl(fd, F_DUPFD_CLOEXEC, 0));
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the analyzer loses count of references
  return copy ? make<Descriptor>(std::move(copy)) : Ref<Descriptor>();
}

template <class T>
T scalar(xpc_object_t object) {
  auto* box = cast<Box<T>>(object, typeOf<T>);
  return box ? box->value : T{};
}

void describe(Object* object, std::string& out, const std::string& indent) {
  if (!object) {
    out += "null";
    return;
  }
  auto to = std::back_inserter(out);
  fmt::format_to(to, "{}: ", object->type->name);
  if (object->type == XPC_TYPE_DICTIONARY) {
    out += "{";
    for (const auto& entry : static_cast<Dictionary*>(object)->entries) {
      fmt::format_to(to, "\n{}  \"{}\" => ", indent, entry.key);
      describe(entry.value.get(), out, indent + "  ");
    }
    fmt::format_to(to, "\n{}}}", indent);
  } else if (object->type == XPC_TYPE_ARRAY) {
    out += "[";
    for (const auto& value : static_cast<Array*>(object)->values) {
      fmt::format_to(to, "\n{}  ", indent);
      describe(value.get(), out, indent + "  ");
    }
    fmt::format_to(to, "\n{}]", indent);
  } else if (object->type == XPC_TYPE_BOOL) {
    fmt::format_to(to, "{}", scalar<bool>(object));
  } else if (object->type == XPC_TYPE_INT64) {
    fmt::format_to(to, "{}", scalar<int64_t>(object));
  } else if (object->type == XPC_TYPE_UINT64) {
    fmt::format_to(to, "{}", scalar<uint64_t>(object));
  } else if (object->type == XPC_TYPE_DOUBLE) {
    fmt::format_to(to, "{}", scalar<double>(object));
  } else if (object->type == XPC_TYPE_STRING) {
    fmt::format_to(to, "\"{}\"", static_cast<Box<std::string>*>(object)->value);
  } else if (object->type == XPC_TYPE_DATA) {
    fmt::format_to(to, "{} bytes", xpc_data_get_length(object));
  } else if (object->type == XPC_TYPE_FD) {
    fmt::format_to(to, "{}", static_cast<Descriptor*>(object)->value.get());
  } else if (object->type == XPC_TYPE_ERROR) {
    out += static_cast<_xpc_error_s*>(object)->description;
  } else {
    fmt::format_to(to, "{}", static_cast<void*>(object));
  }
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

char* xpc_copy_description(xpc_object_t object) {
  std::string text;
  describe(static_cast<Object*>(object), text, "");
  return strdup(text.c_str());
}

xpc_object_t xpc_bool_create(bool value) {
  return new Box<bool>(value);
}
xpc_object_t xpc_int64_create(int64_t value) {
  return new Box<int64_t>(value);
}
xpc_object_t xpc_uint64_create(uint64_t value) {
  return new Box<uint64_t>(value);
}
xpc_object_t xpc_double_create(double value) {
  return new Box<double>(value);
}

xpc_object_t xpc_string_create(const char* string) {
  return string ? new Box<std::string>(validText(string)) : nullptr;
}

xpc_object_t xpc_data_create(const void* bytes, size_t length) {
  auto* first = static_cast<const uint8_t*>(bytes);
  return bytes ? new Box<Bytes>(first, first + length) : new Box<Bytes>(length);
}

xpc_object_t xpc_fd_create(int fd) {
  return duplicated(fd).leak();
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
double xpc_double_get_value(xpc_object_t xdouble) {
  return scalar<double>(xdouble);
}

const char* xpc_string_get_string_ptr(xpc_object_t xstring) {
  auto* box = cast<Box<std::string>>(xstring, XPC_TYPE_STRING);
  return box ? box->value.c_str() : nullptr;
}

size_t xpc_string_get_length(xpc_object_t xstring) {
  auto* box = cast<Box<std::string>>(xstring, XPC_TYPE_STRING);
  return box ? box->value.size() : 0;
}

const void* xpc_data_get_bytes_ptr(xpc_object_t xdata) {
  auto* box = cast<Box<Bytes>>(xdata, XPC_TYPE_DATA);
  return box && !box->value.empty() ? box->value.data() : nullptr;
}

size_t xpc_data_get_length(xpc_object_t xdata) {
  auto* box = cast<Box<Bytes>>(xdata, XPC_TYPE_DATA);
  return box ? box->value.size() : 0;
}

int xpc_fd_dup(xpc_object_t xfd) {
  auto* box = cast<Descriptor>(xfd, XPC_TYPE_FD);
  return box ? fcntl(box->value.get(), F_DUPFD_CLOEXEC, 0) : -1;
}

xpc_object_t xpc_array_create(const xpc_object_t* objects, size_t count) {
  auto array = make<Array>();
  for (size_t i = 0; i < count; i++) xpc_array_append_value(array.get(), objects[i]);
  return array.leak();
}

void xpc_array_append_value(xpc_object_t xarray, xpc_object_t value) {
  if (auto* array = cast<Array>(xarray, XPC_TYPE_ARRAY); array && value)
    array->values.push_back(Ref<>::retained(static_cast<Object*>(value)));
}

size_t xpc_array_get_count(xpc_object_t xarray) {
  auto* array = cast<Array>(xarray, XPC_TYPE_ARRAY);
  return array ? array->values.size() : 0;
}

xpc_object_t xpc_array_get_value(xpc_object_t xarray, size_t index) {
  auto* array = cast<Array>(xarray, XPC_TYPE_ARRAY);
  return array && index < array->values.size() ? array->values[index].get() : nullptr;
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

size_t xpc_dictionary_get_count(xpc_object_t xdict) {
  auto* dictionary = cast<Dictionary>(xdict, XPC_TYPE_DICTIONARY);
  return dictionary ? dictionary->entries.size() : 0;
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

void xpc_dictionary_set_double(xpc_object_t xdict, const char* key, double value) {
  set(xdict, key, make<Box<double>>(value));
}

void xpc_dictionary_set_string(xpc_object_t xdict, const char* key, const char* string) {
  set(xdict, key, Ref<>::adopted(static_cast<Object*>(xpc_string_create(string))));
}

void xpc_dictionary_set_data(xpc_object_t xdict, const char* key, const void* bytes, size_t length) {
  set(xdict, key, Ref<>::adopted(static_cast<Object*>(xpc_data_create(bytes, length))));
}

void xpc_dictionary_set_fd(xpc_object_t xdict, const char* key, int fd) {
  set(xdict, key, duplicated(fd));
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

double xpc_dictionary_get_double(xpc_object_t xdict, const char* key) {
  return xpc_double_get_value(xpc_dictionary_get_value(xdict, key));
}

const char* xpc_dictionary_get_string(xpc_object_t xdict, const char* key) {
  if (auto* error = cast<_xpc_error_s>(xdict, XPC_TYPE_ERROR))
    return key && !strcmp(key, XPC_ERROR_KEY_DESCRIPTION) ? error->description : nullptr;
  return xpc_string_get_string_ptr(xpc_dictionary_get_value(xdict, key));
}

const void* xpc_dictionary_get_data(xpc_object_t xdict, const char* key, size_t* length) {
  xpc_object_t value = xpc_dictionary_get_value(xdict, key);
  if (length) *length = xpc_data_get_length(value);
  return xpc_data_get_bytes_ptr(value);
}

int xpc_dictionary_dup_fd(xpc_object_t xdict, const char* key) {
  return xpc_fd_dup(xpc_dictionary_get_value(xdict, key));
}

xpc_object_t xpc_dictionary_get_dictionary(xpc_object_t xdict, const char* key) {
  return cast<Dictionary>(xpc_dictionary_get_value(xdict, key), XPC_TYPE_DICTIONARY);
}

xpc_object_t xpc_dictionary_get_array(xpc_object_t xdict, const char* key) {
  return cast<Array>(xpc_dictionary_get_value(xdict, key), XPC_TYPE_ARRAY);
}

}  // extern "C"
