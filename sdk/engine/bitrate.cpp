#include "bitrate.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "log.h"

namespace engine {
namespace {

using namespace std::chrono_literals;

// Bits a second.
constexpr int lowest = 150000;
constexpr int first = 1500000;
constexpr int highest = 4000000;
constexpr auto interval = 500ms;
constexpr guint fewestPackets = 10;
constexpr gint64 largestGrowth = 1000000;  // nanoseconds

// The limit in a REMB message, 0 where it is none: "REMB", one byte, 6 bits of exponent, 18 of mantissa.
int rembLimit(const guint8* data, gsize size) {
  if (size < 8 || std::memcmp(data, "REMB", 4) != 0) return 0;
  const unsigned exponent = data[5] >> 2U;
  const std::uint64_t mantissa = (static_cast<std::uint64_t>(data[5] & 3U) << 16U) |
                                 (static_cast<std::uint64_t>(data[6]) << 8U) | data[7];
  if (exponent > 31) return highest;
  return static_cast<int>(std::min<std::uint64_t>(mantissa << exponent, highest));
}

}  // namespace

Bitrate::Bitrate(GstElement* webrtc, GstElement* source) : limit_(highest), rate_(first) {
  const Gst<GstElement> bin(GST_ELEMENT(gst_element_get_parent(source)));
  encoder_.reset(gst_bin_get_by_name(GST_BIN(bin.get()), "encoder"));
  g_object_set(encoder_.get(), "target-bitrate", rate_, nullptr);

  const Gst<GstElement> rtpbin(gst_bin_get_by_name(GST_BIN(webrtc), "rtpbin"));
  GstElement* session = nullptr;
  if (rtpbin != nullptr) g_signal_emit_by_name(rtpbin.get(), "get-session", 0U, &session);
  if (session == nullptr) return;
  statistics_.reset(session);
  g_object_get(session, "internal-session", &feedback_, nullptr);
  g_signal_connect(
      feedback_, "on-feedback-rtcp",
      G_CALLBACK(+[](GObject*, guint type, guint format, guint, guint, GstBuffer* data, Bitrate* self) {
        constexpr guint payloadSpecific = 206;
        constexpr guint applicationLayer = 15;
        GstMapInfo mapped;
        if (type != payloadSpecific || format != applicationLayer || data == nullptr ||
            gst_buffer_map(data, &mapped, GST_MAP_READ) == FALSE) {
          return;
        }
        const int limit = rembLimit(mapped.data, mapped.size);
        gst_buffer_unmap(data, &mapped);
        if (limit > 0) self->limit_ = limit;
      }),
      this);
  timer_.every(interval, [this] { adapt(); });
}

Bitrate::~Bitrate() {
  if (feedback_ == nullptr) return;
  g_signal_handlers_disconnect_by_data(feedback_, this);
  g_object_unref(feedback_);
}

void Bitrate::adapt() {
  GstStructure* stats = nullptr;
  g_object_get(statistics_.get(), "twcc-stats", &stats, nullptr);
  if (stats == nullptr) return;
  double lost = 0;     // per cent
  gint64 growing = 0;  // nanoseconds by which the delay of a packet exceeds that of the one before
  guint packets = 0;
  guint sent = 0;  // bits a second
  gst_structure_get(stats, "packet-loss-pct", G_TYPE_DOUBLE, &lost, "avg-delta-of-delta", G_TYPE_INT64,
                    &growing, "packets-sent", G_TYPE_UINT, &packets, "bitrate-sent", G_TYPE_UINT, &sent,
                    nullptr);
  gst_structure_free(stats);
  double wanted = rate_;
  if (packets < fewestPackets) {
    lost = 0;  // too little to judge by
  } else if (lost > 10) {
    wanted *= 1 - lost / 200;
  } else if (growing > largestGrowth) {
    wanted *= 0.9;
  }
  // More is tried only where what there is is used.
  if (wanted >= rate_ && lost < 2 && sent > rate_ * 0.7) wanted = wanted * 1.05 + 10000;
  const int rate = std::clamp(static_cast<int>(wanted), lowest, std::max(lowest, limit_.load()));
  if (rate == rate_) return;
  rate_ = rate;
  g_object_set(encoder_.get(), "target-bitrate", rate_, nullptr);
}

}  // namespace engine
