#pragma once

#include <deque>
#include <memory>
#include <string>

#include "access.h"
#include "peer.h"
#include "retry.h"

typedef struct _GstWebRTCDataChannel GstWebRTCDataChannel;

namespace engine {

// The session's signals: the room of the same id in the TextRoom, over a data channel of its own.
// A channel that breaks is opened again. Lives on the engine's thread.
class Signals final : private Peer::Listener {
 public:
  class Listener {
   public:
    // `from` is the id under which the sender is known in the room.
    virtual void signalReceived(const std::string& type, const std::string& data,
                                const std::string& from) = 0;
    // From now on no signal is missed; also when the channel was opened again.
    virtual void signalsOpened() = 0;

   protected:
    ~Listener() = default;
  };

  Signals(std::shared_ptr<JanusConnection> janus, Listener& listener, std::string room);
  ~Signals();

  void open(const Access& access, const std::string& ownId);
  void close();
  // The server is reached again: a channel that failed meanwhile is opened again at once.
  void networkIsBack();
  // Takes a message of `encode`. What is sent before the channel is open waits and goes out in order.
  void send(const std::string& message);

  // The largest data-channel message that every participant takes.
  static constexpr std::size_t largestMessage = 60000;
  // The message for a signal; empty where it would be too large. Any thread.
  static std::string encode(const std::string& room, const std::string& type, const std::string& data);

 private:
  void peerAttached() override;
  void peerEvent(const json&) override {}
  void peerConnected() override {}
  void peerFailed(const std::string& reason) override;

  void openChannel();
  void makeChannel();
  void channelMessage(const std::string& text);
  void join();
  void joined();
  void write(const std::string& text);

  const std::shared_ptr<JanusConnection> janus_;
  Listener& listener_;
  const std::string room_;
  Access access_;
  std::string ownId_;
  std::shared_ptr<Peer> peer_;
  GstWebRTCDataChannel* channel_ = nullptr;
  bool joined_ = false;
  bool refused_ = false;
  std::deque<std::string> waiting_;
  Timer answerDeadline_;
  Retry retry_;
  // What the channel's thread posts here is dropped when this has gone or begun anew.
  std::shared_ptr<int> life_;
};

}  // namespace engine
