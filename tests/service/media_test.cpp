// Guests' frames and sound through the session.

#include <thread>

#include "session_fixture.h"
#include "streams/guest_session_stream.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

TEST_F(SessionTest, AFrameArrivesInItsSizeAndItsSurfaceIsUsedAgain) {
  admit("cam");
  for (const auto& [width, height] : {std::pair(64, 48), {64, 48}, {641, 359}, {1, 1}}) {
    PlanarFrame picture(width, height);
    picture.frame.timestamp = 77;
    sdk.renderFrame("cam", picture.frame);
    EXPECT_THAT(delegate.takeReports(),
                ElementsAre(fmt::format("frame Guest - Ann cam 77 {}x{}", width, height)));
  }
  EXPECT_EQ(delegate.surfaces.size(), 3u) << "one a size";
}

TEST_F(SessionTest, AFrameOfAnUnknownStreamMakesItsRecord) {
  admit("cam");
  static SubscriberInfo info = {"Guest - Bob", "new", OTC_STREAM_VIDEO_TYPE_SCREEN};
  otc_subscriber* subscriber = sdk.subscriber("cam");
  PlanarFrame picture(64, 48);
  subscriber->callbacks.on_render_frame(subscriber, &info, &picture.frame);
  EXPECT_THAT(delegate.takeReports(), ElementsAre("frame Guest - Bob new 0 64x48"));
  EXPECT_TRUE(session->copyStreamManagers().at("new")->isScreenShare());
}

TEST_F(SessionTest, AFrameAfterItsGuestsRemovalBringsNobodyBack) {
  admit("cam");
  admit("two");
  session->stopSubscribing("cam");
  PlanarFrame picture(64, 48);
  sdk.renderFrame("cam", picture.frame);
  EXPECT_THAT(delegate.takeReports(), IsEmpty());
  session->stopSubscribing("two");
  EXPECT_THAT(delegate.takeReports(), ElementsAre("dropped two"));

  receive("cam");
  sdk.renderFrame("cam", picture.frame);
  EXPECT_THAT(delegate.takeReports(),
              ElementsAre("ring Guest - Ann cam camera", "frame Guest - Ann cam 0 64x48"));
}

TEST_F(SessionTest, AFrameThatCannotBeUsedIsLoggedAndDropped) {
  admit("cam");
  PlanarFrame picture(64, 48);
  picture.frame.format = 2;
  sdk.renderFrame("cam", picture.frame);
  EXPECT_THAT(delegate.takeLog(), ElementsAre("on_render_frame 2 which we don't deal with."));
  EXPECT_THAT(delegate.takeReports(), IsEmpty());

  // What cannot be wrapped goes on without a picture: the guest rings.
  picture.frame.format = OTC_VIDEO_FRAME_FORMAT_YUV420P;
  picture.frame.width = 0;
  sdk.renderFrame("cam", picture.frame);
  EXPECT_THAT(delegate.takeReports(), ElementsAre("ring Guest - Ann cam camera"));
}

TEST_F(SessionTest, AGuestsSoundReachesTheStudioAndAScreenSharesDoesNot) {
  admit("cam");
  admit("scr", OTC_STREAM_VIDEO_TYPE_SCREEN);
  int16_t samples[] = {3, -4, 32767, 32767, 1, 2, -1, -2};
  sdk.deliverSound("scr", samples);
  sdk.deliverSound("cam", samples);
  session->monoGuest = true;
  sdk.deliverSound("cam", samples);
  sdk.deliverSound("cam", {});
  EXPECT_THAT(delegate.takeReports(), ElementsAre("sound room 3 -4 32767 32767 1 2 -1 -2",
                                                  "sound room 0 0 32767 32767 1 1 -1 -1", "sound room"));
}

TEST_F(SessionTest, GuestsFramesSoundAndCommandsMayMeet) {
  admit("cam");
  admit("two");
  std::vector<std::jthread> threads;
  for (const char* id : {"cam", "two"}) {
    threads.emplace_back([this, id](const std::stop_token& stop) {
      PlanarFrame picture(64, 48);
      int16_t samples[4] = {};
      while (!stop.stop_requested()) {
        sdk.renderFrame(id, picture.frame);
        sdk.deliverSound(id, samples);
        session->audioChanged(true, id);
      }
    });
  }
  for (int i = 0; i < 50; i++) {
    session->greenRoomStatus(i % 2, "cam");
    session->setRemoteMute(i % 2, "two");
    session->broadcastIsLive(i % 2, false);
    session->enableOffAirAudio(i % 3);
    sdk.sendSignal("mono", R"({"mono": "yes"})");
    session->dropAllStreams();
  }
  threads.clear();
  EXPECT_EQ(session->copyStreamManagers().size(), 2u);
}

}  // namespace
