// What goes over the socket: one datagram a message. docs/host-link.md describes every byte.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "body.h"
#include "object.h"

namespace platform::xpc {

constexpr size_t kHeaderSize = 16;
constexpr size_t kLargestInline = size_t{64} * 1024;  // a larger body travels in a memfd
constexpr size_t kLargestBody = size_t{8} * 1024 * 1024;
constexpr size_t kMostDescriptors = 64;  // a large body's memfd among them
constexpr unsigned kDeepest = 32;        // containers within containers

enum class Kind : uint8_t { message = 0, messageAwaitingReply = 1, reply = 2 };

// A message as it goes out. Unless it is long, all its memory is inside it.
class Outgoing {
  static constexpr size_t kUsualSize = 4608;  // 20 ms of sound, and what comes with it
  static constexpr size_t kRoom = kUsualSize + 1024;

  alignas(std::max_align_t) std::array<std::byte, kRoom> room_;
  std::pmr::monotonic_buffer_resource memory_{room_.data(), room_.size()};

 public:
  Outgoing() { bytes.reserve(kUsualSize); }
  Outgoing(const Outgoing& other)
      : bytes(other.bytes, &memory_),
        descriptors(other.descriptors, &memory_),
        bodyLength(other.bodyLength) {}

  Bytes bytes{&memory_};  // header, and the body unless it is large
  Descriptors descriptors{&memory_};
  size_t bodyLength = 0;
};

// Fills the datagram with the message, its kind set to message and its serial to 0. On failure answers what
// is wrong with the message, else null.
const char* encode(const Dictionary& message, Outgoing& datagram);
void setKind(Outgoing& datagram, Kind kind, uint32_t serial);

// A message as it came in.
struct Incoming {
  Kind kind = Kind::message;
  uint32_t serial = 0;
  Ref<Dictionary> dictionary;  // null: the datagram is refused
  const char* problem = nullptr;
  size_t bodyLength = 0;
};

// Whether the datagram says that its body is large; decode then copies and checks megabytes.
bool hasLargeBody(std::span<const uint8_t> datagram);

// Takes the descriptors out of the span, or leaves them where they are to be closed by their owner.
Incoming decode(std::span<const uint8_t> datagram, std::span<FileDescriptor> descriptors);

}  // namespace platform::xpc
