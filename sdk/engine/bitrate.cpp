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

// The limit in a REMB message, 0 where it is none: "REMB", one byte, 6 bits of exponent, 18 of mantissa.
int remb_limit(const guint8* data, gsize size) {
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
  if (rtpbin != nullptr) g_signal_emit_by_name(rtpbin.get(), "get-internal-session", 0U, &session_);
  if (session_ == nullptr) return;
  g_signal_connect(session_, "on-feedback-rtcp",
                   G_CALLBACK(+[](GObject*, guint type, guint format, guint, guint, GstBuffer* data, Bitrate* self) {
                     constexpr guint payload_specific = 206;
                     constexpr guint application_layer = 15;
                     GstMapInfo mapped;
                     if (type != payload_specific || format != application_layer || data == nullptr ||
                         gst_buffer_map(data, &mapped, GST_MAP_READ) == FALSE) {
                       return;
                     }
                     const int limit = remb_limit(mapped.data, mapped.size);
                     gst_buffer_unmap(data, &mapped);
                     if (limit > 0) self->limit_ = limit;
                   }),
                   this);
  timer_.every(interval, [this] { adapt(); });
}

Bitrate::~Bitrate() {
  if (session_ == nullptr) return;
  g_signal_handlers_disconnect_by_data(session_, this);
  g_object_unref(session_);
}

void Bitrate::adapt() {
  GstStructure* stats = nullptr;
  g_object_get(session_, "twcc-stats", &stats, nullptr);
  double lost = 0;     // per cent
  gint64 growing = 0;  // nanoseconds by which the delay of a packet exceeds that of the one before
  if (stats != nullptr) {
    gst_structure_get_double(stats, "packet-loss-pct", &lost);
    gst_structure_get_int64(stats, "avg-delta-of-delta", &growing);
    gst_structure_free(stats);
  }
  double wanted = rate_;
  if (lost > 10) {
    wanted *= 1 - lost / 200;
  } else if (growing > 1000000) {
    wanted *= 0.9;
  } else if (lost < 2) {
    wanted = wanted * 1.04 + 10000;
  }
  const int rate = std::clamp(static_cast<int>(wanted), lowest, std::max(lowest, limit_.load()));
  if (rate == rate_) return;
  rate_ = rate;
  g_object_set(encoder_.get(), "target-bitrate", rate_, nullptr);
}

}  // namespace engine
