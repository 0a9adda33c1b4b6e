// Surfaces for the show's pictures.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "studio/handles.h"

namespace studio {

/// Hands out shared 'BGRA' surfaces, and the same one again only when no process uses it any more.
/// For one thread.
class SurfacePool {
 public:
  /// At most `limit` surfaces exist at a time.
  explicit SurfacePool(std::size_t limit) : limit_(limit) {}

  /// A surface of that size to write to, null while all are in use. It belongs to the pool and stays
  /// valid until the next call; giving it to Client::videoFrame takes a hold of its own. A new size
  /// lets the surfaces of the old one go.
  IOSurfaceRef take(std::size_t width, std::size_t height);

 private:
  std::size_t limit_;
  std::size_t width_ = 0;
  std::size_t height_ = 0;
  std::vector<Surface> surfaces_;
};

}  // namespace studio
