#include <utility>

#include "client/xpc_object.h"
#include "studio/reports.h"

namespace studio {

namespace {

xpc_object_t dictionary(const Message& message) {
  return static_cast<xpc_object_t>(message.get());
}

std::string_view text(const Message& message, const char* key) {
  return xpc_dictionary_get_string(dictionary(message), key);
}

}  // namespace

void MessageRelease::operator()(void* message) const {
  xpc_release(static_cast<xpc_object_t>(message));
}

Frame::Frame(Message message, Surface surface, Held held)
    : message_(std::move(message)), surface_(std::move(surface)), held_(std::move(held)) {
  held_->fetch_add(1, std::memory_order_relaxed);
  IOSurfaceIncrementUseCount(surface_.get());
  IOSurfaceLock(surface_.get(), kIOSurfaceLockReadOnly, nullptr);
}

Frame& Frame::operator=(Frame&& other) noexcept {
  if (this != &other) {
    letGo();
    message_ = std::move(other.message_);
    surface_ = std::move(other.surface_);
    held_ = std::move(other.held_);
  }
  return *this;
}

Frame::~Frame() {
  letGo();
}

void Frame::letGo() {
  if (!message_) return;
  IOSurfaceUnlock(surface_.get(), kIOSurfaceLockReadOnly, nullptr);
  IOSurfaceDecrementUseCount(surface_.get());
  surface_.reset();
  message_.reset();
  held_->fetch_sub(1, std::memory_order_release);
}

std::string_view Frame::id() const {
  return text(message_, "id");
}
std::string_view Frame::name() const {
  return text(message_, "name");
}
std::string_view Frame::sessionId() const {
  return text(message_, "sessionId");
}
std::int64_t Frame::number() const {
  return xpc_dictionary_get_int64(dictionary(message_), "num");
}
std::int64_t Frame::timestamp() const {
  return xpc_dictionary_get_int64(dictionary(message_), "timestamp");
}

std::size_t Frame::width() const {
  return IOSurfaceGetWidth(surface_.get());
}
std::size_t Frame::height() const {
  return IOSurfaceGetHeight(surface_.get());
}
OSType Frame::format() const {
  return IOSurfaceGetPixelFormat(surface_.get());
}

std::size_t Frame::planeCount() const {
  const std::size_t planes = IOSurfaceGetPlaneCount(surface_.get());
  return planes == 0 ? 1 : planes;
}

Plane Frame::plane(std::size_t index) const {
  const IOSurfaceRef surface = surface_.get();
  if (IOSurfaceGetPlaneCount(surface) == 0) {
    return {static_cast<const std::uint8_t*>(IOSurfaceGetBaseAddress(surface)),
            IOSurfaceGetBytesPerRow(surface), width(), height()};
  }
  return {static_cast<const std::uint8_t*>(IOSurfaceGetBaseAddressOfPlane(surface, index)),
          IOSurfaceGetBytesPerRowOfPlane(surface, index), IOSurfaceGetWidthOfPlane(surface, index),
          IOSurfaceGetHeightOfPlane(surface, index)};
}

}  // namespace studio
