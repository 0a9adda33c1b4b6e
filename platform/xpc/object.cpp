#include "object.h"

#include <fcntl.h>
#include <glib.h>

#include "connection.h"

using namespace platform::xpc;

namespace {

// What a message or a reply of a few values takes. With the dictionary and its arena it stays within what the
// C library's quickest way of allocating serves.
constexpr size_t kUsualRoom = 904;
constexpr size_t kUsualEntries = 8;

template <class T>
void destroy(Object* object) {
  T* const whole = static_cast<T*>(object);
  if (Arena* const arena = object->arena) {
    whole->~T();
    arena->letGo();
  } else {
    delete whole;
  }
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
XPC_TYPE(_xpc_type_string) = {destroy<Box<Text>>};
XPC_TYPE(_xpc_type_data) = {destroy<Box<Data>>};
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
  if (!object->type->destroy) return;
  // The only reference is not shared with anybody: there is nobody to agree with.
  if (object->references.load(std::memory_order_acquire) == 1 ||
      object->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
    object->type->destroy(object);
}

Dictionary::Dictionary(Memory& memory) : Object(XPC_TYPE_DICTIONARY), entries(&memory) {}
Dictionary::~Dictionary() = default;

Ref<Dictionary> Dictionary::create(size_t room) {
  Arena* const arena = Arena::create(sizeof(Dictionary) + room);
  Ref<Dictionary> dictionary = makeIn<Dictionary>(arena);
  arena->letGo();
  return dictionary;
}

Object* Dictionary::find(std::string_view key) const {
  for (const Entry& entry : entries)
    if (entry.key == key) return entry.value.get();
  return nullptr;
}

void Dictionary::add(std::string_view key, Ref<> value) {
  entries.push_back({Text(key, entries.get_allocator()), std::move(value)});
}

}  // namespace platform::xpc

namespace {

// A text for objects: itself if it is UTF-8, else with U+FFFD in place of what is not.
class ValidText {
 public:
  explicit ValidText(const char* text) : view_(text) {
    if (g_utf8_validate_len(view_.data(), view_.size(), nullptr)) return;
    made_.reset(g_utf8_make_valid(text, -1));
    view_ = made_.get();
  }
  operator std::string_view() const { return view_; }

 private:
  std::unique_ptr<char, decltype(&g_free)> made_{nullptr, g_free};
  std::string_view view_;
};

void set(Dictionary& dictionary, const char* key, Ref<> value) {
  const ValidText text(key);
  for (Dictionary::Entry& entry : dictionary.entries) {
    if (entry.key == std::string_view(text)) {
      entry.value = std::move(value);
      return;
    }
  }
  if (dictionary.entries.empty()) dictionary.entries.reserve(kUsualEntries);
  dictionary.add(text, std::move(value));
}

// Sets a new value of that type.
template <class T, class... Args>
void setNew(xpc_object_t xdict, const char* key, Args&&... args) {
  auto* dictionary = cast<Dictionary>(xdict, XPC_TYPE_DICTIONARY);
  if (dictionary && key)
    set(*dictionary, key, makeIn<Box<T>>(dictionary->arena, std::forward<Args>(args)...));
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
  return makeIn<Box<int64_t>>(nullptr, value).leak();
}
xpc_object_t xpc_uint64_create(uint64_t value) {
  return makeIn<Box<uint64_t>>(nullptr, value).leak();
}

xpc_object_t xpc_string_create(const char* string) {
  return string ? makeIn<Box<Text>>(nullptr, ValidText(string)).leak() : nullptr;
}

xpc_object_t xpc_data_create(const void* bytes, size_t length) {
  return makeIn<Box<Data>>(nullptr, bytes, length).leak();
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
  auto* box = cast<Box<Text>>(xstring, XPC_TYPE_STRING);
  return box ? box->value.c_str() : nullptr;
}

const void* xpc_data_get_bytes_ptr(xpc_object_t xdata) {
  auto* box = cast<Box<Data>>(xdata, XPC_TYPE_DATA);
  return box && !box->value.bytes.empty() ? box->value.bytes.data() : nullptr;
}

size_t xpc_data_get_length(xpc_object_t xdata) {
  auto* box = cast<Box<Data>>(xdata, XPC_TYPE_DATA);
  return box ? box->value.bytes.size() : 0;
}

xpc_object_t xpc_dictionary_create(const char* const* keys, const xpc_object_t* values, size_t count) {
  auto dictionary = Dictionary::create(kUsualRoom);
  for (size_t i = 0; i < count; i++) xpc_dictionary_set_value(dictionary.get(), keys[i], values[i]);
  return dictionary.leak();
}

xpc_object_t xpc_dictionary_create_empty(void) {
  return Dictionary::create(kUsualRoom).leak();
}

xpc_object_t xpc_dictionary_create_reply(xpc_object_t original) {
  auto* message = cast<Dictionary>(original, XPC_TYPE_DICTIONARY);
  if (!message || message->isReply) return nullptr;
  uint32_t serial = message->serial.exchange(0);
  if (!serial) return nullptr;
  auto reply = Dictionary::create(kUsualRoom);
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
  auto* dictionary = cast<Dictionary>(xdict, XPC_TYPE_DICTIONARY);
  if (!dictionary || !key) return;
  if (value)
    set(*dictionary, key, Ref<>::retained(static_cast<Object*>(value)));
  else
    std::erase_if(dictionary->entries, [&](const Dictionary::Entry& entry) { return entry.key == key; });
}

void xpc_dictionary_set_bool(xpc_object_t xdict, const char* key, bool value) {
  setNew<bool>(xdict, key, value);
}

void xpc_dictionary_set_int64(xpc_object_t xdict, const char* key, int64_t value) {
  setNew<int64_t>(xdict, key, value);
}

void xpc_dictionary_set_uint64(xpc_object_t xdict, const char* key, uint64_t value) {
  setNew<uint64_t>(xdict, key, value);
}

void xpc_dictionary_set_string(xpc_object_t xdict, const char* key, const char* string) {
  if (string) setNew<Text>(xdict, key, ValidText(string));
}

void xpc_dictionary_set_data(xpc_object_t xdict, const char* key, const void* bytes, size_t length) {
  setNew<Data>(xdict, key, bytes, length);
}

void xpc_dictionary_set_fd(xpc_object_t xdict, const char* key, int fd) {
  FileDescriptor copy(fcntl(fd, F_DUPFD_CLOEXEC, 0));
  if (copy) setNew<FileDescriptor>(xdict, key, std::move(copy));
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
