#include "peer.h"

#include <gst/sdp/sdp.h>
#define GST_USE_UNSTABLE_API
#include <gst/webrtc/webrtc.h>
#include <malloc.h>

#include <utility>

#include "log.h"
#include "rtcp.h"

namespace engine {
namespace {

using namespace std::chrono_literals;

// From the first request to media that can flow.
constexpr auto connectTime = 15s;
// How long the jitter buffer waits for a packet that is missing, and how much it holds while the decoder is
// busy. What comes in order never waits.
constexpr unsigned jitterMilliseconds = 250;

using Description =
    std::unique_ptr<GstWebRTCSessionDescription, decltype(&gst_webrtc_session_description_free)>;

Description parse(GstWebRTCSDPType type, const std::string& text) {
  GstSDPMessage* message = nullptr;
  if (gst_sdp_message_new_from_text(text.c_str(), &message) != GST_SDP_OK) {
    return {nullptr, gst_webrtc_session_description_free};
  }
  return {gst_webrtc_session_description_new(type, message), gst_webrtc_session_description_free};
}

// Asks the webrtcbin for an offer or an answer, makes it the local description, and hands its
// text to `done`, on a thread of the webrtcbin's; an empty one if it could not be made.
void describe(GstElement* webrtc, const char* what, std::function<void(const std::string& sdp)> done) {
  struct Call {
    GstElement* webrtc;  // alive while it calls
    const char* what;
    std::function<void(const std::string&)> done;
  };
  GstPromise* promise = gst_promise_new_with_change_func(
      [](GstPromise* kept, gpointer data) {
        const auto* call = static_cast<Call*>(data);
        const GstStructure* reply =
            gst_promise_wait(kept) == GST_PROMISE_RESULT_REPLIED ? gst_promise_get_reply(kept) : nullptr;
        const char* field = g_str_equal(call->what, "create-offer") ? "offer" : "answer";
        GstWebRTCSessionDescription* made = nullptr;
        if (reply == nullptr ||
            gst_structure_get(reply, field, GST_TYPE_WEBRTC_SESSION_DESCRIPTION, &made, nullptr) == FALSE) {
          call->done({});
          return;
        }
        const Description description(made, gst_webrtc_session_description_free);
        g_signal_emit_by_name(call->webrtc, "set-local-description", made, nullptr);
        const Gst<gchar> text(gst_sdp_message_as_text(made->sdp));
        call->done(text.get());
      },
      new Call{webrtc, what, std::move(done)}, [](gpointer data) { delete static_cast<Call*>(data); });
  g_signal_emit_by_name(webrtc, what, nullptr, promise);
  gst_promise_unref(promise);
}

// The server is reached over UDP from the host's own addresses: no router is looked for with broadcasts, by a
// thread of its own, and no TCP ports are opened.
void findAddressesQuietly(GstElement* webrtc) {
  GObject* ice = nullptr;
  GObject* agent = nullptr;
  g_object_get(webrtc, "ice-agent", &ice, nullptr);
  g_object_get(ice, "agent", &agent, nullptr);
  g_object_set(agent, "upnp", FALSE, "ice-tcp", FALSE, nullptr);
  g_object_unref(agent);
  g_object_unref(ice);
}

// An offer without FIR: the server offers it and does not hear it, so that key frames are to be asked for
// with PLI.
std::string withoutFir(std::string sdp) {
  constexpr const char* fir = " ccm fir";
  for (std::size_t end = sdp.find(fir); end != std::string::npos; end = sdp.find(fir)) {
    const std::size_t begin = sdp.rfind('\n', end) + 1;
    sdp.erase(begin, sdp.find('\n', end) + 1 - begin);
  }
  return sdp;
}

void tune(GstBin*, GstBin*, GstElement* element, gpointer) {
  const GstElementFactory* factory = gst_element_get_factory(element);
  const char* kind = factory == nullptr ? "" : GST_OBJECT_NAME(factory);
  if (g_str_equal(kind, "rtpjitterbuffer")) {
    // A backlog longer than the buffer's latency is dropped and not played late. The first packet, which
    // begins a key frame, does not wait for others. Only what was seen to be missing is asked for again, not
    // also what could have come by now.
    g_object_set(element, "drop-on-latency", TRUE, "faststart-min-packets", 1U, "rtx-next-seqnum", FALSE,
                 nullptr);
  } else if (g_str_equal(kind, "clocksync")) {
    // All that is sent is live: to hold it back until its time on the clock only delays the sound, by a
    // block.
    g_object_set(element, "sync", FALSE, nullptr);
  } else if (g_str_equal(kind, "rtpsession")) {
    reportWhatIsAsked(element);
  }
}

}  // namespace

Peer::Peer(std::shared_ptr<JanusConnection> janus, Listener& listener)
    : janus_(std::move(janus)),
      listener_(listener),
      pipeline_(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr)))),
      webrtc_(gst_element_factory_make("webrtcbin", nullptr)) {
  if (webrtc_ == nullptr) return;
  gst_util_set_object_arg(G_OBJECT(webrtc_), "bundle-policy", "max-bundle");
  g_object_set(webrtc_, "latency", jitterMilliseconds, nullptr);
  gst_bin_add(GST_BIN(pipeline_.get()), webrtc_);
  findAddressesQuietly(webrtc_);
}

Peer::~Peer() {
  if (busWatch_ != nullptr) {
    g_source_destroy(busWatch_);
    g_source_unref(busWatch_);
  }
  if (webrtc_ != nullptr) g_signal_handlers_disconnect_by_data(webrtc_, this);
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
  pipeline_.reset();
  malloc_trim(0);  // of itself the C library keeps what the pipeline had
  if (handle_ != 0) janus_->detach(handle_);
}

// Runs the task on the engine's thread, unless the peer has gone by then. Any thread.
void Peer::post(std::function<void(Peer&)> task) {
  EngineThread::get().post([weak = weak_from_this(), task = std::move(task)] {
    if (const std::shared_ptr<Peer> self = weak.lock()) task(*self);
  });
}

void Peer::fail(const std::string& reason) {
  if (std::exchange(failed_, true)) return;
  deadline_.stop();
  // Later: the listener drops the peer, which may be running just now.
  post([reason](Peer& self) { self.listener_.peerFailed(reason); });
}

void Peer::open(const std::string& plugin) {
  if (webrtc_ == nullptr) {
    fail("GStreamer's webrtcbin is missing: install gstreamer1.0-plugins-bad and gstreamer1.0-nice");
    return;
  }
  connectSignals();
  deadline_.once(connectTime, [this] { fail("no media connection within 15 seconds"); });
  const std::weak_ptr<Peer> weak = weak_from_this();
  janus_->attach(
      plugin,
      [weak](const json& event) {
        const std::shared_ptr<Peer> self = weak.lock();
        if (self == nullptr) return;
        const std::string kind = stringAt(event, "janus");
        if (kind == "hangup" || kind == "detached") {
          self->fail("the server ended the media connection: " + stringAt(event, "reason"));
        } else if (kind == "event") {
          self->negotiated(event);
          self->listener_.peerEvent(objectAt(objectAt(event, "plugindata"), "data"));
        }
      },
      [weak, janus = janus_](JanusConnection::Handle handle, const std::string& error) {
        const std::shared_ptr<Peer> self = weak.lock();
        if (self == nullptr) {
          if (handle != 0) janus->detach(handle);
        } else if (handle == 0) {
          self->fail(error);
        } else {
          self->handle_ = handle;
          self->listener_.peerAttached();
        }
      });
}

void Peer::connectSignals() {
  g_signal_connect(pipeline_.get(), "deep-element-added", G_CALLBACK(tune), nullptr);
  g_signal_connect(webrtc_, "on-ice-candidate",
                   G_CALLBACK(+[](GstElement*, guint line, gchar* text, Peer* self) {
                     self->post([line, text = std::string(text)](Peer& peer) { peer.candidate(line, text); });
                   }),
                   this);
  g_signal_connect(
      webrtc_, "on-negotiation-needed",
      G_CALLBACK(+[](GstElement*, Peer* self) { self->post([](Peer& peer) { peer.makeOffer(); }); }), this);
  g_signal_connect(webrtc_, "notify::connection-state",
                   G_CALLBACK(+[](GstElement* webrtc, GParamSpec*, Peer* self) {
                     int state = 0;
                     g_object_get(webrtc, "connection-state", &state, nullptr);
                     self->post([state](Peer& peer) { peer.stateChanged(state); });
                   }),
                   this);
  g_signal_connect(webrtc_, "pad-added", G_CALLBACK(+[](GstElement*, GstPad* pad, Peer* self) {
                     if (GST_PAD_IS_SRC(pad)) self->listener_.peerPadAdded(pad);
                   }),
                   this);
  g_signal_connect(webrtc_, "on-new-transceiver",
                   G_CALLBACK(+[](GstElement*, GstWebRTCRTPTransceiver* transceiver, gpointer) {
                     g_object_set(transceiver, "do-nack", TRUE, nullptr);
                   }),
                   nullptr);
  const Gst<GstBus> bus(gst_element_get_bus(pipeline_.get()));
  busWatch_ = gst_bus_create_watch(bus.get());
  g_source_set_callback(busWatch_,
                        G_SOURCE_FUNC(+[](GstBus*, GstMessage* message, gpointer self) -> gboolean {
                          static_cast<Peer*>(self)->busMessage(message);
                          return G_SOURCE_CONTINUE;
                        }),
                        this, nullptr);
  g_source_attach(busWatch_, EngineThread::get().context());
}

void Peer::ask(const json& body, Reply reply) {
  janus_->message(handle_, body, nullptr, answered(std::move(reply)));
}

JanusConnection::Reply Peer::answered(Reply reply) {
  return [weak = weak_from_this(), reply = std::move(reply)](const json& answer) {
    const std::shared_ptr<Peer> self = weak.lock();
    if (self == nullptr || self->failed_) return;
    if (JanusConnection::isError(answer)) {
      if (reply) reply({{"error", JanusConnection::errorText(answer)}});
      return;
    }
    if (reply) reply(objectAt(objectAt(answer, "plugindata"), "data"));
    self->negotiated(answer);
  };
}

// Takes the description that an answer or event of the plugin's may carry.
void Peer::negotiated(const json& answer) {
  const json& jsep = objectAt(answer, "jsep");
  const std::string type = stringAt(jsep, "type");
  const std::string sdp = stringAt(jsep, "sdp");
  if (type == "offer") {
    this->answer(sdp);
  } else if (type == "answer") {
    const Description description = parse(GST_WEBRTC_SDP_TYPE_ANSWER, sdp);
    if (description == nullptr) {
      fail("the server's answer is not understood");
      return;
    }
    g_signal_emit_by_name(webrtc_, "set-remote-description", description.get(), nullptr);
  }
}

void Peer::answer(const std::string& offer) {
  const Description description = parse(GST_WEBRTC_SDP_TYPE_OFFER, withoutFir(offer));
  if (description == nullptr) {
    fail("the server's offer is not understood");
    return;
  }
  gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
  g_signal_emit_by_name(webrtc_, "set-remote-description", description.get(), nullptr);
  describe(webrtc_, "create-answer", [weak = weak_from_this()](const std::string& sdp) {
    EngineThread::get().post([weak, sdp] {
      const std::shared_ptr<Peer> self = weak.lock();
      if (self == nullptr) return;
      self->sendDescription("answer", sdp, self->accept_, {});
    });
  });
}

void Peer::offer(std::function<json(const std::string&)> body, Reply reply) {
  offerBody_ = std::move(body);
  offerReply_ = std::move(reply);
  gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
}

// Once the webrtcbin knows what all that is linked to it sends.
void Peer::makeOffer() {
  if (!offerBody_) return;
  describe(webrtc_, "create-offer", [weak = weak_from_this()](const std::string& sdp) {
    EngineThread::get().post([weak, sdp] {
      const std::shared_ptr<Peer> self = weak.lock();
      if (self == nullptr || !self->offerBody_) return;
      const auto body = std::exchange(self->offerBody_, nullptr);
      self->sendDescription("offer", sdp, body(sdp), self->offerReply_);
    });
  });
}

void Peer::sendDescription(const char* type, const std::string& sdp, const json& body, Reply reply) {
  if (sdp.empty()) {
    fail("no session description could be made");
    return;
  }
  janus_->message(handle_, body, {{"type", type}, {"sdp", sdp}}, answered(std::move(reply)));
  described_ = true;
  for (const json& candidate : std::exchange(candidates_, {})) janus_->trickle(handle_, candidate);
}

void Peer::candidate(unsigned line, const std::string& text) {
  const json candidate = {{"sdpMLineIndex", line}, {"candidate", text}};
  if (described_) {
    janus_->trickle(handle_, candidate);
  } else {
    candidates_.push_back(candidate);
  }
}

void Peer::stateChanged(int state) {
  if (state == GST_WEBRTC_PEER_CONNECTION_STATE_CONNECTED && !connected_) {
    connected_ = true;
    deadline_.stop();
    listener_.peerConnected();
  } else if (state == GST_WEBRTC_PEER_CONNECTION_STATE_FAILED ||
             state == GST_WEBRTC_PEER_CONNECTION_STATE_CLOSED) {
    fail("the media connection failed");
  }
}

void Peer::busMessage(GstMessage* message) {
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_LATENCY) gst_bin_recalculate_latency(GST_BIN(pipeline_.get()));
  if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR) return;
  GError* error = nullptr;
  gst_message_parse_error(message, &error, nullptr);
  fail(error->message);
  g_error_free(error);
}

}  // namespace engine
