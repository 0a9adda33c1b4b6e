#include "opentok.h"

#include <gst/gst.h>
#include <malloc.h>
#include <openssl/crypto.h>

#include <cstring>
#include <utility>

#include "callback_scope.h"
#include "keep.h"
#include "log.h"
#include "publisher.h"
#include "session.h"
#include "stream.h"
#include "subscriber.h"

using engine::EngineThread;
using engine::Session;

namespace {

// Each pipeline has a dozen threads, and the C library would keep what they had, 20 MB with an encoder, in
// several places. From one place it can be given back, which Peer sees to. As the library is loaded: a place
// that a thread has once been given stays in use.
[[gnu::constructor]] void keepMemoryInOnePlace() {
  mallopt(M_ARENA_MAX, 1);
}

// The session behind a handle, null when it was deleted.
std::shared_ptr<Session> sessionOf(otc_session* handle) {
  if (handle == nullptr) return nullptr;
  const std::lock_guard lock(handle->mutex);
  return handle->session;
}

// Runs the task on the engine's thread. From within a callback it is only put in the queue: what the
// task ends, and waits for, may be that callback.
void runOrPost(engine::Task task) {
  if (engine::CallbackScope::active()) {
    EngineThread::get().post(std::move(task));
  } else {
    EngineThread::get().run(task);
  }
}

}  // namespace

otc_status otc_init(void*) {
  // A program that ends itself does so while connections run; OpenSSL must not clear up under them.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  GError* error = nullptr;
  if (gst_init_check(nullptr, nullptr, &error) == FALSE) {
    engine::logError("GStreamer does not start: {}", error->message);
    g_error_free(error);
    return OTC_FATAL;
  }
  EngineThread::get();
  return OTC_SUCCESS;
}

otc_status otc_log_enable(int level) {
  engine::setLogEnabled(level != OTC_LOG_LEVEL_DISABLED);
  return OTC_SUCCESS;
}

otc_status otc_log_set_logger_callback(otc_logger_callback callback) {
  engine::setLogger(callback);
  return OTC_SUCCESS;
}

const char* otc_stream_get_id(const otc_stream* stream) {
  return stream == nullptr ? nullptr : stream->id.c_str();
}

const char* otc_stream_get_name(const otc_stream* stream) {
  return stream == nullptr ? nullptr : stream->name.c_str();
}

int otc_stream_get_video_type(const otc_stream* stream) {
  return stream == nullptr ? 0 : stream->videoType;
}

int otc_stream_get_video_width(const otc_stream* stream) {
  return stream == nullptr ? 0 : stream->width;
}

int otc_stream_get_video_height(const otc_stream* stream) {
  return stream == nullptr ? 0 : stream->height;
}

const otc_connection* otc_stream_get_connection(const otc_stream* stream) {
  return stream == nullptr ? nullptr : stream->connection;
}

otc_session* otc_session_new(const char* api_key, const char* session_id,
                             const struct otc_session_callbacks* callbacks) {
  if (api_key == nullptr || session_id == nullptr || callbacks == nullptr) return nullptr;
  otc_session* handle = engine::keep(std::make_unique<otc_session>());
  handle->session = std::make_shared<Session>(handle, *callbacks, session_id);
  return handle;
}

otc_status otc_session_connect(otc_session* handle, const char* token) {
  const std::shared_ptr<Session> session = sessionOf(handle);
  if (session == nullptr || token == nullptr) return OTC_INVALID_PARAM;
  EngineThread::get().post([session, text = std::string(token)] { session->connect(text); });
  return OTC_SUCCESS;
}

otc_status otc_session_delete(otc_session* handle) {
  if (handle == nullptr) return OTC_INVALID_PARAM;
  std::shared_ptr<Session> session;
  {
    const std::lock_guard lock(handle->mutex);
    session = std::move(handle->session);
  }
  if (session == nullptr) return OTC_INVALID_PARAM;
  session->silence();
  runOrPost([last = std::move(session)] { last->close(); });
  return OTC_SUCCESS;
}

otc_status otc_session_send_signal(otc_session* handle, const char* type, const char* data) {
  const std::shared_ptr<Session> session = sessionOf(handle);
  if (session == nullptr || type == nullptr || data == nullptr) return OTC_INVALID_PARAM;
  const std::string message = engine::Signals::encode(session->id(), type, data);
  if (message.empty()) {
    engine::logWarning("A signal \"{}\" of {} bytes is not sent: its message would have more than {}.",
                       engine::harmless(type), std::strlen(data), engine::Signals::largestMessage);
    return OTC_INVALID_PARAM;
  }
  EngineThread::get().post([session, message] { session->sendSignal(message); });
  return OTC_SUCCESS;
}

otc_status otc_session_subscribe(otc_session* handle, otc_subscriber* subscriber) {
  const std::shared_ptr<Session> session = sessionOf(handle);
  if (session == nullptr || subscriber == nullptr) return OTC_INVALID_PARAM;
  subscriber->subscribed = true;
  EngineThread::get().post([session, subscriber] { session->subscribe(*subscriber); });
  return OTC_SUCCESS;
}

otc_status otc_session_unsubscribe(otc_session* handle, otc_subscriber* subscriber) {
  const std::shared_ptr<Session> session = sessionOf(handle);
  if (session == nullptr || subscriber == nullptr) return OTC_INVALID_PARAM;
  subscriber->subscribed = false;
  runOrPost([session, subscriber] { session->unsubscribe(*subscriber); });
  return OTC_SUCCESS;
}

otc_status otc_session_publish(otc_session* handle, otc_publisher* publisher) {
  const std::shared_ptr<Session> session = sessionOf(handle);
  if (session == nullptr || publisher == nullptr) return OTC_INVALID_PARAM;
  EngineThread::get().post([session, publisher] { session->publish(*publisher); });
  return OTC_SUCCESS;
}

otc_status otc_session_unpublish(otc_session* handle, otc_publisher* publisher) {
  const std::shared_ptr<Session> session = sessionOf(handle);
  if (session == nullptr || publisher == nullptr) return OTC_INVALID_PARAM;
  runOrPost([session, publisher] { session->unpublish(*publisher); });
  return OTC_SUCCESS;
}

otc_subscriber* otc_subscriber_new(const otc_stream* stream,
                                   const struct otc_subscriber_callbacks* callbacks) {
  if (stream == nullptr || callbacks == nullptr) return nullptr;
  return engine::keep(std::make_unique<otc_subscriber>(*stream, *callbacks));
}

otc_status otc_subscriber_set_subscribe_to_video(otc_subscriber* subscriber, otc_bool on) {
  if (subscriber == nullptr) return OTC_INVALID_PARAM;
  subscriber->video = on != OTC_FALSE;
  engine::applySwitches(*subscriber);
  return OTC_SUCCESS;
}

otc_status otc_subscriber_set_subscribe_to_audio(otc_subscriber* subscriber, otc_bool on) {
  if (subscriber == nullptr) return OTC_INVALID_PARAM;
  subscriber->audio = on != OTC_FALSE;
  engine::applySwitches(*subscriber);
  return OTC_SUCCESS;
}

otc_bool otc_subscriber_get_subscribe_to_audio(const otc_subscriber* subscriber) {
  return subscriber != nullptr && subscriber->audio ? OTC_TRUE : OTC_FALSE;
}
