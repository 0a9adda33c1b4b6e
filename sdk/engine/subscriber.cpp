#include "subscriber.h"

#include <gst/video/video.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "audio_device.h"
#include "log.h"
#include "video_frame.h"

namespace engine {
namespace {

using namespace std::chrono_literals;

constexpr auto pictureCheckInterval = 1s;
// A connection that brings no picture by then is said to, and then made again: the first time after the
// fewest checks, then ever more seldom, as its sound may well come and is interrupted.
constexpr int checksBeforeWarning = 4;
constexpr int fewestChecksBeforeFailure = 10;
constexpr int mostChecksBeforeFailure = 80;
// What no camera and no screen has: 8K. Each picture takes room in the program several times.
constexpr int largestSide = 8192;
constexpr std::int64_t largestPicture = std::int64_t{7680} * 4320;

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

bool isBearable(const GstVideoInfo& info) {
  return info.width <= largestSide && info.height <= largestSide &&
         std::int64_t{info.width} * info.height <= largestPicture;
}

// What is decoded is taken where it enters the sink: there nobody else holds it.
GstPadProbeReturn pictureDecoded(GstPad* pad, GstPadProbeInfo* probe, gpointer data) {
  auto& subscriber = *static_cast<otc_subscriber*>(data);
  const Gst<GstCaps> caps(gst_pad_get_current_caps(pad));
  GstVideoInfo info;
  GstVideoFrame mapped;
  if (!subscriber.subscribed || !subscriber.video || caps == nullptr ||
      gst_video_info_from_caps(&info, caps.get()) == FALSE || !isBearable(info) ||
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

GstPadProbeReturn soundDecoded(GstPad*, GstPadProbeInfo* probe, gpointer data) {
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

void applySwitches(otc_subscriber& subscriber) {
  EngineThread::get().post([&subscriber] {
    if (subscriber.subscription != nullptr) subscriber.subscription->applySwitches();
  });
}

Subscription::Subscription(std::shared_ptr<JanusConnection> janus, otc_subscriber& subscriber,
                           std::string room, Access access)
    : janus_(std::move(janus)),
      subscriber_(subscriber),
      room_(std::move(room)),
      access_(std::move(access)),
      checksBeforeFailure_(fewestChecksBeforeFailure),
      retry_([this] { open(); }) {
  subscriber_.subscription = this;
  open();
}

Subscription::~Subscription() {
  peer_.reset();
  AudioDevice::get().forget(&subscriber_);
  if (subscriber_.subscription == this) subscriber_.subscription = nullptr;
}

void Subscription::open() {
  if (!janus_->isOpen()) return;  // once it is, networkIsBack is called
  videoMid_.clear();
  audioMid_.clear();
  videoSent_ = audioSent_ = true;
  peer_ = std::make_shared<Peer>(janus_, static_cast<Peer::Listener&>(*this));
  peer_->acceptOffersWith({{"request", "start"}, {"room", room_}});
  peer_->open("janus.plugin.videoroom");
}

void Subscription::networkIsBack() {
  checksBeforeFailure_ = fewestChecksBeforeFailure;
  if (!connected_) retry_.now();
}

void Subscription::peerAttached() {
  const json join = {{"request", "join"},
                     {"ptype", "subscriber"},
                     {"room", room_},
                     {"token", access_.token},
                     {"pin", access_.pin},
                     // A stream that ends is torn down, not negotiated once more.
                     {"autoupdate", false},
                     {"streams", json::array({{{"feed", subscriber_.stream.id}}})}};
  peer_->ask(join, [this](const json& data) {
    const std::string error = stringAt(data, "error");
    if (!error.empty()) {
      peerFailed(error);
      return;
    }
    streamsListed(data);
  });
}

void Subscription::peerEvent(const json& data) {
  streamsListed(data);
}

void Subscription::streamsListed(const json& data) {
  const json& streams = objectAt(data, "streams");
  if (!streams.is_array()) return;
  for (const json& stream : streams) {
    const std::string type = stringAt(stream, "type");
    if (type == "video") videoMid_ = stringAt(stream, "mid");
    if (type == "audio") audioMid_ = stringAt(stream, "mid");
  }
  applySwitches();
}

void Subscription::applySwitches() {
  switchStream(videoMid_, subscriber_.video, videoSent_);
  switchStream(audioMid_, subscriber_.audio, audioSent_);
}

void Subscription::switchStream(const std::string& mid, bool on, bool& current) {
  if (mid.empty() || on == current) return;
  current = on;
  peer_->ask({{"request", "configure"}, {"streams", json::array({{{"mid", mid}, {"send", on}}})}},
             [this, on](const json&) {
               if (on) askForKeyFrame();
             });
}

void Subscription::askForKeyFrame() {
  const Gst<GstElement> sink(gst_bin_get_by_name(GST_BIN(peer_->pipeline()), "video"));
  if (sink == nullptr) return;
  const Gst<GstPad> pad(gst_element_get_static_pad(sink.get(), "sink"));
  gst_pad_push_event(pad.get(), gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
}

// Pictures that have stopped may only lack a key frame: the request for it, or the key frame, was lost.
void Subscription::lookAfterPictures() {
  const unsigned pictures = subscriber_.pictures;
  const bool came = pictures != std::exchange(picturesBefore_, pictures);
  if (came || !subscriber_.video || !picturesExpected_) {
    checksWithoutPicture_ = 0;
    checksBeforeFailure_ = fewestChecksBeforeFailure;
    return;
  }
  ++checksWithoutPicture_;
  if (checksWithoutPicture_ == checksBeforeWarning) {
    logWarning("Stream {}: connected, but no picture comes.", harmless(subscriber_.stream.id));
  }
  if (checksWithoutPicture_ == checksBeforeFailure_) {
    checksBeforeFailure_ = std::min(2 * checksBeforeFailure_, mostChecksBeforeFailure);
    peerFailed("no picture came");
  } else {
    askForKeyFrame();
  }
}

void Subscription::peerConnected() {
  connected_ = true;
  retry_.succeeded();
  checksWithoutPicture_ = 0;
  pictureCheck_.every(pictureCheckInterval, [this] { lookAfterPictures(); });
  AudioDevice::get().startRenderer();
  if (std::exchange(wasConnected_, true)) {
    subscriber_.call(subscriber_.callbacks.on_reconnected);
  } else {
    subscriber_.call(subscriber_.callbacks.on_connected, &subscriber_.stream);
  }
}

void Subscription::peerFailed(const std::string& reason) {
  if (retry_.waits()) return;
  pictureCheck_.stop();
  logWarning("Stream {}: {}.", harmless(subscriber_.stream.id), reason);
  if (std::exchange(connected_, false)) subscriber_.call(subscriber_.callbacks.on_disconnected);
  retry_.later();
}

void Subscription::peerPadAdded(GstPad* pad) {
  const Gst<GstCaps> caps(gst_pad_get_current_caps(pad));
  if (caps == nullptr) return;
  const char* encoding = gst_structure_get_string(gst_caps_get_structure(caps.get(), 0), "encoding-name");
  for (const Decoder& decoder : decoders) {
    if (g_strcmp0(decoder.encoding, encoding) != 0) continue;
    GError* error = nullptr;
    GstElement* bin = gst_parse_bin_from_description(decoder.elements, TRUE, &error);
    if (bin == nullptr) {
      logWarning("Stream {}: no decoder for {}: {}", harmless(subscriber_.stream.id), encoding,
                 error->message);
      g_error_free(error);
      return;
    }
    const bool sound = std::strcmp(encoding, "OPUS") == 0;
    const Gst<GstElement> sink(gst_bin_get_by_name(GST_BIN(bin), sound ? "audio" : "video"));
    const Gst<GstPad> output(gst_element_get_static_pad(sink.get(), "sink"));
    gst_pad_add_probe(output.get(), GST_PAD_PROBE_TYPE_BUFFER, sound ? soundDecoded : pictureDecoded,
                      &subscriber_, nullptr);

    const Gst<GstElement> webrtc(gst_pad_get_parent_element(pad));
    const Gst<GstElement> pipeline(GST_ELEMENT(gst_element_get_parent(webrtc.get())));
    const Gst<GstPad> input(gst_element_get_static_pad(bin, "sink"));
    gst_bin_add(GST_BIN(pipeline.get()), bin);
    gst_pad_link(pad, input.get());
    gst_element_sync_state_with_parent(bin);
    return;
  }
  logWarning("Stream {}: there is no decoder for {}.", harmless(subscriber_.stream.id),
             encoding == nullptr ? "what it sends" : harmless(encoding));
}

}  // namespace engine
