#include "app/show.h"

#include <fmt/format.h>

#include <cstring>
#include <filesystem>
#include <utility>

namespace studio {

namespace {

constexpr std::size_t mostSurfaces = 8;
constexpr std::chrono::milliseconds watchInterval(200);
constexpr std::chrono::seconds stallTime(1);

// The failure of a pipeline that would not start.
std::string errorOn(GstElement* pipeline) {
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
  gst_object_unref(bus);
  if (!message) return "the source does not start";
  GError* error = nullptr;
  gst_message_parse_error(message, &error, nullptr);
  std::string text = error->message;
  g_error_free(error);
  gst_message_unref(message);
  return text;
}

GstElement* uriSource(const char* uri) {
  GstElement* source = gst_element_factory_make("uridecodebin", nullptr);
  if (source) g_object_set(source, "uri", uri, nullptr);
  return source;
}

GstElement* inBin(GstElement* element) {
  if (!element) return nullptr;
  GstElement* bin = gst_bin_new(nullptr);
  gst_bin_add(GST_BIN(bin), element);
  return bin;
}

// A bin with open ends. Null, with the reason in `fault`, for what is no source.
GstElement* makeSource(const std::string& source, std::string& fault) {
  std::error_code ignored;
  GError* error = nullptr;
  GstElement* made = nullptr;
  if (gst_uri_is_valid(source.c_str())) {
    made = inBin(uriSource(source.c_str()));
  } else if (std::filesystem::is_character_file(source, ignored)) {
    GstElement* device = gst_element_factory_make("v4l2src", nullptr);
    if (device) g_object_set(device, "device", source.c_str(), nullptr);
    made = inBin(device);
  } else if (std::filesystem::is_regular_file(source, ignored)) {
    char* uri = gst_filename_to_uri(source.c_str(), &error);
    if (uri) made = inBin(uriSource(uri));
    g_free(uri);
  } else if (source.find_first_of(" !") == std::string::npos &&
             source.find_first_of("/.") != std::string::npos) {
    fault = "there is no such file";
    return nullptr;
  } else {
    made = gst_parse_bin_from_description_full(source.c_str(), FALSE, nullptr, GST_PARSE_FLAG_FATAL_ERRORS,
                                               &error);
  }
  if (error) {
    fault =
        fmt::format("this is no file, no URI and no description that GStreamer knows: {}", error->message);
    g_error_free(error);
  } else if (!made) {
    fault = "a part of GStreamer is missing; install gstreamer1.0-plugins-base and gstreamer1.0-plugins-good";
  }
  return made;
}

bool isRaw(GstPad* pad, const char* kind) {
  GstCaps* caps = gst_pad_get_current_caps(pad);
  if (!caps) caps = gst_pad_query_caps(pad, nullptr);
  const bool raw = !gst_caps_is_any(caps) && !gst_caps_is_empty(caps) &&
                   std::strcmp(gst_structure_get_name(gst_caps_get_structure(caps, 0)), kind) == 0;
  gst_caps_unref(caps);
  return raw;
}

}  // namespace

Show::Show(Settings settings, Sink& sink, std::function<void(std::string state, std::string text)> news)
    : settings_(settings), sink_(sink), news_(std::move(news)), pool_(mostSurfaces) {}

Show::~Show() {
  end();
}

std::string Show::testSource() const {
  return fmt::format(
      "videotestsrc is-live=true pattern=smpte horizontal-speed=2 ! "
      "video/x-raw,format=I420,width={},height={},framerate={}/1 ! "
      "clockoverlay time-format=%H:%M:%S font-desc=\"Sans 40\" halignment=center valignment=center "
      "shaded-background=true ! video/x-raw ! identity  "
      "audiotestsrc is-live=true freq=440 volume=0.1 samplesperbuffer=480 ! "
      "audio/x-raw,rate=48000,channels=2 ! "
      "identity",
      settings_.width, settings_.height, settings_.framesPerSecond);
}

std::string Show::play(const std::string& source) {
  GstElement* made = nullptr;
  if (source != "off") {
    std::string fault;
    made = makeSource(source == "test" ? testSource() : source, fault);
    if (!made) return fault;
  }
  end();
  source_ = source;
  if (!made) return "";

  pipeline_ = gst_pipeline_new("show");
  gst_bin_add(GST_BIN(pipeline_), made);
  GstBus* bus = gst_element_get_bus(pipeline_);
  busWatch_ = gst_bus_add_watch(bus, onMessage, this);
  gst_object_unref(bus);

  // Ends of a source may be open from the start, or come while it runs.
  GstIterator* elements = gst_bin_iterate_elements(GST_BIN(made));
  gst_iterator_foreach(
      elements,
      [](const GValue* element, gpointer self) {
        g_signal_connect(g_value_get_object(element), "pad-added", G_CALLBACK(onSourcePad), self);
      },
      this);
  gst_iterator_free(elements);
  while (GstPad* open = gst_bin_find_unlinked_pad(GST_BIN(made), GST_PAD_SRC)) {
    decode(open);
    gst_object_unref(open);
  }

  {
    const std::lock_guard lock(pictures_);
    lastTime_ = std::chrono::steady_clock::now();
  }
  if (gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    std::string fault = errorOn(pipeline_);
    end();
    return fault;
  }
  stallWatch_.every(watchInterval, [this] { watch(); });
  return "";
}

void Show::onSourcePad(GstElement*, GstPad* pad, gpointer self) {
  if (GST_PAD_IS_SRC(pad) && !gst_pad_is_linked(pad)) static_cast<Show*>(self)->decode(pad);
}

void Show::onDecodedPad(GstElement*, GstPad* pad, gpointer self) {
  static_cast<Show*>(self)->connect(pad);
}

// Leads an open end inside the source out of its bin and into a decoder, which lets raw media pass.
void Show::decode(GstPad* pad) {
  GstElement* element = gst_pad_get_parent_element(pad);
  GstElement* bin = GST_ELEMENT(gst_object_get_parent(GST_OBJECT(element)));
  GstPad* outside = gst_ghost_pad_new(nullptr, pad);
  gst_pad_set_active(outside, TRUE);
  gst_element_add_pad(bin, outside);

  GstElement* decoder = gst_element_factory_make("decodebin", nullptr);
  g_signal_connect(decoder, "pad-added", G_CALLBACK(onDecodedPad), this);
  gst_bin_add(GST_BIN(pipeline_), decoder);
  gst_element_sync_state_with_parent(decoder);
  GstPad* sink = gst_element_get_static_pad(decoder, "sink");
  gst_pad_link(outside, sink);

  gst_object_unref(sink);
  gst_object_unref(bin);
  gst_object_unref(element);
}

void Show::connect(GstPad* pad) {
  if (isRaw(pad, "video/x-raw") && !hasPictures_.exchange(true)) {
    append(pad,
           fmt::format("queue ! videorate skip-to-first=true ! video/x-raw,framerate={}/1 ! "
                       "appsink name=sink caps=video/x-raw max-buffers=2 drop=true",
                       settings_.framesPerSecond),
           onPicture);
  } else if (isRaw(pad, "audio/x-raw") && !hasSound_.exchange(true)) {
    append(pad,
           "queue ! audioconvert ! audioresample ! "
           "audio/x-raw,format=S16LE,rate=48000,channels=2,layout=interleaved ! "
           "audiobuffersplit output-buffer-duration=1/50 ! appsink name=sink",
           onSound);
  } else {
    append(pad, "fakesink name=sink", nullptr);
  }
}

void Show::append(GstPad* pad, const std::string& branch, GstFlowReturn (*onSample)(GstAppSink*, gpointer)) {
  GstElement* bin = gst_parse_bin_from_description(branch.c_str(), TRUE, nullptr);
  if (onSample) {
    GstElement* sink = gst_bin_get_by_name(GST_BIN(bin), "sink");
    GstAppSinkCallbacks callbacks{};
    callbacks.new_sample = onSample;
    gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, this, nullptr);
    gst_object_unref(sink);
  }
  gst_bin_add(GST_BIN(pipeline_), bin);
  gst_element_sync_state_with_parent(bin);
  GstPad* entry = gst_element_get_static_pad(bin, "sink");
  if (GST_PAD_LINK_FAILED(gst_pad_link(pad, entry))) {
    loop_.post([news = news_] {
      news("failed", "the source is in a form that cannot be read; decode or convert it");
    });
  }
  gst_object_unref(entry);
}

GstFlowReturn Show::onPicture(GstAppSink* sink, gpointer self) {
  auto& show = *static_cast<Show*>(self);
  GstSample* sample = gst_app_sink_pull_sample(sink);
  if (!sample) return GST_FLOW_EOS;
  const std::lock_guard lock(show.pictures_);
  show.last_.reset(sample);
  show.lastTime_ = std::chrono::steady_clock::now();
  show.showPicture();
  return GST_FLOW_OK;
}

// With `pictures_` held. A picture that finds no free surface, or is not taken, is left out.
void Show::showPicture() {
  if (!last_ || !sink_.showWanted()) return;
  IOSurfaceRef surface =
      pool_.take(static_cast<std::size_t>(settings_.width), static_cast<std::size_t>(settings_.height));
  GstVideoInfo info;
  if (!surface || !gst_video_info_from_caps(&info, gst_sample_get_caps(last_.get()))) return;
  if (converter_.convert(gst_sample_get_buffer(last_.get()), info, surface)) sink_.showPicture(surface);
}

GstFlowReturn Show::onSound(GstAppSink* sink, gpointer self) {
  auto& show = *static_cast<Show*>(self);
  GstSample* sample = gst_app_sink_pull_sample(sink);
  if (!sample) return GST_FLOW_EOS;
  GstMapInfo bytes;
  if (show.sink_.showWanted() && gst_buffer_map(gst_sample_get_buffer(sample), &bytes, GST_MAP_READ)) {
    // GStreamer's buffers are aligned far beyond this.
    show.sink_.showSound(
        {reinterpret_cast<const std::int16_t*>(bytes.data), bytes.size / sizeof(std::int16_t)});
    gst_buffer_unmap(gst_sample_get_buffer(sample), &bytes);
  }
  gst_sample_unref(sample);
  return GST_FLOW_OK;
}

gboolean Show::onMessage(GstBus*, GstMessage* message, gpointer self) {
  auto& show = *static_cast<Show*>(self);
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_LATENCY) gst_bin_recalculate_latency(GST_BIN(show.pipeline_));
  if (show.over_) return G_SOURCE_CONTINUE;
  // A branch that came while the pipeline was starting may have been left out of that.
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ASYNC_DONE) {
    gst_element_set_state(show.pipeline_, GST_STATE_PLAYING);
  }
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
    show.over_ = true;
    show.news_("ended", "the source has ended; its last picture stays");
  } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    show.over_ = true;
    GError* error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    show.news_("failed", error->message);
    g_error_free(error);
  }
  return G_SOURCE_CONTINUE;
}

// Keeps the last picture before the guests' eyes, also of those who come later, while the source has none.
void Show::watch() {
  std::string state;
  {
    const std::lock_guard lock(pictures_);
    const bool late = std::chrono::steady_clock::now() - lastTime_ > stallTime;
    if (late) showPicture();
    if (late != stalled_ && hasPictures_ && !over_) state = late ? "stalled" : "goes on";
    stalled_ = late;
  }
  if (state == "stalled") news_(state, "the source gives no picture; the last one stays");
  if (state == "goes on") news_(state, "the source gives pictures again");
}

void Show::end() {
  stallWatch_.stop();
  if (!pipeline_) return;
  g_source_remove(std::exchange(busWatch_, 0));
  gst_element_set_state(pipeline_, GST_STATE_NULL);
  gst_object_unref(std::exchange(pipeline_, nullptr));
  hasPictures_ = false;
  hasSound_ = false;
  stalled_ = false;
  over_ = false;
  source_ = "off";
  const std::lock_guard lock(pictures_);
  last_.reset();
}

}  // namespace studio
