// What the guest service reports. Texts are UTF-8 as the guests sent them, and untrusted.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "studio/handles.h"

namespace studio {

/// A guest asks to come in. `id` names the guest's stream in every command and report about it.
struct Ring {
  std::string_view id;
  std::string_view name;
  std::string_view sessionId;
  bool screenShare = false;
};

/// Some guest's sound was switched on or off. The service does not say whose.
struct AudioChanged {
  bool hasAudio = false;
  std::string_view sessionId;
};

/// A guest's stream is gone. An empty `id`: the session is gone and there was no guest.
struct Dropped {
  std::string_view id;
  std::string_view sessionId;
};

/// A line of chat; the studio's own come back. What a guest left out, or sent as no text, is missing. One
/// with neither text nor name is not reported.
struct Chat {
  std::optional<std::string_view> text;
  std::optional<std::string_view> name;
  std::string_view uuid;
  std::string_view sessionId;
};

/// A comment or a line of chat is marked, or no longer. One without a state is not reported.
struct Favourite {
  std::optional<std::string_view> uuid;
  std::string_view state;
  std::string_view sessionId;
};

/// A piece of one guest's sound; the service does not say whose.
struct Sound {
  /// Interleaved stereo at 48 kHz, two entries a sample frame.
  std::span<const std::int16_t> samples;
  std::string_view sessionId;
};

/// One plane of a picture. Valid as long as its Frame.
struct Plane {
  const std::uint8_t* data = nullptr;
  std::size_t bytesPerRow = 0;
  std::size_t width = 0;   ///< elements; one of '420v' chroma is a pair of bytes
  std::size_t height = 0;  ///< rows
};

/// A guest's picture, in memory that the service and the studio share. Nothing was copied.
///
/// The service has been answered by the time the listener gets it, and writes to the memory again only when
/// nobody holds the frame any more. Whoever holds maxHeld frames of a stream gets no more of it until they
/// let go of one (the destructor); all other streams go on. May be moved to, read and let go on any thread.
class Frame {
 public:
  static constexpr int maxHeld = 4;
  /// How many frames of a stream are held.
  using Held = std::shared_ptr<std::atomic<int>>;

  /// Takes over the message, and the surface that it carries. Use Client's listener instead.
  Frame(Message message, Surface surface, Held held);
  Frame(Frame&& other) noexcept = default;
  Frame& operator=(Frame&& other) noexcept;
  ~Frame();

  std::string_view id() const;    ///< the guest's stream
  std::string_view name() const;  ///< the guest's name
  std::string_view sessionId() const;
  std::int64_t number() const;     ///< counts the frames of all guests, sent and unsent
  std::int64_t timestamp() const;  ///< microseconds on a clock of the stream's

  std::size_t width() const;   ///< pixels, at least 1
  std::size_t height() const;  ///< pixels, at least 1
  OSType format() const;       ///< '420v' from this service
  std::size_t planeCount() const;
  Plane plane(std::size_t index) const;  ///< `index` below planeCount()

 private:
  void letGo();

  Message message_;
  Surface surface_;
  Held held_;
};

}  // namespace studio
