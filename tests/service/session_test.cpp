// The session's rules: joining, guests coming and going, publishing, and what ends with what.

#include <nlohmann/json.hpp>

#include "session_fixture.h"

using nlohmann::json;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

// A callback record is a row of function pointers, a user data pointer and a reserved one.
template <class Record>
void expectAllSlotsFilled(const Record& record) {
  static_assert(sizeof(Record) % sizeof(void*) == 0);
  const auto* slots = reinterpret_cast<void* const*>(&record);
  const size_t count = sizeof(Record) / sizeof(void*);
  for (size_t i = 0; i + 1 < count; i++) EXPECT_NE(slots[i], nullptr) << "slot " << i + 1;
  EXPECT_EQ(slots[count - 1], nullptr);
}

TEST_F(SessionTest, StartsTheSdkOnceAndInstallsTheAudioDeviceForEverySession) {
  ZarvoGuestSession::initOpenTokSDK();
  EXPECT_THAT(sdk.calls(), Not(Contains("otc_init")));
  expectAllSlotsFilled(sdk.audioDevice);
  EXPECT_EQ(sdk.audioDevice.user_data, session);
  EXPECT_EQ(sharedGuestSession, session);
}

TEST_F(SessionTest, AudioDeviceKeepsRunningAfterAStop) {
  const auto& device = sdk.audioDevice;
  EXPECT_FALSE(device.is_capturer_initialized(nullptr, session));
  EXPECT_FALSE(device.is_renderer_started(nullptr, session));
  for (const auto step :
       {device.init_capturer, device.start_capturer, device.stop_capturer, device.destroy_capturer,
        device.init_renderer, device.start_renderer, device.stop_renderer}) {
    step(nullptr, session);
  }
  EXPECT_TRUE(device.is_capturer_initialized(nullptr, session));
  EXPECT_TRUE(device.is_capturer_started(nullptr, session));
  EXPECT_TRUE(device.is_renderer_started(nullptr, session));
  EXPECT_TRUE(sdk.waitForCall("otc_audio_device_read_render_data 1000"));
  device.destroy_renderer(nullptr, session);
  EXPECT_FALSE(session->audio_connected);

  otc_audio_device_settings settings = {};
  EXPECT_TRUE(device.get_render_settings(nullptr, session, &settings));
  EXPECT_EQ(settings.sampling_rate, 48000);
  EXPECT_EQ(settings.number_of_channels, 2);
}

TEST_F(SessionTest, JoinsAndJoinsAgainOverTheOldSession) {
  session->joinWithSession("other", "secret");
  EXPECT_THAT(sdk.calls(), ElementsAre("otc_session_new key other", "otc_session_connect other secret"));
  EXPECT_THAT(delegate.takeLog(),
              ElementsAre("joinWithSession:other secret", "already have a session?",
                          StartsWith("otc_session_new session 0x"), "otc_session_connect 0"));
  EXPECT_EQ(session->sessionId(), "other");
  EXPECT_EQ(session->currentToken(), "secret");
  expectAllSlotsFilled(sdk.session()->callbacks);
}

TEST_F(SessionTest, OnlyStreamsNamedAsGuestsRing) {
  receive("cam");
  receive("scr", "Guest - Ann", OTC_STREAM_VIDEO_TYPE_SCREEN);
  receive("x1", "guest - Bob");
  receive("x2", "Guest -Bob");
  receive("x3", "ZarvoLive");
  receive("x4", "Guest - \xff\xfe");
  receive("x5", nullptr);
  EXPECT_THAT(delegate.takeReports(),
              ElementsAre("ring Guest - Ann cam camera", "ring Guest - Ann scr screen"));
  EXPECT_THAT(sdk.calls(), ElementsAre("otc_subscriber_new cam", "otc_subscriber_new scr"));
  const auto log = delegate.takeLog();
  EXPECT_THAT(log, Contains("on_stream_received 640 x 480 (Guest - Ann) [scr] type: screen share"));
  EXPECT_THAT(log, Contains("stream guest - Bob didn't start with Guest - ignore it"));
  expectAllSlotsFilled(sdk.subscriber("cam")->callbacks);

  receive("cam");  // announced again: one record, a second ring
  EXPECT_THAT(delegate.takeReports(), ElementsAre("ring Guest - Ann cam camera"));
  EXPECT_EQ(session->copyStreamManagers().size(), 2u);

  receive(nullptr);
  EXPECT_THAT(delegate.takeReports(), IsEmpty());
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
  EXPECT_THAT(delegate.takeLog(),
              ElementsAre("ZarvoGuestSessionStream startSubscribing cam", "subscribeToStream",
                          "otc_subscriber_set_subscribe_to_video 0", "subscribeToAudio cam 1",
                          "otc_subscriber_set_subscribe_to_audio: 0"));
  EXPECT_FALSE(session->monoGuest);
  EXPECT_TRUE(session->connected_to_guest);
  EXPECT_EQ(session->guestId(), "cam");

  const json info = json::parse(sentSignals("audio_setting").at(0));
  EXPECT_EQ(info,
            json::parse(R"({"subs": [{"on": false, "id": "cam", "remoteMuted": false, "offAirAudio": false}],
                                  "broadcastIsLive": false, "recordOnly": false})"));
}

TEST_F(SessionTest, TheGreenRoomRuleDecidesWhoIsHeard) {
  admit("cam");
  otc_subscriber* subscriber = sdk.subscriber("cam");
  for (const bool live : {false, true}) {
    for (const bool onAir : {false, true}) {
      for (const bool offAirAudio : {false, true}) {
        session->broadcastIsLive(onAir, false);
        session->enableOffAirAudio(offAirAudio);
        session->greenRoomStatus(!live, "cam");
        EXPECT_EQ(subscriber->audio, live || !onAir || offAirAudio) << live << onAir << offAirAudio;
      }
    }
  }
  forget();
  session->setRemoteMute(true, "cam");  // the guest's own page mutes; the studio's road stays open
  EXPECT_TRUE(subscriber->audio);
  EXPECT_THAT(delegate.takeLog(), ElementsAre("subscribeToAudio cam 1"));
  const json info = json::parse(sentSignals("audio_setting").at(0));
  EXPECT_EQ(info["subs"][0],
            json::parse(R"({"on": true, "id": "cam", "remoteMuted": true, "offAirAudio": true})"));
}

TEST_F(SessionTest, CommandsForUnknownGuestsDoNothing) {
  session->startSubscribing("nobody");
  session->stopSubscribing("nobody");
  session->greenRoomStatus(true, "nobody");
  session->setRemoteMute(true, "nobody");
  session->streamDropped("nobody");
  session->audioChanged(true, "nobody");
  session->audioChanged(true, std::nullopt);
  session->broadcastIsLive(true, true);
  session->enableOffAirAudio(true);
  EXPECT_THAT(sdk.calls(), IsEmpty());
  EXPECT_THAT(delegate.takeReports(), IsEmpty());
  EXPECT_THAT(delegate.takeLog(), ElementsAre("stopSubscribing: nobody"));
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
  EXPECT_TRUE(sdk.waitForCall("otc_session_unsubscribe session subscriber:two"));
  EXPECT_THAT(sdk.calls(), Not(Contains("otc_session_delete room")));
  EXPECT_THAT(sentSignals("audio_setting").back(), HasSubstr("\"two\"")) << "still listed while it goes";

  forget();
  session->stopSubscribing("cam");
  EXPECT_THAT(delegate.takeReports(), ElementsAre("dropped cam"));
  EXPECT_EQ(session->session, nullptr);
  EXPECT_EQ(session->publisher, nullptr);
  const auto calls = sdk.calls();
  EXPECT_THAT(calls, Contains("otc_session_unpublish"));
  EXPECT_THAT(calls, Contains("otc_session_delete room"));
  EXPECT_THAT(calls.back(), StartsWith("otc_session_send_signal null audio_setting"));
}

TEST_F(SessionTest, ADroppedGuestStaysUntilRemovedAndIsNotUnsubscribed) {
  admit("cam");
  admit("two");
  sdk.dropStream({"cam", "Guest - Ann"});
  EXPECT_THAT(delegate.takeReports(), ElementsAre("dropped cam"));
  EXPECT_FALSE(session->connected_to_guest);
  EXPECT_EQ(session->copyStreamManagers().size(), 2u);

  forget();
  session->stopSubscribing("cam");
  EXPECT_THAT(delegate.takeLog(), Contains("not calling otc_session_unsubscribe"));
  EXPECT_THAT(sentSignals("stop"), ElementsAre("cam"));

  // A screen share says nothing of cameras.
  receive("scr", "Guest - Ann", OTC_STREAM_VIDEO_TYPE_SCREEN);
  session->startSubscribing("scr");
  EXPECT_FALSE(session->connected_to_guest);
  session->connected_to_guest = true;
  sdk.dropStream({"scr", "Guest - Ann", OTC_STREAM_VIDEO_TYPE_SCREEN});
  session->stopSubscribing("scr");
  EXPECT_TRUE(session->connected_to_guest);
  sdk.dropStream({nullptr, "Guest - Ann"});
  EXPECT_FALSE(session->connected_to_guest);
}

TEST_F(SessionTest, ALostSessionDropsEveryGuestOrTellsOfNone) {
  auto* joined = sdk.session();
  joined->callbacks.on_disconnected(joined, session);
  EXPECT_THAT(delegate.takeReports(), ElementsAre("dropped "));

  admit("cam");
  joined->callbacks.on_error(joined, session, "no server", OTC_SESSION_CONNECTION_FAILED);
  EXPECT_THAT(delegate.takeReports(), ElementsAre("dropped cam"));
  EXPECT_THAT(delegate.takeLog(), Contains("on_error OTC_SESSION_CONNECTION_FAILED some other reason"));

  for (const char* line : {"Proxy connection failed code 7", static_cast<const char*>(nullptr)})
    sdk.logger(line);
  joined->callbacks.on_error(joined, session, "no proxy", OTC_SESSION_CONNECTION_FAILED);
  EXPECT_THAT(delegate.takeReports(), ElementsAre("fatal no proxy"));
  joined->callbacks.on_error(joined, session, "refused", OTC_SESSION_AUTHORIZATION_FAILURE);
  EXPECT_THAT(delegate.takeReports(), IsEmpty());
}

TEST_F(SessionTest, PublishesOnceAndStops) {
  session->startPublishingToSession();
  session->startPublishingToSession();
  EXPECT_THAT(
      sdk.calls(),
      ElementsAre("otc_publisher_settings_new", "otc_publisher_settings_set_name ZarvoLive",
                  "otc_publisher_settings_set_video_capturer", "otc_publisher_settings_set_audio_track on",
                  "otc_publisher_settings_set_video_track on", "otc_publisher_settings_set_stereo off",
                  "otc_publisher_new_with_settings", "otc_publisher_set_audio_fallback_enabled off",
                  "otc_session_publish session publisher"));
  const otc_publisher& publisher = *sdk.publishers.back();
  expectAllSlotsFilled(publisher.callbacks);
  expectAllSlotsFilled(publisher.settings.capturer);
  otc_video_capturer_settings settings = {};
  EXPECT_TRUE(publisher.settings.capturer.get_capture_settings(nullptr, session, nullptr));
  publisher.settings.capturer.get_capture_settings(nullptr, session, &settings);
  EXPECT_EQ(std::make_tuple(settings.format, settings.width, settings.height, settings.fps),
            std::make_tuple(7, 1024, 576, 30));

  session->stopCurrentSession(false);
  EXPECT_NE(session->session, nullptr);
  session->startPublishingToSession();
  session->stopCurrentSession(true);
  forget();
  session->stopCurrentSession(true);
  EXPECT_THAT(sdk.calls(), IsEmpty());
  EXPECT_THAT(delegate.takeLog(), ElementsAre("stopCurrentSession for room"));
}

TEST_F(SessionTest, AViewerCountIsSentWhenItChanges) {
  for (const char* count : {"12", "12"}) session->broadcastViewCount(count);
  EXPECT_EQ(sentSignals("viewer_count").size(), 1u);
  session->startPublishingToSession();  // forgets it
  for (const char* count : {"", "12"}) session->broadcastViewCount(count);
  EXPECT_EQ(sentSignals("viewer_count").size(), 2u);
}

TEST_F(SessionTest, GuestsSignalsAreUnderstoodAndBadOnesHarmNothing) {
  sdk.sendSignal("chat", R"({"text": "hello", "name": "Ann", "uuid": "u"})");
  sdk.sendSignal("fav", R"({"uuid": "u", "state": "on"})");
  EXPECT_THAT(delegate.takeReports(), ElementsAre("chat hello Ann u", "fav u on"));

  const std::string deep(100000, '[');
  for (const char* data :
       {"", "{broken", "[1, 2]", "7", "null", deep.c_str(), R"({"text": 5, "uuid": {}})"}) {
    sdk.sendSignal("chat", data);
    EXPECT_THAT(
        delegate.takeReports(),
        ElementsAre(testing::MatchesRegex("chat none none GUEST_[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}")));
    sdk.sendSignal("fav", data);
    EXPECT_THAT(delegate.takeReports(), ElementsAre("fav none none"));
    sdk.sendSignal("mono", data);
    EXPECT_FALSE(session->monoGuest);
  }
  sdk.sendSignal("Chat", "{}");
  sdk.sendSignal(nullptr, "{}");
  sdk.sendSignal("chat", nullptr);
  EXPECT_THAT(delegate.takeReports(), ElementsAre(StartsWith("chat none none GUEST_")));

  sdk.sendSignal("mono", R"({"mono": "yes"})");
  sdk.sendSignal("mono", R"({"mono": "no"})");
  EXPECT_TRUE(session->monoGuest);
}

}  // namespace
