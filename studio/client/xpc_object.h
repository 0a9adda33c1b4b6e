// An owning handle for XPC objects.
#pragma once

#include <xpc/xpc.h>

#include <memory>
#include <type_traits>

namespace studio {

struct XpcRelease {
  void operator()(xpc_object_t object) const { xpc_release(object); }
};

/// One reference to an XPC object; made from a function that hands one over, or with `retain`.
using XpcObject = std::unique_ptr<std::remove_pointer_t<xpc_object_t>, XpcRelease>;

inline XpcObject retain(xpc_object_t object) {
  return XpcObject(xpc_retain(object));
}

}  // namespace studio
