#include "rtcp.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

namespace engine {
namespace {

using Bytes = std::vector<std::uint8_t>;

// RFC 3550: a packet is a byte of version and count, a type, a length in words less one, the sender.
constexpr std::size_t headerSize = 8;
constexpr std::size_t blockSize = 24;
constexpr std::uint8_t receiverReport = 201;
// RFC 4585: after the header the source that is asked.
constexpr std::uint8_t payloadFeedback = 206;
constexpr std::uint8_t pictureLoss = 1;

std::uint8_t countOf(const Bytes& rtcp, std::size_t at) {
  return rtcp[at] & 31U;
}

std::size_t sizeOf(const Bytes& rtcp, std::size_t at) {
  return 4 * ((static_cast<std::size_t>(rtcp[at + 2]) << 8U | rtcp[at + 3]) + 1);
}

// Where the source that a key frame is asked of is named; 0 where none is asked for.
std::size_t findAsked(const Bytes& rtcp) {
  for (std::size_t at = 0; at + headerSize <= rtcp.size(); at += sizeOf(rtcp, at)) {
    if (rtcp[at + 1] == payloadFeedback && countOf(rtcp, at) == pictureLoss &&
        at + headerSize + 4 <= rtcp.size()) {
      return at + headerSize;
    }
  }
  return 0;
}

// Whether the packet was changed.
bool putAskedFirst(Bytes& rtcp) {
  const std::size_t asked = findAsked(rtcp);
  if (asked == 0 || rtcp[1] != receiverReport) return false;
  std::array<std::uint8_t, blockSize> block = {};
  std::copy_n(rtcp.begin() + static_cast<std::ptrdiff_t>(asked), 4, block.begin());

  const auto blocks = rtcp.begin() + headerSize;
  const std::size_t size = countOf(rtcp, 0) * blockSize;
  if (headerSize + size > rtcp.size()) return false;
  for (std::size_t at = 0; at < size; at += blockSize) {
    const auto reported = blocks + static_cast<std::ptrdiff_t>(at);
    if (!std::equal(block.begin(), block.begin() + 4, reported)) continue;
    std::swap_ranges(reported, reported + blockSize, blocks);
    return at != 0;
  }
  if (countOf(rtcp, 0) == 31) return false;
  ++rtcp[0];
  rtcp[3] = static_cast<std::uint8_t>(rtcp[3] + blockSize / 4);
  rtcp.insert(blocks, block.begin(), block.end());
  return true;
}

gboolean sending(GObject*, GstBuffer* buffer, gboolean, gpointer) {
  GstMapInfo mapped;
  if (gst_buffer_map(buffer, &mapped, GST_MAP_READ) == FALSE) return FALSE;
  Bytes rtcp(mapped.data, mapped.data + mapped.size);
  gst_buffer_unmap(buffer, &mapped);
  if (rtcp.size() >= headerSize && putAskedFirst(rtcp)) {
    gpointer copy = g_memdup2(rtcp.data(), rtcp.size());
    gst_buffer_replace_all_memory(
        buffer, gst_memory_new_wrapped(GstMemoryFlags{}, copy, rtcp.size(), 0, rtcp.size(), copy, g_free));
  }
  return FALSE;
}

}  // namespace

void reportWhatIsAsked(GstElement* rtpsession) {
  GObject* session = nullptr;
  g_object_get(rtpsession, "internal-session", &session, nullptr);
  // A request that was lost may be repeated soon.
  constexpr guint64 halfASecond = 500000000;
  g_object_set(session, "rtcp-feedback-retention-window", halfASecond, nullptr);
  g_signal_connect(session, "on-sending-rtcp", G_CALLBACK(sending), nullptr);
  g_object_unref(session);
}

}  // namespace engine
