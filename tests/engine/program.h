#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "opentok.h"

// A stream as it was announced, and what its subscriber was last given.
struct Stream {
  int type = 0;
  int announcedWidth = 0;
  int announcedHeight = 0;
  otc_subscriber* subscriber = nullptr;
  int connected = 0;
  int disconnected = 0;
  int frames = 0;
  int width = 0;
  int height = 0;
  int sounds = 0;
};

// A program that uses the SDK: it connects one session at a time, makes a subscriber of every stream, and
// keeps what it is told.
class Program {
 public:
  Program() {
    static const otc_status started = [] {
      otc_log_enable(OTC_LOG_LEVEL_ALL);
      otc_log_set_logger_callback([](const char* line) { std::fprintf(stderr, "%s\n", line); });
      return otc_init(nullptr);
    }();
    if (started != OTC_SUCCESS) std::abort();
  }
  ~Program() { disconnect(); }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void connect(const std::string& room, const std::string& token) {
    const otc_session_callbacks callbacks = sessionCallbacks();
    otc_session* made = otc_session_new("00000000", room.c_str(), &callbacks);
    note([&] { session_ = made; });
    otc_session_connect(made, token.c_str());
  }
  void disconnect() {
    if (session_ == nullptr) return;
    otc_session_delete(session_);
    note([&] { session_ = nullptr; });
  }
  otc_session* session() const { return session_; }

  // Waits until it is so; false after three minutes. `so` runs with everything held still.
  bool wait(const std::function<bool()>& so) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::minutes(3), so);
  }
  bool waitEvent(const std::string& event, int times = 1) {
    return wait([&] { return count(event) >= times; });
  }
  std::ptrdiff_t count(const std::string& event) const { return std::ranges::count(events, event); }

  // Notes what a callback tells.
  template <typename Note>
  void note(Note&& write) {
    const std::lock_guard lock(mutex_);
    write();
    changed_.notify_all();
  }
  void noteEvent(const std::string& event) {
    note([&] { events.push_back(event); });
  }

  // Written by callbacks, under the lock of `wait`.
  std::vector<std::string> events;
  std::map<std::string, Stream> streams;  // by name
  std::vector<std::pair<std::string, std::string>> signals;
  std::string errorText;
  int callsAfterDelete = 0;

  // Called once, in the next such callback, without the lock.
  std::function<void()> onFrame;
  std::function<void()> onStream;

 private:
  // A subscriber's user data.
  struct Watcher {
    Program& program;
    std::string name;
  };

  static Program& program(void* data) { return *static_cast<Program*>(data); }

  template <typename Change>
  static void change(void* data, Change&& write) {
    const auto& watcher = *static_cast<Watcher*>(data);
    watcher.program.note([&] {
      if (watcher.program.session_ == nullptr) ++watcher.program.callsAfterDelete;
      write(watcher.program.streams[watcher.name]);
    });
  }

  void callOnce(std::function<void()>& hook) {
    std::function<void()> call;
    note([&] { call = std::exchange(hook, nullptr); });
    if (call) call();
  }

  otc_session_callbacks sessionCallbacks() {
    otc_session_callbacks c = {};
    c.on_connected = [](otc_session*, void* data) { program(data).noteEvent("connected"); };
    c.on_disconnected = [](otc_session*, void* data) { program(data).noteEvent("disconnected"); };
    c.on_connection_created = [](otc_session*, void*, const otc_connection*) {};
    c.on_connection_dropped = [](otc_session*, void* data, const otc_connection*) {
      program(data).noteEvent("connection dropped");
    };
    c.on_stream_received = [](otc_session*, void* data, const otc_stream* stream) {
      program(data).streamReceived(stream);
    };
    c.on_stream_dropped = [](otc_session*, void* data, const otc_stream* stream) {
      program(data).noteEvent(std::string("stream dropped ") + otc_stream_get_name(stream));
    };
    c.on_stream_has_audio_changed = [](otc_session*, void* data, const otc_stream*, otc_bool on) {
      program(data).noteEvent(on ? "audio on" : "audio off");
    };
    c.on_stream_has_video_changed = [](otc_session*, void* data, const otc_stream*, otc_bool on) {
      program(data).noteEvent(on ? "video on" : "video off");
    };
    c.on_signal_received = [](otc_session*, void* data, const char* type, const char* text,
                              const otc_connection*) {
      program(data).note([&] { program(data).signals.emplace_back(type, text); });
    };
    c.on_reconnection_started = [](otc_session*, void* data) {
      program(data).noteEvent("reconnection started");
    };
    c.on_reconnected = [](otc_session*, void* data) { program(data).noteEvent("reconnected"); };
    c.on_error = [](otc_session*, void* data, const char* text, int code) {
      program(data).note([&] { program(data).errorText = text; });
      program(data).noteEvent("error " + std::to_string(code));
    };
    c.user_data = this;
    return c;
  }

  void streamReceived(const otc_stream* stream) {
    const std::string name = otc_stream_get_name(stream);
    // As the program that this stands for, it never frees a watcher nor a subscriber.
    const otc_subscriber_callbacks callbacks = subscriberCallbacks(new Watcher{*this, name});
    otc_subscriber* subscriber = otc_subscriber_new(stream, &callbacks);
    note([&] {
      events.push_back("stream received " + name);
      streams[name] = {otc_stream_get_video_type(stream), otc_stream_get_video_width(stream),
                       otc_stream_get_video_height(stream), subscriber};
    });
    callOnce(onStream);
  }

  static otc_subscriber_callbacks subscriberCallbacks(Watcher* watcher) {
    otc_subscriber_callbacks c = {};
    c.on_connected = [](otc_subscriber*, void* data, const otc_stream*) {
      change(data, [](Stream& stream) { ++stream.connected; });
    };
    c.on_disconnected = [](otc_subscriber*, void* data) {
      change(data, [](Stream& stream) { ++stream.disconnected; });
    };
    c.on_reconnected = [](otc_subscriber*, void*) {};
    c.on_render_frame = [](otc_subscriber*, void* data, const otc_video_frame* frame) {
      change(data, [&](Stream& stream) {
        ++stream.frames;
        stream.width = otc_video_frame_get_width(frame);
        stream.height = otc_video_frame_get_height(frame);
      });
      Program& self = static_cast<Watcher*>(data)->program;
      self.callOnce(self.onFrame);
    };
    c.on_error = [](otc_subscriber*, void*, const char*, int) {};
    c.on_audio_data = [](otc_subscriber*, void* data, const otc_audio_data*) {
      change(data, [](Stream& stream) { ++stream.sounds; });
    };
    c.user_data = watcher;
    return c;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  otc_session* session_ = nullptr;
};
