#include "subscriber.h"

#include <gst/video/video.h>

#include <array>
#include <cstring>
#include <utility>

#include "audio_device.h"
#include "log.h"
#include "video_frame.h"

namespace engine {
namespace {

using namespace std::chrono_literals;

constexpr auto retry_interval = 1s;
constexpr int most_failures = 10;
constexpr auto picture_check_interval = 1s;
// A connection that brings no picture by then is said to, and then made again.
constexpr int checks_before_warning = 4;
constexpr int checks_before_failure = 10;
// What no camera and no screen has: 8K. Each picture takes room in the program several times.
constexpr int largest_side = 8192;
constexpr std::int64_t largest_picture = std::int64_t{7680} * 4320;

// From RTP to what the program gets, by the codec's name in the caps.
struct Decoder {
  const char* encoding;
  const char* elements;
};
// A decoder that has lost something shows nothing before the next key frame, and asks for that.
#define ASKS_FOR_KEY_FRAMES " automatic-request-sync-points=true"
#define SINK " ! fakesink sync=false async=false enable-last-sample=false"
#define PICTURES ASKS_FOR_KEY_FRAMES " ! video/x-raw,format=I420" SINK " name=video"
constexpr std::array<Decoder, 4> decoders = {{
    {"VP8", "rtpvp8depay request-keyframe=true wait-for-keyframe=true ! vp8dec threads=1" PICTURES},
    {"VP9", "rtpvp9depay request-keyframe=true wait-for-keyframe=true ! vp9dec threads=1" PICTURES},
    {"H264", "rtph264depay request-keyframe=true wait-for-keyframe=true ! h264parse ! openh264dec" PICTURES},
    {"OPUS",
     "rtpopusdepay ! opusdec use-inband-fec=true plc=true"
     " ! audio/x-raw,format=S16LE,layout=interleaved,rate=48000,channels=2" SINK " name=audio"},
}};
#undef PICTURES
#undef SINK
#undef ASKS_FOR_KEY_FRAMES

bool is_bearable(const GstVideoInfo& info) {
  return info.width <= largest_side && info.height <= largest_side &&
         std::int64_t{info.width} * info.height <= largest_picture;
}

// What is decoded is taken where it enters the sink: there nobody else holds it.
GstPadProbeReturn picture_decoded(GstPad* pad, GstPadProbeInfo* probe, gpointer data) {
  auto& subscriber = *static_cast<otc_subscriber*>(data);
  const Gst<GstCaps> caps(gst_pad_get_current_caps(pad));
  GstVideoInfo info;
  GstVideoFrame mapped;
  if (!subscriber.subscribed || !subscriber.video || caps == nullptr ||
      gst_video_info_from_caps(&info, caps.get()) == FALSE || !is_bearable(info) ||
      gst_video_frame_map(&mapped, &info, GST_PAD_PROBE_INFO_BUFFER(probe), GST_MAP_READ) == FALSE) {
    return GST_PAD_PROBE_OK;
  }
  otc_video_frame frame;
  frame.format = OTC_VIDEO_FRAME_FORMAT_YUV420P;
  frame.width = GST_VIDEO_FRAME_WIDTH(&mapped);
  frame.height = GST_VIDEO_FRAME_HEIGHT(&mapped);
  for (std::size_t plane = 0; plane < 3; ++plane) {
    frame.planes.at(plane) = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&mapped, plane));
    frame.strides.at(plane) = GST_VIDEO_FRAME_PLANE_STRIDE(&mapped, plane);
  }
  const GstClockTime time = GST_BUFFER_PTS(mapped.buffer);
  frame.timestamp = GST_CLOCK_TIME_IS_VALID(time) ? static_cast<std::int64_t>(time / 1000) : 0;
  ++subscriber.pictures;
  subscriber.call(subscriber.callbacks.on_render_frame, &frame);
  gst_video_frame_unmap(&mapped);
  return GST_PAD_PROBE_OK;
}

GstPadProbeReturn sound_decoded(GstPad*, GstPadProbeInfo* probe, gpointer data) {
  auto& subscriber = *static_cast<otc_subscriber*>(data);
  if (!subscriber.subscribed || !subscriber.audio) return GST_PAD_PROBE_OK;
  GstBuffer* buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(probe));
  GST_PAD_PROBE_INFO_DATA(probe) = buffer;
  GstMapInfo mapped;
  if (gst_buffer_map(buffer, &mapped, GST_MAP_READWRITE) == FALSE) return GST_PAD_PROBE_OK;
  otc_audio_data audio = {};
  audio.sample_buffer = mapped.data;
  audio.bits_per_sample = 16;
  audio.sample_rate = 48000;
  audio.number_of_channels = 2;
  audio.number_of_samples = mapped.size / 4;
  AudioDevice::get().play(&subscriber, static_cast<const std::int16_t*>(audio.sample_buffer),
                          audio.number_of_samples);
  subscriber.call(subscriber.callbacks.on_audio_data, &audio);
  gst_buffer_unmap(buffer, &mapped);
  return GST_PAD_PROBE_OK;
}

}  // namespace

void apply_switches(otc_subscriber& subscriber) {
  EngineThread::get().post([&subscriber] {
    if (subscriber.subscription != nullptr) subscriber.subscription->apply_switches();
  });
}

Subscription::Subscription(std::shared_ptr<JanusConnection> janus, otc_subscriber& subscriber,
                           std::string room, std::string token)
    : janus_(std::move(janus)), subscriber_(subscriber), room_(std::move(room)), token_(std::move(token)) {
  subscriber_.subscription = this;
  open();
}

Subscription::~Subscription() {
  peer_.reset();
  AudioDevice::get().forget(&subscriber_);
  if (subscriber_.subscription == this) subscriber_.subscription = nullptr;
}

void Subscription::open() {
  video_mid_.clear();
  audio_mid_.clear();
  video_sent_ = audio_sent_ = true;
  peer_ = std::make_shared<Peer>(janus_, static_cast<Peer::Listener&>(*this));
  peer_->accept_offers_with({{"request", "start"}, {"room", room_}});
  peer_->open("janus.plugin.videoroom");
}

void Subscription::peer_attached() {
  const json join = {{"request", "join"},
                     {"ptype", "subscriber"},
                     {"room", room_},
                     {"token", token_},
                     // A stream that ends is torn down, not negotiated once more.
                     {"autoupdate", false},
                     {"streams", json::array({{{"feed", subscriber_.stream.id}}})}};
  peer_->ask(join, [this](const json& data) {
    const std::string error = string_at(data, "error");
    if (!error.empty()) {
      peer_failed(error);
      return;
    }
    streams_listed(data);
  });
}

void Subscription::peer_event(const json& data) {
  streams_listed(data);
}

void Subscription::streams_listed(const json& data) {
  const json& streams = object_at(data, "streams");
  if (!streams.is_array()) return;
  for (const json& stream : streams) {
    const std::string type = string_at(stream, "type");
    if (type == "video") video_mid_ = string_at(stream, "mid");
    if (type == "audio") audio_mid_ = string_at(stream, "mid");
  }
  apply_switches();
}

void Subscription::apply_switches() {
  switch_stream(video_mid_, subscriber_.video, video_sent_);
  switch_stream(audio_mid_, subscriber_.audio, audio_sent_);
}

void Subscription::switch_stream(const std::string& mid, bool on, bool& current) {
  if (mid.empty() || on == current) return;
  current = on;
  peer_->ask({{"request", "configure"}, {"streams", json::array({{{"mid", mid}, {"send", on}}})}},
             [this, on](const json&) {
               if (on) ask_for_key_frame();
             });
}

void Subscription::ask_for_key_frame() {
  const Gst<GstElement> sink(gst_bin_get_by_name(GST_BIN(peer_->pipeline()), "video"));
  if (sink == nullptr) return;
  const Gst<GstPad> pad(gst_element_get_static_pad(sink.get(), "sink"));
  gst_pad_push_event(pad.get(), gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
}

// Pictures that have stopped may only lack a key frame: the request for it, or the key frame, was lost.
void Subscription::look_after_pictures() {
  const unsigned pictures = subscriber_.pictures;
  const bool came = pictures != std::exchange(pictures_before_, pictures);
  if (came || !subscriber_.video || !pictures_expected_) {
    checks_without_picture_ = 0;
    return;
  }
  ++checks_without_picture_;
  if (checks_without_picture_ == checks_before_warning) {
    log_warning("Stream {}: connected, but no picture comes.", harmless(subscriber_.stream.id));
  }
  if (checks_without_picture_ == checks_before_failure) {
    peer_failed("no picture came");
  } else {
    ask_for_key_frame();
  }
}

void Subscription::peer_connected() {
  failures_ = 0;
  checks_without_picture_ = 0;
  picture_check_.every(picture_check_interval, [this] { look_after_pictures(); });
  AudioDevice::get().start_renderer();
  if (std::exchange(was_connected_, true)) {
    subscriber_.call(subscriber_.callbacks.on_reconnected);
  } else {
    subscriber_.call(subscriber_.callbacks.on_connected, &subscriber_.stream);
  }
}

void Subscription::peer_failed(const std::string& reason) {
  if (retry_.running()) return;
  picture_check_.stop();
  log_warning("Stream {}: {}.", harmless(subscriber_.stream.id), reason);
  if (failures_ == 0 && was_connected_) subscriber_.call(subscriber_.callbacks.on_disconnected);
  if (++failures_ > most_failures) {
    const std::string text = "The stream is not received: " + reason + ". Take the guest out and in again.";
    peer_.reset();
    subscriber_.call(subscriber_.callbacks.on_error, text.c_str(), OTC_SESSION_CONNECTION_FAILED);
    return;
  }
  retry_.once(retry_interval, [this] { open(); });
}

void Subscription::peer_pad_added(GstPad* pad) {
  const Gst<GstCaps> caps(gst_pad_get_current_caps(pad));
  if (caps == nullptr) return;
  const char* encoding = gst_structure_get_string(gst_caps_get_structure(caps.get(), 0), "encoding-name");
  for (const Decoder& decoder : decoders) {
    if (g_strcmp0(decoder.encoding, encoding) != 0) continue;
    GError* error = nullptr;
    GstElement* bin = gst_parse_bin_from_description(decoder.elements, TRUE, &error);
    if (bin == nullptr) {
      log_warning("Stream {}: no decoder for {}: {}", harmless(subscriber_.stream.id), encoding,
                  error->message);
      g_error_free(error);
      return;
    }
    const bool sound = std::strcmp(encoding, "OPUS") == 0;
    const Gst<GstElement> sink(gst_bin_get_by_name(GST_BIN(bin), sound ? "audio" : "video"));
    const Gst<GstPad> output(gst_element_get_static_pad(sink.get(), "sink"));
    gst_pad_add_probe(output.get(), GST_PAD_PROBE_TYPE_BUFFER, sound ? sound_decoded : picture_decoded,
                      &subscriber_, nullptr);

    const Gst<GstElement> webrtc(gst_pad_get_parent_element(pad));
    const Gst<GstElement> pipeline(GST_ELEMENT(gst_element_get_parent(webrtc.get())));
    const Gst<GstPad> input(gst_element_get_static_pad(bin, "sink"));
    gst_bin_add(GST_BIN(pipeline.get()), bin);
    gst_pad_link(pad, input.get());
    gst_element_sync_state_with_parent(bin);
    return;
  }
  log_warning("Stream {}: there is no decoder for {}.", harmless(subscriber_.stream.id),
              encoding == nullptr ? "what it sends" : harmless(encoding));
}

}  // namespace engine
