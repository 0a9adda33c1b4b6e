#pragma once

#include <deque>
#include <memory>
#include <string>

#include "peer.h"

typedef struct _GstWebRTCDataChannel GstWebRTCDataChannel;

namespace engine {

// The session's signals: the room of the same id in the TextRoom, over a data channel of its own.
// A channel that breaks is opened again. Lives on the engine's thread.
class Signals final : private Peer::Listener {
 public:
  class Listener {
   public:
    // `from` is the id under which the sender is known in the room.
    virtual void signal_received(const std::string& type, const std::string& data,
                                 const std::string& from) = 0;

   protected:
    ~Listener() = default;
  };

  Signals(std::shared_ptr<JanusConnection> janus, Listener& listener, std::string room);
  ~Signals();

  void open(const std::string& token, const std::string& own_id);
  void close();
  // Takes a message of `encode`. What is sent before the channel is open waits and goes out in order.
  void send(const std::string& message);

  // The largest data-channel message that every participant takes.
  static constexpr std::size_t largest_message = 60000;
  // The message for a signal; empty where it would be too large. Any thread.
  static std::string encode(const std::string& room, const std::string& type, const std::string& data);

 private:
  void peer_attached() override;
  void peer_event(const json&) override {}
  void peer_connected() override {}
  void peer_failed(const std::string& reason) override;

  void open_channel();
  void make_channel();
  void channel_opened();
  void channel_message(const std::string& text);
  void joined();
  void write(const std::string& text);

  const std::shared_ptr<JanusConnection> janus_;
  Listener& listener_;
  const std::string room_;
  std::string token_;
  std::string own_id_;
  std::shared_ptr<Peer> peer_;
  GstWebRTCDataChannel* channel_ = nullptr;
  bool joined_ = false;
  bool refused_ = false;
  std::deque<std::string> waiting_;
  Timer retry_;
  // What the channel's thread posts here is dropped when this has gone or begun anew.
  std::shared_ptr<int> life_;
};

}  // namespace engine
