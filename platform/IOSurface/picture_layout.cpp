#include "IOSurface/picture_layout.h"

#include <algorithm>

#include "CoreVideo/CoreVideo.h"

namespace platform {

std::optional<PictureLayout> PictureLayout::make(uint32_t format, size_t width, size_t height,
                                                 size_t offset) {
  if (width < 1 || height < 1 || width > maxSide || height > maxSide) return std::nullopt;
  const size_t chromaWidth = (width + 1) / 2;
  const size_t chromaHeight = (height + 1) / 2;

  PictureLayout layout{.width = width, .height = height, .format = format, .planeCount = 0, .planes = {}};
  const auto add = [&](size_t planeWidth, size_t planeHeight, size_t bytesPerElement) {
    PlaneLayout& plane = layout.planes.at(layout.planeCount++);
    const size_t bytesPerRow =
        (planeWidth * bytesPerElement + rowAlignment - 1) / rowAlignment * rowAlignment;
    plane = {planeWidth, planeHeight, bytesPerElement, bytesPerRow, offset};
    offset += plane.size();
  };
  switch (format) {
    case kCVPixelFormatType_32BGRA:
      add(width, height, 4);
      break;
    case kCVPixelFormatType_420YpCbCr8Planar:
      add(width, height, 1);
      add(chromaWidth, chromaHeight, 1);
      add(chromaWidth, chromaHeight, 1);
      break;
    case kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange:
      add(width, height, 1);
      add(chromaWidth, chromaHeight, 2);
      break;
    default:
      return std::nullopt;
  }
  return layout;
}

bool PictureLayout::liesWithin(size_t begin, size_t end) const {
  return std::all_of(planes.begin(), planes.begin() + planeCount, [&](const PlaneLayout& plane) {
    if (plane.offset < begin || plane.offset > end) return false;
    if (plane.bytesPerRow < plane.width * plane.bytesPerElement || plane.bytesPerRow > end) return false;
    // At most 2^31 times 2^14 from here on: no overflow.
    if (plane.size() > end - plane.offset) return false;
    begin = plane.offset + plane.size();
    return true;
  });
}

}  // namespace platform
