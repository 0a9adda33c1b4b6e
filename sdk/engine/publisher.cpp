#include "publisher.h"

#include <gst/app/gstappsrc.h>

#include <algorithm>
#include <sstream>
#include <utility>
#include <vector>

#include "audio_device.h"
#include "bitrate.h"
#include "keep.h"
#include "log.h"
#include "room.h"
#include "video_frame.h"

namespace engine {
namespace {

// The encoder keeps up by giving up quality: with a positive cpu-used it picks its own speed, so that a
// frame takes (16 - cpu-used) / 16 of the time between two, an eighth. It never drops a frame and holds none
// back. A second thread would only take three times the processor's time: the two wait for each other by
// spinning. Key frames come when somebody asks, and once in a long while.
constexpr const char* videoElements =
    "appsrc name=source is-live=true format=time do-timestamp=true min-latency=0 max-latency=1000000000"
    " ! vp8enc name=encoder deadline=1 cpu-used=14 threads=1 end-usage=cbr lag-in-frames=0 "
    "dropframe-threshold=0"
    " resize-allowed=false keyframe-max-dist=3000 min-quantizer=4 max-quantizer=63 undershoot=100 "
    "overshoot=15"
    " buffer-size=1000 buffer-initial-size=500 buffer-optimal-size=600 error-resilient=default "
    "static-threshold=1"
    " ! rtpvp8pay picture-id-mode=15-bit auto-header-extension=true ! capsfilter name=rtp";
// With the numbers by which the server reports what arrives, and when.
constexpr const char* videoCaps =
    "application/x-rtp,media=video,clock-rate=90000,encoding-name=VP8,payload=96,"
    "extmap-3=(string)\"http://www.ietf.org/id/draft-holmer-rmcat-transport-wide-cc-extensions-01\"";
constexpr const char* audioCaps =
    "application/x-rtp,media=audio,clock-rate=48000,encoding-name=OPUS,payload=97";

std::string audioElements(bool stereo) {
  return std::string(
             "appsrc name=source is-live=true format=time min-latency=0 max-latency=1000000000"
             " caps=audio/x-raw,format=S16LE,layout=interleaved,rate=48000,channels=2"
             " ! audioconvert ! audio/x-raw,channels=") +
         (stereo ? "2" : "1") +
         " ! opusenc frame-size=20 audio-type=generic inband-fec=true packet-loss-percentage=10 bitrate=" +
         (stereo ? "96000" : "64000") + " ! rtpopuspay ! capsfilter name=rtp";
}

// The names of the media in a description: "m=video …" followed, before the next "m=", by "a=mid:NAME".
json descriptions(const std::string& sdp) {
  json list = json::array();
  std::istringstream lines(sdp);
  std::string kind;
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.starts_with("m=")) kind = line.substr(2, line.find(' ') - 2);
    if (!line.starts_with("a=mid:")) continue;
    list.push_back({{"mid", line.substr(6)}, {"description", kind == "video" ? "camera" : "on"}});
  }
  return list;
}

}  // namespace

Publication::Publication(std::shared_ptr<JanusConnection> janus, otc_publisher& publisher, Room& us,
                         std::string room, Access access)
    : janus_(std::move(janus)),
      publisher_(publisher),
      us_(us),
      room_(std::move(room)),
      access_(std::move(access)),
      retry_([this] { open(); }) {
  stream_.name = publisher_.settings.name;
  stream_.hasAudio = publisher_.settings.audio;
  stream_.hasVideo = publisher_.settings.video;
  if (publisher_.settings.hasCapturer) hint_ = publisher_.capturer.init();
  open();
}

Publication::~Publication() {
  publisher_.capturer.stopAndDestroy();
  closePeer();
  if (announced_) publisher_.call(publisher_.callbacks.on_stream_destroyed, &stream_);
}

void Publication::closePeer() {
  publisher_.capturer.setOutput(nullptr);
  if (audio_ != nullptr) AudioDevice::get().removeOutput(GST_APP_SRC(audio_.get()));
  peer_.reset();  // before the bit rate, which the peer's threads tell of
  bitrate_.reset();
  audio_.reset();
  video_.reset();
}

void Publication::networkIsBack() {
  if (!announced_) retry_.now();
}

void Publication::open() {
  if (!janus_->isOpen()) return;  // once it is, networkIsBack is called
  closePeer();
  peer_ = std::make_shared<Peer>(janus_, static_cast<Peer::Listener&>(*this));
  if (!build()) return;
  // The id is chosen here, so that the room's news of it are known to be of ourselves.
  const Gst<gchar> id(g_uuid_string_random());
  stream_.id = id.get();
  us_.addOwnId(stream_.id);
  peer_->open("janus.plugin.videoroom");
}

// Adds a source and its encoder, linked to the webrtcbin; null when an element is missing.
GstElement* Publication::add(const char* elements, const char* rtpCaps, GError** error) {
  GstElement* bin = gst_parse_bin_from_description(elements, TRUE, error);
  if (bin == nullptr) return nullptr;
  const Gst<GstElement> rtp(gst_bin_get_by_name(GST_BIN(bin), "rtp"));
  const Gst<GstCaps> caps(gst_caps_from_string(rtpCaps));
  g_object_set(rtp.get(), "caps", caps.get(), nullptr);
  gst_bin_add(GST_BIN(peer_->pipeline()), bin);
  gst_element_link(bin, peer_->webrtc());
  return gst_bin_get_by_name(GST_BIN(bin), "source");
}

bool Publication::build() {
  GError* error = nullptr;
  if (publisher_.settings.video && publisher_.settings.hasCapturer) {
    video_.reset(add(videoElements, videoCaps, &error));
  }
  if (publisher_.settings.audio && error == nullptr) {
    audio_.reset(add(audioElements(publisher_.settings.stereo).c_str(), audioCaps, &error));
  }
  if (error == nullptr) return true;
  const std::string text = std::string("Publishing is not possible: ") + error->message +
                           ". Install GStreamer's base, good and bad plugins.";
  g_error_free(error);
  publisher_.call(publisher_.callbacks.on_error, text.c_str(), OTC_FATAL);
  return false;
}

// One black frame and one block of silence: what is sent can be offered only once it has begun.
void Publication::prime() {
  if (video_ != nullptr) {
    constexpr int largest = 4096;
    const int width = std::clamp(hint_.width, 16, largest);
    const int height = std::clamp(hint_.height, 16, largest);
    const std::vector<std::uint8_t> black(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) *
                                          4);
    otc_video_frame frame;
    frame.format = OTC_VIDEO_FRAME_FORMAT_ARGB32;
    frame.width = width;
    frame.height = height;
    frame.planes[0] = black.data();
    frame.strides[0] = 4 * width;
    publisher_.capturer.setOutput(GST_APP_SRC(video_.get()));
    publisher_.capturer.provide(frame, 0);
    publisher_.capturer.setOutput(nullptr);
  }
  if (audio_ != nullptr) {
    constexpr std::size_t bytes = std::size_t{960} * 2 * sizeof(std::int16_t);
    gst_app_src_push_buffer(GST_APP_SRC(audio_.get()),
                            gst_buffer_new_memdup(std::vector<char>(bytes).data(), bytes));
  }
}

void Publication::peerAttached() {
  const json join = {{"request", "join"},      {"ptype", "publisher"}, {"room", room_},
                     {"token", access_.token}, {"pin", access_.pin},   {"id", stream_.id},
                     {"display", stream_.name}};
  peer_->ask(join, [this](const json& data) {
    const std::string error = stringAt(data, "error");
    if (!error.empty()) {
      peerFailed(error);
      return;
    }
    peer_->offer(
        [](const std::string& sdp) {
          return json{{"request", "publish"}, {"descriptions", descriptions(sdp)}};
        },
        [this](const json& answer) {
          const std::string refused = stringAt(answer, "error");
          if (!refused.empty()) peerFailed(refused);
        });
    prime();
  });
}

void Publication::peerConnected() {
  if (video_ != nullptr) {
    bitrate_ = std::make_unique<Bitrate>(peer_->webrtc(), video_.get());
    publisher_.capturer.setOutput(GST_APP_SRC(video_.get()));
  }
  if (audio_ != nullptr) {
    AudioDevice::get().addOutput(GST_APP_SRC(audio_.get()));
    AudioDevice::get().startCapturer();
  }
  if (publisher_.settings.hasCapturer) publisher_.capturer.start();
  retry_.succeeded();
  announced_ = true;
  publisher_.call(publisher_.callbacks.on_stream_created, &stream_);
}

void Publication::peerFailed(const std::string& reason) {
  if (retry_.waits()) return;
  logWarning("Publishing \"{}\": {}.", stream_.name, reason);
  if (std::exchange(announced_, false)) {
    publisher_.call(publisher_.callbacks.on_stream_destroyed, &stream_);
  }
  retry_.later();
}

}  // namespace engine

otc_publisher_settings* otc_publisher_settings_new(void) {
  return engine::keep(std::make_unique<otc_publisher_settings>());
}

otc_status otc_publisher_settings_set_name(otc_publisher_settings* settings, const char* name) {
  if (settings == nullptr || name == nullptr) return OTC_INVALID_PARAM;
  settings->name = name;
  return OTC_SUCCESS;
}

otc_status otc_publisher_settings_set_video_capturer(otc_publisher_settings* settings,
                                                     const struct otc_video_capturer_callbacks* capturer) {
  if (settings == nullptr || capturer == nullptr) return OTC_INVALID_PARAM;
  settings->capturer = *capturer;
  settings->hasCapturer = true;
  return OTC_SUCCESS;
}

otc_status otc_publisher_settings_set_audio_track(otc_publisher_settings* settings, otc_bool on) {
  if (settings == nullptr) return OTC_INVALID_PARAM;
  settings->audio = on != OTC_FALSE;
  return OTC_SUCCESS;
}

otc_status otc_publisher_settings_set_video_track(otc_publisher_settings* settings, otc_bool on) {
  if (settings == nullptr) return OTC_INVALID_PARAM;
  settings->video = on != OTC_FALSE;
  return OTC_SUCCESS;
}

otc_status otc_publisher_settings_set_stereo(otc_publisher_settings* settings, otc_bool on) {
  if (settings == nullptr) return OTC_INVALID_PARAM;
  settings->stereo = on != OTC_FALSE;
  return OTC_SUCCESS;
}

otc_publisher* otc_publisher_new_with_settings(const struct otc_publisher_callbacks* callbacks,
                                               const otc_publisher_settings* settings) {
  if (callbacks == nullptr || settings == nullptr) return nullptr;
  return engine::keep(std::make_unique<otc_publisher>(*callbacks, *settings));
}

// There is no fallback to sound alone that could be switched off: pictures only lose quality.
otc_status otc_publisher_set_audio_fallback_enabled(otc_publisher* publisher, otc_bool) {
  return publisher == nullptr ? OTC_INVALID_PARAM : OTC_SUCCESS;
}
