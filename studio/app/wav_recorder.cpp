#include "app/wav_recorder.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace studio {

namespace {

constexpr double samplesPerSecond = 2.0 * 48000;
constexpr std::chrono::seconds grace(2);

}  // namespace

WavRecorder::WavRecorder(const std::string& file, double seconds, std::function<void(Outcome)> done)
    : wanted_(2 * static_cast<std::size_t>(seconds * samplesPerSecond / 2)), done_(std::move(done)) {
  if (!std::ofstream(file, std::ios::binary)) throw std::runtime_error(file + " cannot be written");
  GError* error = nullptr;
  pipeline_ = gst_parse_launch(
      "appsrc name=source format=time is-live=true do-timestamp=false "
      "caps=audio/x-raw,format=S16LE,rate=48000,channels=2,layout=interleaved ! wavenc ! filesink name=file",
      &error);
  if (error) {
    const std::string reason = error->message;
    g_error_free(error);
    g_clear_object(&pipeline_);
    throw std::runtime_error(reason);
  }
  GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline_), "file");
  g_object_set(sink, "location", file.c_str(), nullptr);
  gst_object_unref(sink);
  source_ = gst_bin_get_by_name(GST_BIN(pipeline_), "source");
  GstBus* bus = gst_element_get_bus(pipeline_);
  watch_ = gst_bus_add_watch(bus, onMessage, this);
  gst_object_unref(bus);
  gst_element_set_state(pipeline_, GST_STATE_PLAYING);
  limit_.once(std::chrono::milliseconds(static_cast<int>(seconds * 1000)) + grace, [this] { finish(); });
}

WavRecorder::~WavRecorder() {
  g_source_remove(watch_);
  gst_element_set_state(pipeline_, GST_STATE_NULL);
  gst_object_unref(source_);
  gst_object_unref(pipeline_);
}

void WavRecorder::add(std::span<const std::int16_t> samples) {
  const std::size_t before = taken_.load(std::memory_order_relaxed);
  const std::size_t count = std::min(samples.size(), wanted_ - before);
  if (count == 0) return;
  GstBuffer* buffer = gst_buffer_new_memdup(samples.data(), count * sizeof(std::int16_t));
  GST_BUFFER_PTS(buffer) = gst_util_uint64_scale(before / 2, GST_SECOND, 48000);
  gst_app_src_push_buffer(GST_APP_SRC(source_), buffer);
  taken_.store(before + count, std::memory_order_relaxed);
  if (before + count == wanted_) gst_app_src_end_of_stream(GST_APP_SRC(source_));
}

void WavRecorder::finish() {
  if (taken_ == 0) {
    report("no sound came");
  } else {
    gst_app_src_end_of_stream(GST_APP_SRC(source_));
  }
}

gboolean WavRecorder::onMessage(GstBus*, GstMessage* message, gpointer self) {
  auto& recorder = *static_cast<WavRecorder*>(self);
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
    recorder.report("");
  } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    GError* error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    recorder.report(error->message);
    g_error_free(error);
  }
  return G_SOURCE_CONTINUE;
}

void WavRecorder::report(std::string fault) {
  limit_.stop();
  const auto done = std::exchange(done_, nullptr);
  if (!done) return;
  const double seconds = static_cast<double>(taken_) / samplesPerSecond;
  loop_.post([done, outcome = Outcome{std::move(fault), seconds}] { done(outcome); });
}

}  // namespace studio
