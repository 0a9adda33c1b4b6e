#include "program.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <numbers>

namespace {

Program& program(void* user_data) {
  return *static_cast<Program*>(user_data);
}

void event(void* user_data, const std::string& text) {
  program(user_data).note([&] { program(user_data).events.push_back(text); });
}

void hook(Program& p, std::function<void()> Program::*which) {
  std::function<void()> call;
  p.note([&] { call = p.*which; });
  if (call) call();
}

// A subscriber's user data.
struct Watcher {
  Program& program;
  std::string id;
  Received& received() const { return program.received[id]; }
};

template <typename Change>
void change(void* user_data, Change&& write) {
  const auto& watcher = *static_cast<Watcher*>(user_data);
  watcher.program.note([&] {
    if (watcher.program.session() == nullptr) ++watcher.program.calls_after_delete;
    write(watcher.received());
  });
}

void on_render_frame(otc_subscriber*, void* user_data, const otc_video_frame* frame) {
  change(user_data, [&](Received& r) {
    ++r.frames;
    r.width = otc_video_frame_get_width(frame);
    r.height = otc_video_frame_get_height(frame);
    const auto middle = [frame](int plane) -> int {
      const int x = otc_video_frame_get_plane_width(frame, plane) / 2;
      const int y = otc_video_frame_get_plane_height(frame, plane) / 2;
      return otc_video_frame_get_plane_binary_data(
          frame, plane)[y * otc_video_frame_get_plane_stride(frame, plane) + x];
    };
    r.y = middle(0);
    r.u = middle(1);
    r.v = middle(2);
  });
  hook(static_cast<Watcher*>(user_data)->program, &Program::on_frame);
}

void on_audio_data(otc_subscriber*, void* user_data, const otc_audio_data* audio) {
  change(user_data, [&](Received& r) {
    ++r.sounds;
    auto* samples = static_cast<std::int16_t*>(audio->sample_buffer);
    for (std::size_t i = 0; i < audio->number_of_samples; ++i) {
      r.left.push_back(samples[2 * i]);
      samples[2 * i] = 0;  // the buffer may be written to
    }
    if (r.left.size() > 24000) r.left.erase(r.left.begin(), r.left.end() - 24000);
  });
}

otc_subscriber_callbacks subscriber_callbacks(Watcher* watcher) {
  otc_subscriber_callbacks c = {};
  c.on_connected = [](otc_subscriber*, void* data, const otc_stream*) {
    change(data, [](Received& r) { ++r.connected; });
  };
  c.on_disconnected = [](otc_subscriber*, void* data) {
    change(data, [](Received& r) { ++r.disconnected; });
  };
  c.on_reconnected = [](otc_subscriber*, void* data) { change(data, [](Received& r) { ++r.reconnected; }); };
  c.on_render_frame = on_render_frame;
  c.on_caption_text = [](otc_subscriber*, void*, const char*) {};
  c.on_event_5 = c.on_event_6 = c.on_event_7 = c.on_event_8 = c.on_event_9 = c.on_event_10 = c.on_event_12 =
      c.on_event_13 = c.on_event_14 = c.on_event_15 = [](otc_subscriber*, void*) {};
  c.on_error = [](otc_subscriber*, void*, const char*, int) {};
  c.on_audio_data = on_audio_data;
  c.user_data = watcher;
  return c;
}

void on_stream_received(otc_session*, void* user_data, const otc_stream* stream) {
  Program& p = program(user_data);
  Stream told = {otc_stream_get_id(stream), otc_stream_get_name(stream), otc_stream_get_video_type(stream),
                 otc_stream_get_video_width(stream), otc_stream_get_video_height(stream)};
  // As the program that this stands for, it never frees a watcher nor a subscriber.
  const otc_subscriber_callbacks callbacks = subscriber_callbacks(new Watcher{p, told.id});
  otc_subscriber* subscriber = otc_subscriber_new(stream, &callbacks);
  p.note([&] {
    p.received[told.id].subscriber = subscriber;
    p.events.push_back("stream received " + told.name);
    p.streams[told.name] = told;
  });
  hook(p, &Program::on_stream);
}

otc_session_callbacks session_callbacks(Program* self) {
  otc_session_callbacks c = {};
  c.on_connected = [](otc_session*, void* data) { event(data, "connected"); };
  c.on_disconnected = [](otc_session*, void* data) { event(data, "disconnected"); };
  c.on_connection_created = [](otc_session*, void* data, const otc_connection*) {
    event(data, "connection created");
  };
  c.on_connection_dropped = [](otc_session*, void* data, const otc_connection*) {
    event(data, "connection dropped");
  };
  c.on_stream_received = on_stream_received;
  c.on_stream_dropped = [](otc_session*, void* data, const otc_stream* stream) {
    event(data, std::string("stream dropped ") + otc_stream_get_name(stream));
  };
  c.on_stream_has_audio_changed = [](otc_session*, void* data, const otc_stream*, otc_bool on) {
    event(data, on ? "audio on" : "audio off");
  };
  c.on_stream_has_video_changed = [](otc_session*, void* data, const otc_stream*, otc_bool on) {
    event(data, on ? "video on" : "video off");
  };
  c.on_stream_has_captions_changed = [](otc_session*, void*, const otc_stream*, otc_bool) {};
  c.on_stream_event_10 = c.on_stream_event_11 = c.on_event_15 = c.on_event_16 =
      c.on_mute_forced = [](otc_session*, void*) {};
  c.on_signal_received = [](otc_session*, void* data, const char* type, const char* text,
                            const otc_connection*) {
    program(data).note([&] { program(data).signals.emplace_back(type, text); });
  };
  c.on_reconnection_started = [](otc_session*, void* data) { event(data, "reconnection started"); };
  c.on_reconnected = [](otc_session*, void* data) { event(data, "reconnected"); };
  c.on_error = [](otc_session*, void* data, const char* text, int code) {
    program(data).note([&] { program(data).error_text = text; });
    event(data, "error " + std::to_string(code));
  };
  c.user_data = self;
  return c;
}

}  // namespace

Program::Program() {
  static const otc_status started = [] {
    otc_log_enable(OTC_LOG_LEVEL_ALL);
    otc_log_set_logger_callback([](const char* line) { std::fprintf(stderr, "%s\n", line); });
    return otc_init(nullptr);
  }();
  if (started != OTC_SUCCESS) std::abort();
}

Program::~Program() {
  disconnect();
}

void Program::connect(const std::string& room, const std::string& token) {
  const otc_session_callbacks callbacks = session_callbacks(this);
  otc_session* made = otc_session_new("00000000", room.c_str(), &callbacks);
  note([&] { session_ = made; });
  otc_session_connect(made, token.c_str());
}

void Program::disconnect() {
  if (session_ == nullptr) return;
  otc_session_delete(session_);
  note([&] { session_ = nullptr; });
}

bool Program::wait(const std::function<bool(Program&)>& so) {
  constexpr std::chrono::minutes deadline(3);
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, deadline, [&] { return so(*this); });
}

int Program::count(const std::string& event) const {
  return static_cast<int>(std::count(events.begin(), events.end(), event));
}

double tone_of(const std::vector<std::int16_t>& samples) {
  double best = 0;
  double strongest = 0;
  for (int step = 5; step < 400; ++step) {
    const double frequency = 10 * step;
    std::complex<double> sum = 0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
      sum += static_cast<double>(samples[i]) *
             std::polar(1.0, -2 * std::numbers::pi * frequency * static_cast<double>(i) / 48000);
    }
    if (std::abs(sum) > strongest) {
      strongest = std::abs(sum);
      best = frequency;
    }
  }
  return best;
}
