#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>
#include <mutex>
#include <string>
#include <vector>

#include "scripted_sdk.h"
#include "session/guest_session.h"

// Writes down what the session reports, log lines apart.
class RecordingDelegate : public GuestSessionDelegate {
 public:
  void pixelBufferReceived(CVPixelBufferRef buffer, const std::string& forName, const std::string& andID,
                           uint64_t timestamp) override {
    const auto frame = Ref<CVPixelBufferRef>::adopt(buffer);
    add("frame " + forName + " " + andID + " " + std::to_string(timestamp) + " " +
        std::to_string(CVPixelBufferGetWidth(buffer)) + "x" + std::to_string(CVPixelBufferGetHeight(buffer)));
    std::lock_guard guard(lock_);
    lastFrame = frame;
  }
  void soundReceived(const void* samples, int64_t length,
                     const std::optional<std::string>& session) override {
    add("sound " + std::to_string(length) + " " + session.value_or("none"));
    std::lock_guard guard(lock_);
    const auto* first = static_cast<const int16_t*>(samples);
    lastSound.assign(first, first + length / 2);
  }
  void ring(const std::string& name, const std::string& id, bool screenShare) override {
    add("ring " + name + " " + id + (screenShare ? " screen" : " camera"));
  }
  void hasAudioChanged(bool hasAudio) override { add(hasAudio ? "audio on" : "audio off"); }
  void chatMessage(const std::optional<std::string>& text, const std::optional<std::string>& name,
                   const std::string& uuid) override {
    add("chat " + text.value_or("none") + " " + name.value_or("none") + " " + uuid);
  }
  void favMessage(const std::optional<std::string>& uuid, const std::optional<std::string>& state) override {
    add("fav " + uuid.value_or("none") + " " + state.value_or("none"));
  }
  void streamDropped(const std::string& id) override { add("dropped " + id); }
  void sendLogMessage(const std::string& text) override {
    std::lock_guard guard(lock_);
    log_.push_back(text);
  }
  void reportFatalError(const std::optional<std::string>& text) override {
    add("fatal " + text.value_or("none"));
  }

  std::vector<std::string> takeReports() {
    std::lock_guard guard(lock_);
    return std::exchange(reports_, {});
  }
  std::vector<std::string> takeLog() {
    std::lock_guard guard(lock_);
    return std::exchange(log_, {});
  }

  Ref<CVPixelBufferRef> lastFrame;
  std::vector<int16_t> lastSound;

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
    sdk.forgetCalls();
    delegate.takeLog();
  }
  ~SessionTest() override { session->setDelegate(nullptr); }

  void receive(const char* id, const char* name = "Guest - Ann", int type = OTC_STREAM_VIDEO_TYPE_CAMERA) {
    sdk.receiveStream({id, name, type});
  }
  void admit(const char* id) {
    receive(id);
    session->startSubscribing(id);
    forget();
  }
  void forget() {
    sdk.forgetCalls();
    delegate.takeReports();
    delegate.takeLog();
  }
  // The data of the signals of this type that were sent since the last look.
  std::vector<std::string> sentSignals(const std::string& type) {
    const std::string prefix = "otc_session_send_signal session " + type + " ";
    std::vector<std::string> data;
    for (const std::string& call : sdk.calls()) {
      if (call.starts_with(prefix)) data.push_back(call.substr(prefix.size()));
    }
    return data;
  }

  ScriptedSdk& sdk = ScriptedSdk::get();
  // Kept, since the power thread and the timer of its session outlive the test.
  static inline auto& delegates = *new std::list<RecordingDelegate>;
  RecordingDelegate& delegate = delegates.emplace_back();
  ZarvoGuestSession* session;
};
