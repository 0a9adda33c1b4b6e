// Pictures between GStreamer and shared surfaces.
#pragma once

#include <gst/video/video.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "studio/reports.h"

namespace studio {

/// Converts and scales pictures of a source into surfaces, each in one pass. For one thread.
class PictureConverter {
 public:
  /// Writes the picture into the whole 'BGRA' surface, with black bars where the shapes differ.
  /// False if the picture cannot be read.
  bool convert(GstBuffer* picture, const GstVideoInfo& info, IOSurfaceRef surface);

 private:
  struct Free {
    void operator()(GstVideoConverter* converter) const { gst_video_converter_free(converter); }
  };
  void prepare(const GstVideoInfo& from, const GstVideoInfo& to);

  std::unique_ptr<GstVideoConverter, Free> converter_;
  GstVideoInfo from_{};
  GstVideoInfo to_{};
};

/// A copy of a frame's picture, which may be kept.
class PictureCopy {
 public:
  explicit PictureCopy(const Frame& frame);

  /// Writes the picture to a PNG file; blocking. Answers what went wrong, or nothing.
  std::string writePng(const std::string& file) const;

  std::size_t width() const { return width_; }
  std::size_t height() const { return height_; }

 private:
  struct Unref {
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
  };
  std::size_t width_;
  std::size_t height_;
  std::unique_ptr<GstSample, Unref> sample_;  // null for a format that has no PNG
};

}  // namespace studio
