// What goes over the socket: one datagram a message. docs/host-link.md describes every byte.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "object.h"

namespace platform::xpc {

constexpr size_t kHeaderSize = 16;
constexpr size_t kLargestInline = size_t{64} * 1024;  // a larger body travels in a memfd
constexpr size_t kLargestBody = size_t{8} * 1024 * 1024;
constexpr size_t kMostDescriptors = 64;  // a large body's memfd among them
constexpr unsigned kDeepest = 32;        // containers within containers

enum class Kind : uint8_t { message = 0, messageAwaitingReply = 1, reply = 2 };

// A message as it goes out.
struct Outgoing {
  Bytes bytes;  // header, and the body unless it is large
  std::vector<Ref<Descriptor>> descriptors;
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
