#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "callback_scope.h"
#include "peer.h"
#include "stream.h"

namespace engine {
class Subscription;
}

// Never freed: the program may hold one for as long as it runs.
struct otc_subscriber {
  otc_subscriber(const otc_stream& of, const otc_subscriber_callbacks& call) : stream(of), callbacks(call) {}

  // Calls one of the callbacks with the subscriber, its user data and the arguments. Callbacks of
  // one subscriber come one at a time, from whichever of its threads.
  template <typename... Parameters, typename... Arguments>
  void call(void (*callback)(otc_subscriber*, void*, Parameters...), Arguments... arguments) {
    const std::lock_guard lock(one_at_a_time);
    const engine::CallbackScope scope;
    callback(this, callbacks.user_data, arguments...);
  }

  const otc_stream stream;
  const otc_subscriber_callbacks callbacks;
  std::mutex one_at_a_time;
  // Frames and sound end with the call that unsubscribes, though the connection takes longer to end.
  std::atomic<bool> subscribed{false};
  std::atomic<bool> video{true};
  std::atomic<bool> audio{true};
  std::atomic<unsigned> pictures{0};             // that have come so far
  engine::Subscription* subscription = nullptr;  // of the engine's thread
};

namespace engine {

// Takes the subscriber's switches to its subscription, if it has one. Any thread.
void apply_switches(otc_subscriber& subscriber);

// A stream as it is received for a subscriber: a media connection of its own, from subscribe to
// unsubscribe. One that breaks is made again. Lives on the engine's thread; frames and sound come
// on GStreamer's.
class Subscription final : private Peer::Listener {
 public:
  Subscription(std::shared_ptr<JanusConnection> janus, otc_subscriber& subscriber, std::string room,
               std::string token);
  // On return none of the subscriber's callbacks runs.
  ~Subscription();
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  // Takes what the subscriber's switches say to the server.
  void apply_switches();
  // Whether the guest sends any, as the room says.
  void expect_pictures(bool expected) { pictures_expected_ = expected; }

 private:
  void peer_attached() override;
  void peer_event(const json& data) override;
  void peer_connected() override;
  void peer_failed(const std::string& reason) override;
  void peer_pad_added(GstPad* pad) override;

  void open();
  void streams_listed(const json& data);
  void ask_for_key_frame();
  void look_after_pictures();
  void switch_stream(const std::string& mid, bool on, bool& current);

  const std::shared_ptr<JanusConnection> janus_;
  otc_subscriber& subscriber_;
  const std::string room_;
  const std::string token_;
  std::shared_ptr<Peer> peer_;
  // The server's names of the two media, empty until it has told them, and whether it sends them.
  std::string video_mid_;
  std::string audio_mid_;
  bool video_sent_ = true;
  bool audio_sent_ = true;
  bool was_connected_ = false;
  int failures_ = 0;
  bool pictures_expected_ = true;
  unsigned pictures_before_ = 0;
  int checks_without_picture_ = 0;
  Timer retry_;
  Timer picture_check_;
};

}  // namespace engine
