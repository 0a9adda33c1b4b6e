#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "access.h"
#include "callback_scope.h"
#include "peer.h"
#include "retry.h"
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
    const std::lock_guard lock(oneAtATime);
    const engine::CallbackScope scope;
    callback(this, callbacks.user_data, arguments...);
  }

  const otc_stream stream;
  const otc_subscriber_callbacks callbacks;
  std::mutex oneAtATime;
  // Frames and sound end with the call that unsubscribes, though the connection takes longer to end.
  std::atomic<bool> subscribed{false};
  std::atomic<bool> video{true};
  std::atomic<bool> audio{true};
  std::atomic<unsigned> pictures{0};             // that have come so far
  engine::Subscription* subscription = nullptr;  // of the engine's thread
};

namespace engine {

// Takes the subscriber's switches to its subscription, if it has one. Any thread.
void applySwitches(otc_subscriber& subscriber);

// A stream as it is received for a subscriber: a media connection of its own, from subscribe to
// unsubscribe. One that breaks is made again, however often. Lives on the engine's thread; frames and sound
// come on GStreamer's.
class Subscription final : private Peer::Listener {
 public:
  Subscription(std::shared_ptr<JanusConnection> janus, otc_subscriber& subscriber, std::string room,
               Access access);
  // On return none of the subscriber's callbacks runs.
  ~Subscription();
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  // Takes what the subscriber's switches say to the server.
  void applySwitches();
  // The server is reached again: what failed meanwhile is made again at once.
  void networkIsBack();
  // Whether the guest sends any, as the room says.
  void expectPictures(bool expected) { picturesExpected_ = expected; }

 private:
  void peerAttached() override;
  void peerEvent(const json& data) override;
  void peerConnected() override;
  void peerFailed(const std::string& reason) override;
  void peerPadAdded(GstPad* pad) override;

  void open();
  void streamsListed(const json& data);
  void askForKeyFrame();
  void lookAfterPictures();
  void switchStream(const std::string& mid, bool on, bool& current);

  const std::shared_ptr<JanusConnection> janus_;
  otc_subscriber& subscriber_;
  const std::string room_;
  const Access access_;
  std::shared_ptr<Peer> peer_;
  // The server's names of the two media, empty until it has told them, and whether it sends them.
  std::string videoMid_;
  std::string audioMid_;
  bool videoSent_ = true;
  bool audioSent_ = true;
  bool connected_ = false;
  bool wasConnected_ = false;
  bool picturesExpected_ = true;
  unsigned picturesBefore_ = 0;
  int checksWithoutPicture_ = 0;
  int checksBeforeFailure_;
  Retry retry_;
  Timer pictureCheck_;
};

}  // namespace engine
