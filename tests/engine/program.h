#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "opentok.h"

// What a subscriber was last given.
struct Received {
  otc_subscriber* subscriber = nullptr;
  int connected = 0;
  int disconnected = 0;
  int reconnected = 0;
  int frames = 0;
  int width = 0;
  int height = 0;
  int y = 0;  // of the middle of the picture
  int u = 0;
  int v = 0;
  int sounds = 0;
  std::vector<std::int16_t> left;  // the last half second
};

struct Stream {
  std::string id;
  std::string name;
  int type = 0;
  int width = 0;
  int height = 0;
};

// A program that uses the SDK: it connects one session at a time, makes a subscriber of every stream, and
// keeps what it is told.
class Program {
 public:
  Program();
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void connect(const std::string& room, const std::string& token);
  void disconnect();
  otc_session* session() const { return session_; }

  // Waits until it is so; false after three minutes. `so` runs with everything held still.
  bool wait(const std::function<bool(Program&)>& so);
  bool wait_event(const std::string& event) {
    return wait([&](Program& p) { return p.count(event) > 0; });
  }
  int count(const std::string& event) const;

  // Written by callbacks, under the lock of `wait`.
  std::vector<std::string> events;
  std::map<std::string, Stream> streams;     // by name
  std::map<std::string, Received> received;  // by stream id
  std::vector<std::pair<std::string, std::string>> signals;
  std::string error_text;
  int calls_after_delete = 0;

  // Called in the callback, without the lock.
  std::function<void()> on_frame;
  std::function<void()> on_stream;

  // Notes what a callback tells.
  template <typename Note>
  void note(Note&& write) {
    const std::lock_guard lock(mutex_);
    write();
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  otc_session* session_ = nullptr;
};

// The frequency that is strongest in half a second of 48 kHz samples.
double tone_of(const std::vector<std::int16_t>& samples);
