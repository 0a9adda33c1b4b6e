#include "app/host_audio.h"

#include <fmt/format.h>

#include <chrono>
#include <filesystem>

namespace studio {

namespace {

constexpr char format[] = "audio/x-raw,format=S16LE,layout=interleaved,rate=48000,channels=2";
constexpr std::chrono::seconds endLimit(3);

// Starts the pipeline; answers why it does not start, or nothing.
std::string start(GstElement* pipeline) {
  if (gst_element_set_state(pipeline, GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE) return {};
  g_autoptr(GstBus) bus = gst_element_get_bus(pipeline);
  g_autoptr(GstMessage) message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
  if (!message) return "it does not start";
  g_autoptr(GError) error = nullptr;
  gst_message_parse_error(message, &error, nullptr);
  return error->message;
}

// The pipeline of that description, or why there is none.
GstElement* parse(const std::string& description, std::string& fault) {
  g_autoptr(GError) error = nullptr;
  GstElement* pipeline =
      gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error);
  if (error) fault = fmt::format("this is no device that GStreamer knows: {}", error->message);
  return error ? nullptr : pipeline;
}

void end(GstElement*& pipeline) {
  if (!pipeline) return;
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);
  pipeline = nullptr;
}

// As a value in a description.
std::string quoted(const std::string& file) {
  g_autofree char* escaped = g_strescape(file.c_str(), nullptr);
  return fmt::format("\"{}\"", escaped);
}

}  // namespace

std::string Microphone::open(const std::string& source) {
  close();
  if (source == "off") return {};
  std::error_code ignored;
  std::string from = source == "auto" ? "autoaudiosrc" : source;
  if (std::filesystem::is_regular_file(source, ignored)) {
    from = fmt::format("filesrc location={} ! decodebin", quoted(source));
  }
  std::string fault;
  pipeline_ =
      parse(fmt::format("{} ! audioconvert ! audioresample ! audiobuffersplit output-buffer-duration=1/100 ! "
                        "{} ! appsink name=sink sync=true max-buffers=50 drop=true",
                        from, format),
            fault);
  if (!pipeline_) return fault;
  GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline_), "sink");
  GstAppSinkCallbacks callbacks{};
  callbacks.new_sample = onSound;
  gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, this, nullptr);
  gst_object_unref(sink);
  fault = start(pipeline_);
  if (!fault.empty()) close();
  return fault;
}

void Microphone::close() {
  end(pipeline_);
}

GstFlowReturn Microphone::onSound(GstAppSink* sink, gpointer self) {
  GstSample* sample = gst_app_sink_pull_sample(sink);
  if (!sample) return GST_FLOW_EOS;
  GstMapInfo map;
  GstBuffer* buffer = gst_sample_get_buffer(sample);
  if (gst_buffer_map(buffer, &map, GST_MAP_READ)) {
    static_cast<Microphone*>(self)->heard_(
        {reinterpret_cast<const std::int16_t*>(map.data), map.size / sizeof(std::int16_t)});
    gst_buffer_unmap(buffer, &map);
  }
  gst_sample_unref(sample);
  return GST_FLOW_OK;
}

std::string Monitor::open(const std::string& sink) {
  close();
  if (sink == "off") return {};
  std::string to = sink == "auto" ? "autoaudiosink" : sink;
  if (sink.ends_with(".wav")) to = fmt::format("wavenc ! filesink location={}", quoted(sink));
  if (sink.ends_with(".flac")) to = fmt::format("flacenc ! filesink location={}", quoted(sink));
  std::string fault;
  // What is not played in time is left out: the host hears what is now.
  pipeline_ =
      parse(fmt::format("appsrc name=source is-live=true do-timestamp=true format=time max-time=200000000 "
                        "leaky-type=downstream caps={} ! queue ! audioconvert ! audioresample ! {}",
                        format, to),
            fault);
  if (!pipeline_) return fault;
  source_ = gst_bin_get_by_name(GST_BIN(pipeline_), "source");
  fault = start(pipeline_);
  if (!fault.empty()) close();
  return fault;
}

void Monitor::play(std::span<const std::int16_t> samples) {
  if (!source_) return;
  GstBuffer* buffer = gst_buffer_new_memdup(samples.data(), samples.size_bytes());
  gst_app_src_push_buffer(GST_APP_SRC(source_), buffer);
}

// A file is finished before it is let go.
void Monitor::close() {
  if (source_) {
    gst_app_src_end_of_stream(GST_APP_SRC(source_));
    g_autoptr(GstBus) bus = gst_element_get_bus(pipeline_);
    g_autoptr(GstMessage) message =
        gst_bus_timed_pop_filtered(bus, std::chrono::nanoseconds(endLimit).count(),
                                   static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    gst_object_unref(source_);
    source_ = nullptr;
  }
  end(pipeline_);
}

}  // namespace studio
