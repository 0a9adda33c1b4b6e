// Owning handles for the counted C objects that pass through the studio's interface. None is an Objective-C
// object: what includes this may be C++ or Objective-C++, with or without automatic reference counting.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <IOSurface/IOSurface.h>

#include <memory>
#include <type_traits>

namespace studio {

struct SurfaceRelease {
  void operator()(IOSurfaceRef surface) const { CFRelease(surface); }
};
/// One reference to a surface.
using Surface = std::unique_ptr<std::remove_pointer_t<IOSurfaceRef>, SurfaceRelease>;

/// One reference to a message of the service's, whose type is the client's own.
struct MessageRelease {
  void operator()(void* message) const;
};
using Message = std::unique_ptr<void, MessageRelease>;

}  // namespace studio
