/*
 * The video SDK's C interface, as far as the guest service uses it.
 *
 * General rules:
 * - Strings are NUL-terminated UTF-8. A string that is passed in is copied; one
 *   that is handed out lives as long as the object it was asked of.
 * - Callback records are copied by the call that takes them. Every function
 *   pointer in a record must be set. Callbacks run on threads of the SDK's.
 *   The callbacks of one session run one at a time and in order; so do those of
 *   one subscriber. Those of different objects may overlap.
 * - A callback may call any function of this interface, except that it must not
 *   delete the object whose callback it is.
 * - Functions that return otc_status answer OTC_SUCCESS or a positive error.
 *   A null object is answered with OTC_INVALID_PARAM and nothing else happens.
 */
#ifndef OPENTOK_H
#define OPENTOK_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef int otc_status;
typedef int otc_bool;

#define OTC_TRUE 1
#define OTC_FALSE 0

enum {
  OTC_SUCCESS = 0,
  OTC_INVALID_PARAM = 1,
  OTC_FATAL = 2,
};

/* Codes of a session's error callback. */
enum {
  OTC_SESSION_AUTHORIZATION_FAILURE = 1004, /* the token is refused */
  OTC_SESSION_INVALID_SESSION = 1005,       /* the session id is not known */
  OTC_SESSION_CONNECTION_FAILED = 1006,     /* the server is not reached, or is lost */
};

/* Levels of otc_log_enable: what is not disabled is handed to the logger callback. */
enum {
  OTC_LOG_LEVEL_DISABLED = 0,
  OTC_LOG_LEVEL_ALL = 1,
};

enum {
  OTC_STREAM_VIDEO_TYPE_CAMERA = 1,
  OTC_STREAM_VIDEO_TYPE_SCREEN = 2,
};

enum {
  OTC_VIDEO_FRAME_FORMAT_YUV420P = 1, /* three planes: Y, U, V */
  OTC_VIDEO_FRAME_FORMAT_NV12 = 2,    /* two planes: Y, interleaved UV; with a third plane: Y, U, V */
  OTC_VIDEO_FRAME_FORMAT_ARGB32 = 6,  /* one plane, 4 bytes a pixel: B, G, R, A in memory */
  OTC_VIDEO_FRAME_FORMAT_BGRA32 = 7,  /* one plane, 4 bytes a pixel: A, R, G, B in memory */
};

typedef struct otc_session otc_session;
typedef struct otc_connection otc_connection;
typedef struct otc_stream otc_stream;
typedef struct otc_subscriber otc_subscriber;
typedef struct otc_publisher otc_publisher;
typedef struct otc_publisher_settings otc_publisher_settings;
typedef struct otc_video_capturer otc_video_capturer;
typedef struct otc_audio_device otc_audio_device;
typedef struct otc_video_frame otc_video_frame;

/* ---- Start-up and logging ------------------------------------------------ */

typedef void (*otc_logger_callback)(const char* line);

/* Starts the SDK; `settings` is reserved and null. Call it once, first. */
otc_status otc_init(void* settings);
otc_status otc_log_enable(int level);
/* `callback` gets every log line, one call a line, from any thread. Null takes it off. */
otc_status otc_log_set_logger_callback(otc_logger_callback callback);

/* ---- Streams ------------------------------------------------------------- */

/* A stream that a callback is given is valid while that callback runs. */
const char* otc_stream_get_id(const otc_stream* stream);
const char* otc_stream_get_name(const otc_stream* stream);
int otc_stream_get_video_type(const otc_stream* stream);
int otc_stream_get_video_width(const otc_stream* stream);
int otc_stream_get_video_height(const otc_stream* stream);
/* Lives as long as the session. */
const otc_connection* otc_stream_get_connection(const otc_stream* stream);

/* ---- Sessions ------------------------------------------------------------ */

struct otc_session_callbacks {
  void (*on_connected)(otc_session* session, void* user_data);
  void (*on_disconnected)(otc_session* session, void* user_data);
  void (*on_connection_created)(otc_session* session, void* user_data, const otc_connection* connection);
  void (*on_connection_dropped)(otc_session* session, void* user_data, const otc_connection* connection);
  void (*on_stream_received)(otc_session* session, void* user_data, const otc_stream* stream);
  void (*on_stream_dropped)(otc_session* session, void* user_data, const otc_stream* stream);
  void (*on_stream_has_audio_changed)(otc_session* session, void* user_data, const otc_stream* stream,
                                      otc_bool has_audio);
  void (*on_stream_has_video_changed)(otc_session* session, void* user_data, const otc_stream* stream,
                                      otc_bool has_video);
  void (*on_stream_has_captions_changed)(otc_session* session, void* user_data, const otc_stream* stream,
                                         otc_bool has_captions);
  void (*on_stream_event_10)(otc_session* session, void* user_data);
  void (*on_stream_event_11)(otc_session* session, void* user_data);
  /* `connection` is the sender's, null where it is not known. */
  void (*on_signal_received)(otc_session* session, void* user_data, const char* type, const char* data,
                             const otc_connection* connection);
  void (*on_reconnection_started)(otc_session* session, void* user_data);
  void (*on_reconnected)(otc_session* session, void* user_data);
  void (*on_event_15)(otc_session* session, void* user_data);
  void (*on_event_16)(otc_session* session, void* user_data);
  /* `code` is one of the OTC_SESSION_ errors; `text` says what to do about it. */
  void (*on_error)(otc_session* session, void* user_data, const char* text, int code);
  void (*on_mute_forced)(otc_session* session, void* user_data);
  void* user_data;
  void* reserved;
};

/* Makes an unconnected session. Null when a parameter is null. */
otc_session* otc_session_new(const char* api_key, const char* session_id,
                             const struct otc_session_callbacks* callbacks);
/* Begins to connect and returns; the outcome is a connected or an error callback. */
otc_status otc_session_connect(otc_session* session, const char* token);
/* Leaves, and frees the session with its connections. Callbacks that are running
 * are waited for; none of this session or its subscribers and publishers runs
 * after the return. The subscribers and publishers themselves stay valid. */
otc_status otc_session_delete(otc_session* session);

/* Sends to everybody in the session, the sender included. */
otc_status otc_session_send_signal(otc_session* session, const char* type, const char* data);

otc_status otc_session_publish(otc_session* session, otc_publisher* publisher);
/* On return no capturer callback runs any more and every wrapped frame has been,
 * or is about to be, released exactly once. */
otc_status otc_session_unpublish(otc_session* session, otc_publisher* publisher);

/* Begins to receive the subscriber's stream. */
otc_status otc_session_subscribe(otc_session* session, otc_subscriber* subscriber);
/* On return none of the subscriber's callbacks runs, unless it is called from one of them. */
otc_status otc_session_unsubscribe(otc_session* session, otc_subscriber* subscriber);

/* ---- Subscribers --------------------------------------------------------- */

/* Interleaved signed 16-bit samples; `number_of_samples` counts sample frames.
 * The memory is the SDK's and may be written to while the callback runs. */
struct otc_audio_data {
  void* sample_buffer;
  int bits_per_sample;
  int sample_rate;
  size_t number_of_channels;
  size_t number_of_samples;
};

struct otc_subscriber_callbacks {
  void (*on_connected)(otc_subscriber* subscriber, void* user_data, const otc_stream* stream);
  void (*on_disconnected)(otc_subscriber* subscriber, void* user_data);
  void (*on_reconnected)(otc_subscriber* subscriber, void* user_data);
  void (*on_render_frame)(otc_subscriber* subscriber, void* user_data, const otc_video_frame* frame);
  void (*on_event_5)(otc_subscriber* subscriber, void* user_data);
  void (*on_event_6)(otc_subscriber* subscriber, void* user_data);
  void (*on_event_7)(otc_subscriber* subscriber, void* user_data);
  void (*on_event_8)(otc_subscriber* subscriber, void* user_data);
  void (*on_event_9)(otc_subscriber* subscriber, void* user_data);
  void (*on_event_10)(otc_subscriber* subscriber, void* user_data);
  void (*on_caption_text)(otc_subscriber* subscriber, void* user_data, const char* text);
  void (*on_event_12)(otc_subscriber* subscriber, void* user_data);
  void (*on_event_13)(otc_subscriber* subscriber, void* user_data);
  void (*on_event_14)(otc_subscriber* subscriber, void* user_data);
  void (*on_event_15)(otc_subscriber* subscriber, void* user_data);
  void (*on_error)(otc_subscriber* subscriber, void* user_data, const char* text, int code);
  void (*on_audio_data)(otc_subscriber* subscriber, void* user_data, const struct otc_audio_data* audio);
  void* user_data;
  void* reserved;
};

/* Makes a subscriber of a stream that receives nothing yet. Audio and video are on. */
otc_subscriber* otc_subscriber_new(const otc_stream* stream,
                                   const struct otc_subscriber_callbacks* callbacks);
/* What is switched off is stopped at the server and costs nothing. May be called
 * before and after the subscription. */
otc_status otc_subscriber_set_subscribe_to_video(otc_subscriber* subscriber, otc_bool on);
otc_status otc_subscriber_set_subscribe_to_audio(otc_subscriber* subscriber, otc_bool on);
otc_bool otc_subscriber_get_subscribe_to_audio(const otc_subscriber* subscriber);

/* ---- Video frames -------------------------------------------------------- */

typedef void (*otc_video_frame_release_callback)(void* argument);

/* Wraps one block of memory. With `shallow` true nothing is copied: the memory
 * stays in use until `release` is called with `argument`, exactly once, on any
 * thread. With `shallow` false it is copied, and released before the return.
 * Null when the block is too small for the format and the size. */
otc_video_frame* otc_video_frame_new_contiguous_memory_wrapper(int format, int width, int height,
                                                               otc_bool shallow, const uint8_t* data,
                                                               size_t size,
                                                               otc_video_frame_release_callback release,
                                                               void* argument);
/* Refers to three planes (null where the format has none) that are valid until
 * the frame is deleted; who needs them longer copies. Strides are in bytes. */
otc_video_frame* otc_video_frame_new_from_planes(int format, int width, int height,
                                                 const uint8_t* const* planes, const int* strides);
/* Drops the caller's hold on the frame. */
otc_status otc_video_frame_delete(otc_video_frame* frame);

int otc_video_frame_get_format(const otc_video_frame* frame);
int otc_video_frame_get_width(const otc_video_frame* frame);
int otc_video_frame_get_height(const otc_video_frame* frame);
const uint8_t* otc_video_frame_get_plane_binary_data(const otc_video_frame* frame, int plane);
int otc_video_frame_get_plane_width(const otc_video_frame* frame, int plane);
int otc_video_frame_get_plane_height(const otc_video_frame* frame, int plane);
int otc_video_frame_get_plane_stride(const otc_video_frame* frame, int plane);
/* Microseconds on a clock of the stream's. */
int64_t otc_video_frame_get_timestamp(const otc_video_frame* frame);

/* ---- Publishers and the custom video capturer ----------------------------- */

struct otc_video_capturer_settings {
  int format; /* OTC_VIDEO_FRAME_FORMAT_ */
  int width;
  int height;
  int fps;
  int expected_delay; /* milliseconds */
  otc_bool mirror_on_local_render;
};

/* The capturer's settings are a hint: frames of another size are sent as they come. */
struct otc_video_capturer_callbacks {
  otc_bool (*init)(const otc_video_capturer* capturer, void* user_data);
  otc_bool (*destroy)(const otc_video_capturer* capturer, void* user_data);
  otc_bool (*start)(const otc_video_capturer* capturer, void* user_data);
  otc_bool (*stop)(const otc_video_capturer* capturer, void* user_data);
  otc_bool (*get_capture_settings)(const otc_video_capturer* capturer, void* user_data,
                                   struct otc_video_capturer_settings* settings);
  void* user_data;
  void* reserved;
};

/* Hands one frame over. The caller may delete the frame right after. Rotation is
 * in degrees: 0, 90, 180 or 270. */
otc_status otc_video_capturer_provide_frame(const otc_video_capturer* capturer, int rotation,
                                            const otc_video_frame* frame);

struct otc_publisher_callbacks {
  void (*on_stream_created)(otc_publisher* publisher, void* user_data, const otc_stream* stream);
  void (*on_stream_destroyed)(otc_publisher* publisher, void* user_data, const otc_stream* stream);
  void (*on_render_frame)(otc_publisher* publisher, void* user_data, const otc_video_frame* frame);
  void (*on_audio_level)(otc_publisher* publisher, void* user_data, float level);
  void (*on_mute_forced)(otc_publisher* publisher, void* user_data);
  void (*on_audio_network_stats)(otc_publisher* publisher, void* user_data);
  void (*on_video_network_stats)(otc_publisher* publisher, void* user_data);
  void (*on_error)(otc_publisher* publisher, void* user_data, const char* text, int code);
  void (*on_video_disabled)(otc_publisher* publisher, void* user_data);
  void (*on_video_enabled)(otc_publisher* publisher, void* user_data);
  void (*on_video_disable_warning)(otc_publisher* publisher, void* user_data);
  void (*on_video_disable_warning_lifted)(otc_publisher* publisher, void* user_data);
  void* user_data;
  void* reserved;
};

otc_publisher_settings* otc_publisher_settings_new(void);
otc_status otc_publisher_settings_set_name(otc_publisher_settings* settings, const char* name);
otc_status otc_publisher_settings_set_video_capturer(otc_publisher_settings* settings,
                                                     const struct otc_video_capturer_callbacks* capturer);
otc_status otc_publisher_settings_set_audio_track(otc_publisher_settings* settings, otc_bool on);
otc_status otc_publisher_settings_set_video_track(otc_publisher_settings* settings, otc_bool on);
otc_status otc_publisher_settings_set_stereo(otc_publisher_settings* settings, otc_bool on);

/* Copies the settings. */
otc_publisher* otc_publisher_new_with_settings(const struct otc_publisher_callbacks* callbacks,
                                               const otc_publisher_settings* settings);
otc_status otc_publisher_set_audio_fallback_enabled(otc_publisher* publisher, otc_bool on);

/* ---- The custom audio device ---------------------------------------------- */

struct otc_audio_device_settings {
  int sampling_rate; /* Hz */
  int number_of_channels;
};

struct otc_audio_device_callbacks {
  otc_bool (*init)(const otc_audio_device* device, void* user_data);
  otc_bool (*destroy)(const otc_audio_device* device, void* user_data);
  otc_bool (*init_capturer)(const otc_audio_device* device, void* user_data);
  otc_bool (*destroy_capturer)(const otc_audio_device* device, void* user_data);
  otc_bool (*start_capturer)(const otc_audio_device* device, void* user_data);
  otc_bool (*stop_capturer)(const otc_audio_device* device, void* user_data);
  otc_bool (*is_capturer_initialized)(const otc_audio_device* device, void* user_data);
  otc_bool (*is_capturer_started)(const otc_audio_device* device, void* user_data);
  int (*get_estimated_capture_delay)(const otc_audio_device* device, void* user_data);
  otc_bool (*get_capture_settings)(const otc_audio_device* device, void* user_data,
                                   struct otc_audio_device_settings* settings);
  otc_bool (*init_renderer)(const otc_audio_device* device, void* user_data);
  otc_bool (*destroy_renderer)(const otc_audio_device* device, void* user_data);
  otc_bool (*start_renderer)(const otc_audio_device* device, void* user_data);
  otc_bool (*stop_renderer)(const otc_audio_device* device, void* user_data);
  otc_bool (*is_renderer_initialized)(const otc_audio_device* device, void* user_data);
  otc_bool (*is_renderer_started)(const otc_audio_device* device, void* user_data);
  int (*get_estimated_render_delay)(const otc_audio_device* device, void* user_data);
  otc_bool (*get_render_settings)(const otc_audio_device* device, void* user_data,
                                  struct otc_audio_device_settings* settings);
  void* user_data;
  void* reserved;
};

/* Replaces the process's audio device, before any session exists. */
otc_status otc_set_audio_device(const struct otc_audio_device_callbacks* callbacks);
/* Both count sample frames of interleaved 16-bit samples with the channels that the
 * settings gave. Writing returns at once. */
otc_status otc_audio_device_write_capture_data(const int16_t* samples, size_t number_of_samples);
/* Fills `samples` with the mix of all received sound, and silence where there is
 * none; returns the number of sample frames read. */
size_t otc_audio_device_read_render_data(int16_t* samples, size_t number_of_samples);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
