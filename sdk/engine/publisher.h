#pragma once

#include <memory>
#include <string>

#include "access.h"
#include "callback_scope.h"
#include "capturer.h"
#include "peer.h"
#include "retry.h"
#include "stream.h"

namespace engine {
class Room;
}

struct otc_publisher_settings {
  std::string name;
  otc_video_capturer_callbacks capturer = {};
  bool hasCapturer = false;
  bool audio = true;
  bool video = true;
  bool stereo = false;
};

// Never freed: the program may hold one for as long as it runs.
struct otc_publisher {
  otc_publisher(const otc_publisher_callbacks& call, const otc_publisher_settings& as)
      : callbacks(call), settings(as), capturer(as.capturer) {}

  template <typename... Parameters, typename... Arguments>
  void call(void (*callback)(otc_publisher*, void*, Parameters...), Arguments... arguments) {
    const engine::CallbackScope scope;
    callback(this, callbacks.user_data, arguments...);
  }

  const otc_publisher_callbacks callbacks;
  const otc_publisher_settings settings;
  otc_video_capturer capturer;
};

namespace engine {

class Bitrate;

// A publisher's stream as it is sent: a participant of its own in the room, from publish to
// unpublish. A connection that breaks is made again, however often. Lives on the engine's thread.
class Publication final : private Peer::Listener {
 public:
  Publication(std::shared_ptr<JanusConnection> janus, otc_publisher& publisher, Room& us, std::string room,
              Access access);
  // On return no callback of the publisher's or its capturer's runs, and nothing of the program's
  // memory is in use.
  ~Publication();
  Publication(const Publication&) = delete;
  Publication& operator=(const Publication&) = delete;

  // The server is reached again: what failed meanwhile is made again at once.
  void networkIsBack();

 private:
  void peerAttached() override;
  void peerEvent(const json&) override {}
  void peerConnected() override;
  void peerFailed(const std::string& reason) override;

  void open();
  void closePeer();
  bool build();
  void prime();
  GstElement* add(const char* elements, const char* rtpCaps, GError** error);

  const std::shared_ptr<JanusConnection> janus_;
  otc_publisher& publisher_;
  Room& us_;
  const std::string room_;
  const Access access_;
  std::shared_ptr<Peer> peer_;
  Gst<GstElement> audio_;  // the pipeline's sources
  Gst<GstElement> video_;
  std::unique_ptr<Bitrate> bitrate_;
  otc_video_capturer_settings hint_ = {};
  otc_stream stream_;
  bool announced_ = false;
  Retry retry_;
};

}  // namespace engine
