// Owning handles for the counted C objects that pass through the studio's interface.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <IOSurface/IOSurface.h>
#include <xpc/xpc.h>

#include <memory>
#include <type_traits>

namespace studio {

struct XpcRelease {
  void operator()(xpc_object_t object) const { xpc_release(object); }
};
struct SurfaceRelease {
  void operator()(IOSurfaceRef surface) const { CFRelease(surface); }
};

/// One reference to an XPC object; made from a function that hands one over, or with `retain`.
using XpcObject = std::unique_ptr<std::remove_pointer_t<xpc_object_t>, XpcRelease>;
/// One reference to a surface.
using Surface = std::unique_ptr<std::remove_pointer_t<IOSurfaceRef>, SurfaceRelease>;

inline XpcObject retain(xpc_object_t object) {
  return XpcObject(xpc_retain(object));
}

}  // namespace studio
