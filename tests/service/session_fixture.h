#pragma once

#include <IOSurface/IOSurface.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <list>
#include <mutex>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "scripted_sdk.h"
#include "session/guest_session.h"
#include "waiting.h"

// Writes down what the session reports, log lines apart.
class RecordingDelegate : public GuestSessionDelegate {
 public:
  using Text = std::optional<std::string>;

  void pixelBufferReceived(CVPixelBufferRef buffer, const std::string& forName, const std::string& andID,
                           uint64_t timestamp) override {
    const auto frame = Ref<CVPixelBufferRef>::adopt(buffer);
    EXPECT_EQ(CVPixelBufferGetPixelFormatType(buffer), kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange);
    add(fmt::format("frame {} {} {} {}x{}", forName, andID, timestamp, CVPixelBufferGetWidth(buffer),
                    CVPixelBufferGetHeight(buffer)));
    std::lock_guard guard(lock_);
    surfaces.insert(IOSurfaceGetID(CVPixelBufferGetIOSurface(buffer)));
  }
  void soundReceived(const void* samples, int64_t length, const Text&) override {
    std::string report = "sound";
    const std::span heard(static_cast<const int16_t*>(samples), static_cast<size_t>(length) / 2);
    for (const int16_t sample : heard) report += " " + std::to_string(sample);
    add(report);
  }
  void ringForName(const std::string& name, const std::string& id, bool screenShare) override {
    add("ring " + name + " " + id + (screenShare ? " screen" : " camera"));
  }
  void hasAudioChanged(bool hasAudio) override { add(hasAudio ? "audio on" : "audio off"); }
  void chatMessage(const Text& text, const Text& name, const std::string& uuid) override {
    add("chat " + text.value_or("none") + " " + name.value_or("none") + " " + uuid);
  }
  void favMessage(const Text& uuid, const Text& state) override {
    add("fav " + uuid.value_or("none") + " " + state.value_or("none"));
  }
  void streamDropped(const std::string& id) override { add("dropped " + id); }
  void sendLogMessage(const std::string& text) override {
    std::lock_guard guard(lock_);
    log_.push_back(text);
  }
  void reportFatalError(const Text& text) override { add("fatal " + text.value_or("none")); }

  std::vector<std::string> takeReports() {
    std::lock_guard guard(lock_);
    return std::exchange(reports_, {});
  }
  std::vector<std::string> log() {
    std::lock_guard guard(lock_);
    return log_;
  }
  std::vector<std::string> takeLog() {
    std::lock_guard guard(lock_);
    return std::exchange(log_, {});
  }

  std::set<IOSurfaceID> surfaces;  // that frames came in

 private:
  void add(const std::string& report) {
    std::lock_guard guard(lock_);
    reports_.push_back(report);
  }

  std::mutex lock_;
  std::vector<std::string> reports_;
  std::vector<std::string> log_;
};

// A session object, joined to session "room", for each test. Like the service's own it is never freed:
// its timer and its power thread go on.
class SessionTest : public testing::Test {
 protected:
  SessionTest() {
    sdk.reset();
    sawProxyError = false;
    session = ZarvoGuestSession::initWithAPIKey("key");
    session->setDelegate(&delegate);
    session->joinWithSession("room", "token");
    forget();
  }
  ~SessionTest() override { session->setDelegate(nullptr); }

  void receive(const char* id, const char* name = "Guest - Ann", int type = OTC_STREAM_VIDEO_TYPE_CAMERA) {
    sdk.receiveStream({id, name, type});
  }
  void drop(const char* id, int type = OTC_STREAM_VIDEO_TYPE_CAMERA) {
    sdk.dropStream({id, "Guest - Ann", type});
  }
  void admit(const char* id, int type = OTC_STREAM_VIDEO_TYPE_CAMERA) {
    receive(id, "Guest - Ann", type);
    session->startSubscribing(id);
    forget();
  }
  void forget() {
    sdk.forgetCalls();
    delegate.takeReports();
    delegate.takeLog();
  }
  bool waitForCall(const char* call) {
    return eventually([&] { return testing::Value(sdk.calls(), testing::Contains(call)); });
  }
  bool waitForLog(const char* line) {
    return eventually([&] { return testing::Value(delegate.log(), testing::Contains(line)); });
  }
  // What the guests were told last, in short: "live: cam on muted, two off".
  std::string lastAudioSetting() const {
    constexpr std::string_view kSignal = " audio_setting ";
    nlohmann::json told;
    for (const std::string& call : sdk.calls()) {
      const size_t signal = call.find(kSignal);
      if (signal != std::string::npos) told = nlohmann::json::parse(call.substr(signal + kSignal.size()));
    }
    if (told.is_null()) return "nothing";
    std::string text = told.at("broadcastIsLive").get<bool>() ? "live" : "off air";
    if (told.at("recordOnly").get<bool>()) text += " recording";
    const char* separator = ": ";
    for (const auto& guest : told.at("subs")) {
      text += std::exchange(separator, ", ") + guest.at("id").get<std::string>();
      text += guest.at("on").get<bool>() ? " on" : " off";
      if (guest.at("remoteMuted").get<bool>()) text += " muted";
      if (guest.at("offAirAudio").get<bool>()) text += " heard";
    }
    return text;
  }
  // What the session believes of the guest whom it hears and sees.
  std::string guestFlags() const {
    return std::string(session->connected_to_guest ? "connected" : "alone") +
           (session->subscribed_to_audio ? " heard" : "");
  }

  ScriptedSdk& sdk = ScriptedSdk::get();
  // Kept, since the power thread and the timer of its session outlive the test.
  static inline auto& delegates = *new std::list<RecordingDelegate>;
  RecordingDelegate& delegate = delegates.emplace_back();
  ZarvoGuestSession* session;
};
