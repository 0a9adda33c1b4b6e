// Frames and sound through the session, in both directions.

#include <IOSurface/IOSurface.h>

#include <atomic>
#include <thread>

#include "session_fixture.h"
#include "streams/guest_session_stream.h"
#include "streams/pixel_buffer_pool_manager.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr OSType kBiPlanar = kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;

std::vector<uint8_t> firstPixels(CVPixelBufferRef buffer) {
  CVPixelBufferLockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly);
  const auto* luma = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(buffer, 0));
  const auto* chroma = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(buffer, 1));
  const std::vector<uint8_t> pixels = {luma[0], chroma[0], chroma[1]};
  CVPixelBufferUnlockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly);
  return pixels;
}

TEST_F(SessionTest, AFrameArrivesAsABiPlanarSurfaceOfItsSize) {
  admit("cam");
  for (const auto& [width, height] : {std::pair(64, 48), {64, 48}, {641, 359}, {1, 1}}) {
    PlanarFrame picture(width, height, 100, 90, 200);
    picture.frame.timestamp = 77;
    sdk.renderFrame("cam", picture.frame);
    EXPECT_THAT(delegate.takeReports(), ElementsAre("frame Guest - Ann cam 77 " + std::to_string(width) +
                                                    "x" + std::to_string(height)));
    const auto buffer = delegate.lastFrame;
    EXPECT_EQ(CVPixelBufferGetPixelFormatType(buffer.get()), kBiPlanar);
    EXPECT_NE(CVPixelBufferGetIOSurface(buffer.get()), nullptr);
    EXPECT_THAT(firstPixels(buffer.get()), ElementsAre(100, 90, 200));
  }
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

  picture.frame.width = 64;
  otc_subscriber* subscriber = sdk.subscriber("cam");
  subscriber->callbacks.on_render_frame(nullptr, subscriber->callbacks.user_data, &picture.frame);
  EXPECT_THAT(delegate.takeReports(), IsEmpty());
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

TEST(PixelBufferPoolManager, KeepsItsPoolUntilTheGeometryChanges) {
  auto manager = ZVPixelBufferPoolManager::newManagerForPurpose("buffers for a test");
  const auto request = [&](int32_t width, int32_t height, bool global = false) {
    return Ref<CVPixelBufferRef>::adopt(
        manager->pixelBufferFromPoolWithWidth(width, height, kBiPlanar, global));
  };
  const auto surfaceOf = [](const Ref<CVPixelBufferRef>& buffer) {
    return IOSurfaceGetID(CVPixelBufferGetIOSurface(buffer.get()));
  };
  auto first = request(64, 48);
  const auto firstSurface = surfaceOf(first);
  auto second = request(64, 48);
  EXPECT_NE(surfaceOf(second), firstSurface) << "the first is still held";
  first = {};
  EXPECT_EQ(surfaceOf(request(64, 48)), firstSurface) << "the pool gives it out again";
  EXPECT_NE(surfaceOf(request(64, 48, true)), firstSurface) << "another kind, another pool";
  EXPECT_FALSE(request(0, 0));
  EXPECT_FALSE(request(-1, 48));

  first = request(32, 32);
  manager.reset();
  EXPECT_EQ(CVPixelBufferGetWidth(first.get()), 32u) << "a buffer outlives its pool";
}

TEST_F(SessionTest, AGuestsSoundReachesTheStudioAndAScreenSharesDoesNot) {
  admit("cam");
  receive("scr", "Guest - Ann", OTC_STREAM_VIDEO_TYPE_SCREEN);
  forget();
  int16_t samples[] = {3, -4, 32767, 32767, 1, 2, -1, -2};
  sdk.deliverSound("scr", samples);
  const auto& callbacks = sdk.subscriber("cam")->callbacks;
  callbacks.on_audio_data(nullptr, callbacks.user_data, nullptr);
  EXPECT_THAT(delegate.takeReports(), IsEmpty());
  sdk.deliverSound("cam", samples);
  EXPECT_THAT(delegate.takeReports(), ElementsAre("sound 16 room"));
  EXPECT_THAT(delegate.lastSound, ElementsAre(3, -4, 32767, 32767, 1, 2, -1, -2));

  session->monoGuest = true;
  sdk.deliverSound("cam", samples);
  EXPECT_THAT(delegate.lastSound, ElementsAre(0, 0, 32767, 32767, 1, 1, -1, -1));
  sdk.deliverSound("cam", {});
  EXPECT_THAT(delegate.takeReports(), ElementsAre("sound 16 room", "sound 0 room"));
}

Ref<CVPixelBufferRef> newBuffer(OSType format) {
  CVPixelBufferRef buffer = nullptr;
  EXPECT_EQ(CVPixelBufferCreate(kCFAllocatorDefault, 64, 48, format, nullptr, &buffer), kCVReturnSuccess);
  return Ref<CVPixelBufferRef>::adopt(buffer);
}

TEST_F(SessionTest, ShowFramesAreTakenOnlyWhileTheSdkWantsThem) {
  const auto buffer = newBuffer(kCVPixelFormatType_32BGRA);
  session->sendVideoFrame(buffer.get());
  session->startPublishingToSession();
  sdk.startCapturer();
  sdk.publishers.back()->settings.capturer.stop(nullptr, session);
  forget();
  session->sendVideoFrame(buffer.get());
  EXPECT_THAT(sdk.calls(), IsEmpty());
  EXPECT_THAT(delegate.takeLog(), IsEmpty());
}

TEST_F(SessionTest, ABgraFrameIsHeldUntilTheSdkLetsGoAndAPlanarOneIsCopiedAtOnce) {
  session->startPublishingToSession();
  sdk.startCapturer();
  forget();
  const auto bgra = newBuffer(kCVPixelFormatType_32BGRA);
  const auto held = CFGetRetainCount(bgra.get());
  sdk.answer("otc_video_capturer_provide_frame", 9);
  session->sendVideoFrame(bgra.get());
  EXPECT_THAT(sdk.calls(), ElementsAre("otc_video_frame_new_contiguous_memory_wrapper 6 64x48 shallow",
                                       "otc_video_capturer_provide_frame 0", "otc_video_frame_delete"));
  EXPECT_THAT(delegate.takeLog(), ElementsAre("otc_video_capturer_provide_frame: 9"));
  const otc_video_frame& wrapped = sdk.providedFrames.at(0);
  EXPECT_GE(wrapped.size, 64u * 48 * 4);
  EXPECT_GT(CFGetRetainCount(bgra.get()), held);
  wrapped.release(wrapped.releaseArgument);
  EXPECT_EQ(CFGetRetainCount(bgra.get()), held);

  const auto planar = newBuffer(kBiPlanar);
  session->sendVideoFrame(planar.get());
  EXPECT_EQ(CFGetRetainCount(planar.get()), held);
  const otc_video_frame& copied = sdk.providedFrames.at(1);
  EXPECT_EQ(copied.format, OTC_VIDEO_FRAME_FORMAT_NV12);
  EXPECT_NE(copied.planes[1], nullptr);
  EXPECT_EQ(copied.planes[2], nullptr);
  EXPECT_EQ(copied.strides[2], 0);
}

TEST_F(SessionTest, ShowSoundIsWrittenFromTheFirstStartOn) {
  const int16_t samples[] = {1, 2, 3, 4};
  session->sendAudioData(samples, 2);
  EXPECT_THAT(sdk.calls(), IsEmpty());
  sdk.audioDevice.start_capturer(nullptr, session);
  sdk.audioDevice.stop_capturer(nullptr, session);
  sdk.answer("otc_audio_device_write_capture_data", 4);
  session->sendAudioData(samples, 2);
  session->sendAudioData(samples, -1);
  EXPECT_THAT(sdk.calls(), ElementsAre("otc_audio_device_write_capture_data 2"));
  EXPECT_THAT(sdk.capturedSamples, ElementsAre(1, 2, 3, 4));
  EXPECT_THAT(delegate.takeLog(), ElementsAre("otc_audio_device_write_capture_data: 4"));
}

TEST_F(SessionTest, GuestsFramesSoundAndCommandsMayMeet) {
  admit("cam");
  admit("two");
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (const char* id : {"cam", "two"}) {
    threads.emplace_back([this, id, &done] {
      PlanarFrame picture(64, 48);
      int16_t samples[4] = {};
      while (!done) {
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
  done = true;
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(session->copyStreamManagers().size(), 2u);
}

}  // namespace
