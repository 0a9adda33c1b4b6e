#pragma once

#include <gst/gst.h>

#include <memory>

namespace engine {

// Owning handles of GStreamer's objects.
struct GstRelease {
  void operator()(GstElement* element) const { gst_object_unref(element); }
  void operator()(GstPad* pad) const { gst_object_unref(pad); }
  void operator()(GstBus* bus) const { gst_object_unref(bus); }
  void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
  void operator()(GstSample* sample) const { gst_sample_unref(sample); }
  void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
  void operator()(GstBufferPool* pool) const { gst_object_unref(pool); }
  void operator()(GstClock* clock) const { gst_object_unref(clock); }
  void operator()(gchar* text) const { g_free(text); }
};
template <typename T>
using Gst = std::unique_ptr<T, GstRelease>;

}  // namespace engine
