#pragma once

#include <functional>
#include <memory>
#include <string>

#include "gst.h"
#include "janus_connection.h"

namespace engine {

// One WebRTC connection with the server: a plugin handle at Janus, a pipeline with a webrtcbin
// here, and the talk between the two. Lives on the engine's thread; media runs on GStreamer's.
class Peer : public std::enable_shared_from_this<Peer> {
 public:
  class Listener {
   public:
    // The handle exists: ask the plugin for what the peer is for.
    virtual void peerAttached() = 0;
    // What the plugin says unasked.
    virtual void peerEvent(const json& data) = 0;
    virtual void peerConnected() = 0;
    // Once; the peer is of no more use and should be dropped.
    virtual void peerFailed(const std::string& reason) = 0;
    // Media begins to arrive. On a thread of the pipeline's.
    virtual void peerPadAdded(GstPad*) {}

   protected:
    ~Listener() = default;
  };
  // The plugin's answer; an error has "error".
  using Reply = std::function<void(const json& data)>;

  Peer(std::shared_ptr<JanusConnection> janus, Listener& listener);
  // Ends the pipeline; on return none of its threads runs any more.
  ~Peer();
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  void open(const std::string& plugin);
  // Asks the plugin. An offer in its answer is answered with `accept`.
  void ask(const json& body, Reply reply = {});
  // Says how an offer of the plugin's is accepted: the body that goes with the answer.
  void acceptOffersWith(json body) { accept_ = std::move(body); }
  // Starts the pipeline, offers what is linked to the webrtcbin, and sends the offer with the body that
  // `body` makes of it.
  void offer(std::function<json(const std::string& sdp)> body, Reply reply = {});

  GstElement* pipeline() const { return pipeline_.get(); }
  GstElement* webrtc() const { return webrtc_; }

 private:
  void negotiated(const json& answer);
  void answer(const std::string& offer);
  void makeOffer();
  void sendDescription(const char* type, const std::string& sdp, const json& body, Reply reply);
  JanusConnection::Reply answered(Reply reply);
  void connectSignals();
  void candidate(unsigned line, const std::string& text);
  void stateChanged(int state);
  void busMessage(GstMessage* message);
  void fail(const std::string& reason);
  void post(std::function<void(Peer&)> task);

  const std::shared_ptr<JanusConnection> janus_;
  Listener& listener_;
  Gst<GstElement> pipeline_;
  GstElement* webrtc_;  // the pipeline's
  GSource* busWatch_ = nullptr;
  JanusConnection::Handle handle_ = 0;
  json accept_;
  std::function<json(const std::string&)> offerBody_;
  Reply offerReply_;
  // Candidates are of use to the server only once it has the description.
  bool described_ = false;
  std::vector<json> candidates_;
  bool connected_ = false;
  bool failed_ = false;
  Timer deadline_;
};

}  // namespace engine
