#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace platform {

struct PlaneLayout {
  size_t width = 0;  // elements: pixels, or chroma samples
  size_t height = 0;
  size_t bytesPerElement = 0;
  size_t bytesPerRow = 0;
  size_t offset = 0;  // of the first row, from the beginning of the memory

  size_t size() const { return bytesPerRow * height; }
  bool operator==(const PlaneLayout&) const = default;
};

// How a picture lies in memory. A packed format has one plane here, though its plane count is 0 to the
// outside.
struct PictureLayout {
  static constexpr size_t maxSide = 16384;
  static constexpr size_t rowAlignment = 64;

  size_t width = 0;
  size_t height = 0;
  uint32_t format = 0;
  size_t planeCount = 0;
  std::array<PlaneLayout, 3> planes;

  bool isPlanar() const { return planeCount > 1; }
  // The first byte after the last plane.
  size_t end() const { return planes[planeCount - 1].offset + planes[planeCount - 1].size(); }
  bool operator==(const PictureLayout&) const = default;

  // The layout that a new picture gets, its planes one after the other from `offset` on. None for an
  // unknown format or an impossible size.
  static std::optional<PictureLayout> make(uint32_t format, size_t width, size_t height, size_t offset);

  // Whether rows and planes, as somebody else gave them, are long enough, lie in order between `begin`
  // and `end` and do not overlap. `end` is at most INT32_MAX.
  bool liesWithin(size_t begin, size_t end) const;
};

}  // namespace platform
