// The session's rules: joining, guests coming and going, publishing, and what ends with what.

#include <pthread.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <future>

#include "session_fixture.h"
#include "streams/guest_session_stream.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;
using testing::StartsWith;

namespace {

TEST_F(SessionTest, AudioDeviceKeepsRunningAfterAStop) {
  const auto& device = sdk.audioDevice;
  const auto state = [&] {
    std::string on;
    if (device.is_capturer_initialized(nullptr, session)) on += "capturer ";
    if (device.is_capturer_started(nullptr, session)) on += "captures ";
    if (session->audio_capture_connected) on += "takes ";
    if (device.is_renderer_initialized(nullptr, session)) on += "renderer ";
    if (device.is_renderer_started(nullptr, session)) on += "renders ";
    return on + (session->audio_connected ? "pulls" : "");
  };
  const int16_t samples[] = {1, 2};
  session->sendAudioData(samples, 1);
  EXPECT_THAT(sdk.calls(), IsEmpty()) << "the SDK takes no sound yet";
  const struct {
    otc_bool (*step)(const otc_audio_device*, void*);
    const char* state;
  } rows[] = {{device.init, ""},
              {device.init_renderer, "renderer pulls"},
              {device.destroy_renderer, "renderer "},
              {device.start_renderer, "renderer renders pulls"},
              {device.stop_renderer, "renderer renders pulls"},
              {device.init_capturer, "capturer renderer renders pulls"},
              {device.start_capturer, "capturer captures takes renderer renders pulls"},
              {device.stop_capturer, "capturer captures takes renderer renders pulls"},
              {device.destroy_capturer, "capturer captures takes renderer renders pulls"},
              {device.destroy, "capturer captures takes renderer renders pulls"}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.step(nullptr, session), OTC_TRUE);
    EXPECT_EQ(state(), row.state) << "after step " << &row - rows;
  }
  for (const auto settingsOf : {device.get_capture_settings, device.get_render_settings}) {
    otc_audio_device_settings wish = {};
    settingsOf(nullptr, session, &wish);
    EXPECT_EQ(std::pair(wish.sampling_rate, wish.number_of_channels), std::pair(48000, 2));
  }
  EXPECT_EQ(device.get_estimated_capture_delay(nullptr, session), 0);
  EXPECT_EQ(device.get_estimated_render_delay(nullptr, session), 0);

  EXPECT_TRUE(waitForCall("otc_audio_device_read_render_data 1000"));
  device.destroy_renderer(nullptr, session);
  for (const int32_t count : {1, -1}) session->sendAudioData(samples, count);
  EXPECT_THAT(sdk.calls(), Contains(StartsWith("otc_audio_device_write_capture_data")).Times(1));
}

TEST_F(SessionTest, OnlyStreamsNamedAsGuestsRing) {
  receive("cam");
  receive("scr", "Guest - Ann", OTC_STREAM_VIDEO_TYPE_SCREEN);
  const char* const strangers[] = {"guest - Bob", "Guest -Bob", "ZarvoLive", "Guest - \xff\xfe", nullptr};
  for (const char* name : strangers) receive("stranger", name);
  receive(nullptr);
  session->audioChanged(true, "stranger");
  session->streamDropped("stranger");
  receive("cam");  // announced again: one record, a second ring
  EXPECT_THAT(delegate.takeReports(),
              ElementsAre("ring Guest - Ann cam camera", "ring Guest - Ann scr screen",
                          "ring Guest - Ann cam camera"));
  EXPECT_EQ(session->copyStreamManagers().size(), 2u);
  EXPECT_EQ(std::ranges::count(sdk.calls(), "otc_subscriber_new null"), 0) << "nobody would ever use it";
}

TEST_F(SessionTest, AdmittingSubscribesUnheardThenAppliesTheGreenRoomRule) {
  receive("cam");
  forget();
  session->monoGuest = true;
  session->startSubscribing("cam");
  EXPECT_THAT(sdk.calls(), ElementsAre("otc_session_subscribe subscriber:cam",
                                       "otc_subscriber_set_subscribe_to_video subscriber:cam on",
                                       "otc_subscriber_set_subscribe_to_audio subscriber:cam off",
                                       "otc_session_send_signal session start cam",
                                       "otc_subscriber_set_subscribe_to_audio subscriber:cam on",
                                       StartsWith("otc_session_send_signal session audio_setting ")));
  EXPECT_FALSE(session->monoGuest);
  EXPECT_EQ(guestFlags(), "connected heard");
  EXPECT_EQ(session->guestId(), "cam");

  forget();
  session->greenRoomStatus(false, "cam");
  EXPECT_THAT(sdk.calls(), ElementsAre(StartsWith("otc_session_send_signal session audio_setting ")))
      << "is heard already";
}

TEST_F(SessionTest, AGuestsStateIsToldToAllAtEveryStep) {
  receive("two");
  admit("cam");
  const struct {
    std::function<void()> step;
    const char* told;
  } rows[] = {
      {[&] { session->greenRoomStatus(false, "cam"); }, "off air: cam on, two off"},
      {[&] { session->startSubscribing("cam"); }, "off air: cam off, two off"},
      {[&] { session->setRemoteMute(true, "two"); }, "off air: cam off, two off muted"},
      {[&] { session->broadcastIsLive(true, true); }, "live recording: cam off, two off muted"},
      {[&] { session->enableOffAirAudio(true); }, "live recording: cam off heard, two off muted heard"},
      {[&] { session->enableOffAirAudio(false); }, "live recording: cam off, two off muted"},
      {[&] { session->greenRoomStatus(false, "cam"); }, "live recording: cam on, two off muted"},
      {[&] { drop("cam"); }, "live recording: cam off, two off muted"},
      {[&] { session->startSubscribing("cam"); }, "live recording: cam off, two off muted"},
      {[&] { session->greenRoomStatus(false, "cam"); }, "live recording: cam on, two off muted"},
      {[&] { session->stopSubscribing("cam"); }, "live recording: cam off, two off muted"},
      {[&] { session->setRemoteMute(false, "two"); }, "live recording: two off"},
      {[&] { session->dropAllStreams(); }, "live recording: two off"},
      {[&] { session->stopSubscribing("two"); }, "live recording"}};
  for (const auto& row : rows) {
    row.step();
    EXPECT_EQ(lastAudioSetting(), row.told) << "after step " << &row - rows;
  }
  EXPECT_THAT(delegate.takeReports(), ElementsAre("dropped cam", "dropped two", "dropped two"));
  EXPECT_THAT(delegate.log(), Contains("before otc_session_unsubscribe").Times(1)) << "of cam, who came back";
}

TEST_F(SessionTest, TheGreenRoomRuleDecidesWhoIsHeard) {
  admit("cam");
  otc_subscriber* subscriber = sdk.subscriber("cam");
  for (int row = 0; row < 8; row++) {
    const bool live = row & 1, onAir = row & 2, offAirAudio = row & 4;
    session->broadcastIsLive(onAir, false);
    session->enableOffAirAudio(offAirAudio);
    session->greenRoomStatus(!live, "cam");
    EXPECT_EQ(subscriber->audio, live || !onAir || offAirAudio) << live << onAir << offAirAudio;
  }
  session->setRemoteMute(true, "cam");  // the guest's own page mutes; the studio's road stays open
  EXPECT_TRUE(subscriber->audio);
}

TEST_F(SessionTest, RemovingTheLastGuestEndsTheSessionBeforeTheDropIsReported) {
  admit("cam");
  admit("two");
  session->startPublishingToSession();
  sdk.onCall = [this](const std::string& call) {
    if (call == "otc_session_delete room") {
      EXPECT_THAT(delegate.takeReports(), IsEmpty());
    }
  };
  session->stopSubscribing("two");
  EXPECT_THAT(sdk.calls(), Not(Contains("otc_session_delete room")));

  forget();
  session->stopSubscribing("cam");
  EXPECT_THAT(delegate.takeReports(), ElementsAre("dropped cam"));
  EXPECT_THAT(sdk.calls(),
              IsSupersetOf({"otc_session_unpublish session publisher", "otc_session_delete room"}));
  EXPECT_THAT(sdk.calls().back(), StartsWith("otc_session_send_signal null audio_setting"));
}

TEST_F(SessionTest, RemovingAGuestWaitsForThePauseAndNotForTheSdk) {
  admit("cam");
  admit("two");
  std::promise<void> sdkIsSlow;
  sdk.onCall = [done = sdkIsSlow.get_future().share()](const std::string& call) {
    if (call.starts_with("otc_session_unsubscribe")) done.wait_for(kDeadline);
  };
  const auto begin = std::chrono::steady_clock::now();
  session->stopSubscribing("cam");
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(10));
  EXPECT_THAT(delegate.takeLog(), Not(Contains(StartsWith("after otc_session_unsubscribe"))));
  sdkIsSlow.set_value();
  EXPECT_TRUE(waitForLog("after otc_session_unsubscribe 0"));

  drop("two");
  forget();
  session->stopSubscribing("two");
  EXPECT_THAT(delegate.takeLog(), Contains("not calling otc_session_unsubscribe"));
  EXPECT_THAT(sdk.calls(), Contains("otc_session_send_signal session stop two"));
}

TEST_F(SessionTest, AnSdkErrorIsFatalWhileNoCameraGuestIsIn) {
  const auto is = [&](const char* flags) { EXPECT_EQ(guestFlags(), flags); };
  admit("two");
  session->stopSubscribing("two");
  is("alone");
  session->joinWithSession("room", "token");
  admit("scr", OTC_STREAM_VIDEO_TYPE_SCREEN);
  is("alone heard");
  admit("cam");
  drop("scr", OTC_STREAM_VIDEO_TYPE_SCREEN);
  session->stopSubscribing("scr");
  is("connected heard");
  for (const char* dropped : {"cam", static_cast<const char*>(nullptr)}) {
    admit("cam");
    is("connected heard");
    drop(dropped);
    is("alone");
  }
  receive("two");
  admit("cam");
  session->stopSubscribing("cam");
  is("alone");
  for (const bool deleteSession : {false, true, true}) {  // the last one without a session
    session->connected_to_guest = session->subscribed_to_audio = true;
    session->stopCurrentSession(deleteSession);
    is("alone");
  }
}

TEST_F(SessionTest, ALostSessionDropsEveryGuestOrTellsOfNone) {
  auto* joined = sdk.session();
  joined->callbacks.on_disconnected(joined, session);
  EXPECT_THAT(delegate.takeReports(), ElementsAre("dropped "));

  admit("cam");
  joined->callbacks.on_error(joined, session, "no server", OTC_SESSION_CONNECTION_FAILED);
  EXPECT_THAT(delegate.takeReports(), ElementsAre("dropped cam"));
  EXPECT_TRUE(session->copyStreamManagers().at("cam")->dropped()) << "and stays in the table";

  sdk.logger(nullptr);
  sdk.logger("Proxy connection failed code 7");
  joined->callbacks.on_error(joined, session, "no proxy", OTC_SESSION_CONNECTION_FAILED);
  joined->callbacks.on_error(joined, session, "refused", OTC_SESSION_AUTHORIZATION_FAILURE);
  EXPECT_THAT(delegate.takeReports(), ElementsAre("fatal no proxy"));
}

TEST_F(SessionTest, PublishesOnceUntilItStops) {
  const std::string publish = "otc_session_publish session publisher";
  for (int i = 0; i < 2; i++) session->startPublishingToSession();
  EXPECT_THAT(
      sdk.calls(),
      ElementsAre("otc_publisher_settings_new", "otc_publisher_settings_set_name ZarvoLive",
                  "otc_publisher_settings_set_video_capturer", "otc_publisher_settings_set_audio_track on",
                  "otc_publisher_settings_set_video_track on", "otc_publisher_settings_set_stereo off",
                  "otc_publisher_new_with_settings", "otc_publisher_set_audio_fallback_enabled off",
                  publish));
  const auto& capturer = sdk.publishers.back()->settings.capturer;
  otc_video_capturer_settings wish = {-1, -1, -1, -1, -1, OTC_TRUE};
  EXPECT_TRUE(capturer.get_capture_settings(nullptr, session, &wish));
  EXPECT_TRUE(capturer.get_capture_settings(nullptr, session, nullptr));
  const auto& [format, width, height, fps, delay, mirror] = wish;
  EXPECT_THAT((std::array{format, width, height, fps, delay, mirror}),
              ElementsAre(7, 1024, 576, 30, 0, OTC_FALSE));
  for (int i = 0; i < 2; i++) session->broadcastViewCount("12");
  session->stopCurrentSession(false);
  session->startPublishingToSession();  // the viewer count is told anew
  session->broadcastViewCount("12");
  EXPECT_THAT(sdk.calls(), Contains(publish).Times(2));
  EXPECT_THAT(sdk.calls(), Contains(StartsWith("otc_session_send_signal session viewer_count")).Times(2));

  forget();
  sdk.onCall = [this, first = true](const std::string&) mutable {
    if (std::exchange(first, false)) session->stopCurrentSession(true);  // from another studio, meanwhile
  };
  session->stopCurrentSession(true);
  EXPECT_THAT(sdk.calls(), ElementsAre("otc_session_unpublish session publisher", "otc_session_delete room"));
}

TEST_F(SessionTest, PublishingIntoNoSessionLastsUntilAStop) {
  session->stopCurrentSession(true);
  session->startPublishingToSession();
  EXPECT_EQ(sdk.calls().back(), "otc_session_publish null publisher");
  session->stopCurrentSession(true);  // without a session it leaves the publisher
  session->joinWithSession("room", "token");
  forget();
  session->startPublishingToSession();
  EXPECT_THAT(sdk.calls(), IsEmpty());
  session->stopCurrentSession(false);
  session->startPublishingToSession();
  EXPECT_EQ(sdk.calls().back(), "otc_session_publish session publisher");
}

TEST_F(SessionTest, WhatTheSdkRefusesIsLoggedAndHarmsNothing) {
  sdk.answer({{"otc_session_connect", 3},
              {"otc_session_publish", 4},
              {"otc_subscriber_set_subscribe_to_audio", 5},
              {"otc_session_unsubscribe", 6},
              {"otc_session_unpublish", 7},
              {"otc_session_delete", 8}});
  session->joinWithSession("next", "secret");
  session->startPublishingToSession();
  receive("cam");
  session->startSubscribing("cam");
  session->stopSubscribing("cam");
  EXPECT_TRUE(waitForLog("after otc_session_unsubscribe 6"));
  auto log = delegate.takeLog();
  std::erase(log, "after otc_session_unsubscribe 6");  // at any time
  EXPECT_THAT(
      log,
      ElementsAre("joinWithSession:next secret", "already have a session?",
                  testing::MatchesRegex("otc_session_new session 0x[0-9a-f]+"), "otc_session_connect 3",
                  "otc_session_publish: 4", "on_stream_received 640 x 480 (Guest - Ann) [cam] type: camera",
                  "ZarvoGuestSessionStream startSubscribing cam", "subscribeToStream",
                  "otc_subscriber_set_subscribe_to_video 5", "subscribeToAudio cam 1",
                  "otc_subscriber_set_subscribe_to_audio: 5", "stopSubscribing: cam",
                  "ZarvoGuestSessionStream stopSubscribing cam", "unsubscribeToStream cam (1)",
                  "before otc_session_unsubscribe", "stopCurrentSession for next", "otc_session_unpublish 7",
                  "otc_session_delete 8", "ZarvoGuestSessionStream streamDropped cam"));

  sdk.answer({{"otc_session_new", 1}, {"otc_subscriber_new", 1}, {"otc_publisher_new_with_settings", 1}});
  session->joinWithSession("room", "token");
  EXPECT_THAT(delegate.takeLog(), Contains("otc_session_new session 0x0"));
  for (int i = 0; i < 2; i++) session->startPublishingToSession();
  EXPECT_EQ(std::ranges::count(sdk.calls(), "otc_session_publish null null"), 2) << "tried again";
  admit("cam");
  session->stopSubscribing("cam");
  EXPECT_THAT(delegate.takeReports(), ElementsAre("dropped cam"));
}

// Runs on the smallest stack that an SDK may give its threads.
void onASmallStack(std::function<void()> function) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, 512 * 1024);
  pthread_t thread;
  const auto run = [](void* body) -> void* {
    (*static_cast<std::function<void()>*>(body))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, run, &function), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

TEST_F(SessionTest, SignalsOfAnyShapeHarmNothing) {
  const std::string deep =
      R"({"text": "hi", "more": )" + std::string(20'000, '[') + std::string(20'000, ']') + "}";
  const std::string unclosed(60'000, '[');
  const std::string large = R"({"text": ")" + std::string(70'000, 'x') + R"("})";
  const auto withoutWords =
      testing::MatchesRegex("chat none none GUEST_[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}");
  const std::vector<const char*> shapes = {"",
                                           "{broken",
                                           "[1, 2]",
                                           R"([{"text": "hi"}])",
                                           "7",
                                           "null",
                                           R"({"text": 5, "uuid": {}, "mono": true})",
                                           R"({"text": "hi", "text": -1.5})",
                                           R"({"more": {"text": "hi", "mono": "yes"}, "mono": ["yes"]})",
                                           deep.c_str(),
                                           unclosed.c_str(),
                                           large.c_str(),
                                           nullptr};
  std::set<std::string> chats;
  for (const char* data : shapes) {
    onASmallStack([&] {
      for (const char* type : {"chat", "fav", "mono", "Chat"}) sdk.sendSignal(type, data);
      sdk.sendSignal(nullptr, data);
    });
    const auto reports = delegate.takeReports();
    ASSERT_THAT(reports, ElementsAre(withoutWords, "fav none none"));
    chats.insert(reports.front());
  }
  EXPECT_EQ(chats.size(), shapes.size()) << "one uuid for two";
  sdk.sendSignal("chat", R"({"more": [["x", {}], {"uuid": "w"}], "text": "hi", "uuid": "u", "name": "Ann"})");
  EXPECT_THAT(delegate.takeReports(), ElementsAre("chat hi Ann u"));

  sdk.sendSignal("mono", R"({"mono": "no"})");
  EXPECT_FALSE(session->monoGuest);
  sdk.sendSignal("mono", R"({"mono": "yes"})");
  sdk.sendSignal("mono", R"({"mono": "no"})");
  EXPECT_TRUE(session->monoGuest);
}

}  // namespace
