// Guests' frames and sound through the session.

#include <pthread.h>

#include <cerrno>
#include <thread>

#include "session_fixture.h"
#include "streams/guest_session_stream.h"
#include "surfaces.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<std::pair<pthread_t, int>> prioritiesAsked;  // in real time

}  // namespace

// In the system's place, which grants this to few.
extern "C" int pthread_setschedparam(pthread_t thread, int policy, const sched_param* parameters) {
  if (policy == SCHED_RR) prioritiesAsked.emplace_back(thread, parameters->sched_priority);
  return EPERM;
}

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
  PlanarFrame unusable(0, 48);
  for (const auto* late : {&picture, &unusable}) sdk.renderFrame("cam", late->frame);
  EXPECT_THAT(delegate.takeReports(), IsEmpty());
  session->stopSubscribing("two");
  EXPECT_THAT(delegate.takeReports(), ElementsAre("dropped two"));

  receive("cam");
  sdk.renderFrame("cam", picture.frame);
  EXPECT_THAT(delegate.takeReports(),
              ElementsAre("ring Guest - Ann cam camera", "frame Guest - Ann cam 0 64x48"));

  for (int i = 0; i < 1100; i++) {
    const std::string id = std::to_string(i);
    receive(id.c_str());
    drop(id.c_str());
    session->stopSubscribing(id);
  }
  EXPECT_EQ(session->removedStreams.size(), 1000u);
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
  sdk.subscriber("cam")->callbacks.on_audio_data(nullptr, nullptr, nullptr);
  EXPECT_THAT(delegate.takeReports(),
              ElementsAre("sound 3 -4 32767 32767 1 2 -1 -2", "sound 0 0 32767 32767 1 1 -1 -1", "sound"));
}

TEST_F(SessionTest, TheShowsPicturesGoToTheSdkInOrderFromOneQueue) {
  session->startPublishingToSession();
  const auto& capturer = sdk.publishers.back()->settings.capturer;
  sdk.onCall = [](const std::string& call) {
    if (call == "otc_video_capturer_provide_frame 0") {
      EXPECT_STREQ(dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL), "com.zarvo.send_video_queue");
    }
  };
  const auto show = [&](OSType format) {
    const auto surface = createSurface(format, 64, 48);
    CVPixelBufferRef wrapped = nullptr;
    CVPixelBufferCreateWithIOSurface(nullptr, surface.get(), nullptr, &wrapped);
    session->sendVideoFrame(Ref<CVPixelBufferRef>::adopt(wrapped).get());
    return surface;
  };
  forget();
  capturer.start(nullptr, session);
  show(kCVPixelFormatType_32BGRA);
  EXPECT_THAT(sdk.calls(), IsEmpty()) << "there is no capturer yet";
  EXPECT_THAT(prioritiesAsked, IsEmpty());

  sdk.startCapturer();
  sdk.answer({{"otc_video_capturer_provide_frame", 9}});
  const auto planar = show(kCVPixelFormatType_420YpCbCr8Planar);
  EXPECT_THAT(delegate.takeLog(), ElementsAre("otc_video_capturer_provide_frame: 9"));
  const auto& frame = sdk.providedFrames.at(0);
  for (size_t i = 0; i < 3; i++) {
    EXPECT_EQ(frame.planes[i], IOSurfaceGetBaseAddressOfPlane(planar.get(), i));
    EXPECT_EQ(frame.strides[i], static_cast<int>(IOSurfaceGetBytesPerRowOfPlane(planar.get(), i)));
  }
  std::thread([&] { show(kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange); }).join();
  EXPECT_EQ(sdk.providedFrames.at(1).planes[2], nullptr) << "there are two";
  EXPECT_EQ(sdk.providedFrames.at(1).strides[2], 0);
  EXPECT_THAT(prioritiesAsked, ElementsAre(std::pair(pthread_self(), 50))) << "once a process";

  sdk.answer({{"otc_video_frame_new_contiguous_memory_wrapper", 1}, {"otc_video_frame_new_from_planes", 1}});
  for (const OSType format : {kCVPixelFormatType_32BGRA, kCVPixelFormatType_420YpCbCr8Planar}) {
    EXPECT_FALSE(IOSurfaceIsInUse(show(format).get())) << "nobody else would let go of it";
  }
}

TEST_F(SessionTest, TheShowsSoundIsHandedOverOnePieceAtATime) {
  sdk.audioDevice.start_capturer(nullptr, session);
  sdk.answer({{"otc_audio_device_write_capture_data", 9}});
  std::atomic<int> inside{0};
  sdk.onCall = [&](const std::string& call) {
    if (!call.starts_with("otc_audio_device_write_capture_data")) return;
    EXPECT_EQ(++inside, 1);
    std::this_thread::yield();
    inside--;
  };
  const auto send = [&] {
    const int16_t samples[] = {1, 2};
    for (int i = 0; i < 500; i++) session->sendAudioData(samples, 1);
  };
  std::thread other(send);
  send();
  other.join();
  EXPECT_THAT(delegate.takeLog(), Contains("otc_audio_device_write_capture_data: 9").Times(1000));
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
