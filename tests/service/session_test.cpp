// The session's rules: joining, guests coming and going, publishing, and what ends with what.

#include "session_fixture.h"

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
  const int16_t samples[] = {1, 2};
  session->sendAudioData(samples, 1);
  EXPECT_THAT(sdk.calls(), IsEmpty()) << "the SDK takes no sound yet";
  for (const auto step :
       {device.init_capturer, device.start_capturer, device.stop_capturer, device.destroy_capturer,
        device.init_renderer, device.start_renderer, device.stop_renderer}) {
    step(nullptr, session);
  }
  EXPECT_TRUE(device.is_capturer_started(nullptr, session));
  EXPECT_TRUE(device.is_renderer_started(nullptr, session));
  EXPECT_TRUE(waitForCall("otc_audio_device_read_render_data 1000"));
  device.destroy_renderer(nullptr, session);
  EXPECT_FALSE(session->audio_connected);

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
  EXPECT_TRUE(session->connected_to_guest);
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
  EXPECT_TRUE(waitForCall("otc_session_unsubscribe session subscriber:two"));
  EXPECT_THAT(sdk.calls(), Not(Contains("otc_session_delete room")));
  EXPECT_THAT(sdk.calls(), Contains(AllOf(HasSubstr("audio_setting"), HasSubstr("\"two\""))))
      << "still listed while it goes";

  forget();
  session->stopSubscribing("cam");
  EXPECT_THAT(delegate.takeReports(), ElementsAre("dropped cam"));
  EXPECT_THAT(sdk.calls(),
              IsSupersetOf({"otc_session_unpublish session publisher", "otc_session_delete room"}));
  EXPECT_THAT(sdk.calls().back(), StartsWith("otc_session_send_signal null audio_setting"));
}

TEST_F(SessionTest, ADroppedGuestStaysUntilRemovedAndIsNotUnsubscribed) {
  admit("cam");
  admit("two");
  sdk.dropStream({"cam", "Guest - Ann"});
  EXPECT_THAT(delegate.takeReports(), ElementsAre("dropped cam"));
  EXPECT_FALSE(session->connected_to_guest);
  EXPECT_EQ(session->copyStreamManagers().size(), 2u);
  session->stopSubscribing("cam");
  EXPECT_THAT(delegate.takeLog(), Contains("not calling otc_session_unsubscribe"));
  EXPECT_THAT(sdk.calls(), Contains("otc_session_send_signal session stop cam"));
}

TEST_F(SessionTest, AScreenShareSaysNothingOfCameras) {
  admit("cam");
  session->connected_to_guest = false;
  admit("scr", OTC_STREAM_VIDEO_TYPE_SCREEN);
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

  sdk.logger(nullptr);
  sdk.logger("Proxy connection failed code 7");
  joined->callbacks.on_error(joined, session, "no proxy", OTC_SESSION_CONNECTION_FAILED);
  joined->callbacks.on_error(joined, session, "refused", OTC_SESSION_AUTHORIZATION_FAILURE);
  EXPECT_THAT(delegate.takeReports(), ElementsAre("fatal no proxy"));
}

TEST_F(SessionTest, PublishesOnceUntilItStops) {
  const std::string publish = "otc_session_publish session publisher";
  for (int i = 0; i < 2; i++) session->startPublishingToSession();
  EXPECT_THAT(sdk.calls(), Contains(publish).Times(1));
  EXPECT_THAT(sdk.calls(), IsSupersetOf({"otc_publisher_settings_set_stereo off",
                                         "otc_publisher_set_audio_fallback_enabled off"}));
  otc_video_capturer_settings wish = {};
  sdk.publishers.back()->settings.capturer.get_capture_settings(nullptr, session, &wish);
  EXPECT_EQ(std::tuple(wish.format, wish.width, wish.height, wish.fps), std::tuple(7, 1024, 576, 30));
  for (int i = 0; i < 2; i++) session->broadcastViewCount("12");
  session->stopCurrentSession(false);
  session->startPublishingToSession();  // the viewer count is told anew
  session->broadcastViewCount("12");
  EXPECT_THAT(sdk.calls(), Contains(publish).Times(2));
  EXPECT_THAT(sdk.calls(), Contains(StartsWith("otc_session_send_signal session viewer_count")).Times(2));

  session->stopCurrentSession(true);
  forget();
  session->stopCurrentSession(true);
  EXPECT_THAT(sdk.calls(), IsEmpty());
}

TEST_F(SessionTest, SignalsOfAnyShapeHarmNothing) {
  const std::string deep(100000, '[');
  const auto withoutWords =
      testing::MatchesRegex("chat none none GUEST_[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}");
  for (const char* data : {"", "{broken", "[1, 2]", "7", "null", deep.c_str(), R"({"text": 5, "uuid": {}})",
                           static_cast<const char*>(nullptr)}) {
    for (const char* type : {"chat", "fav", "mono", "Chat"}) sdk.sendSignal(type, data);
    sdk.sendSignal(nullptr, data);
    EXPECT_THAT(delegate.takeReports(), ElementsAre(withoutWords, "fav none none"));
  }
  sdk.sendSignal("mono", R"({"mono": "no"})");
  EXPECT_FALSE(session->monoGuest);
  sdk.sendSignal("mono", R"({"mono": "yes"})");
  sdk.sendSignal("mono", R"({"mono": "no"})");
  EXPECT_TRUE(session->monoGuest);
}

}  // namespace
