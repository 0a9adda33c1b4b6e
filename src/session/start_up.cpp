// Making the session object: SDK start-up and logging, the audio device, the queues and the render timer.

#include <unistd.h>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "session/audio_device.h"
#include "session/guest_session.h"
#include "session/log.h"
#include "support/waits.h"

std::atomic<ZarvoGuestSession*> sharedGuestSession{nullptr};
std::atomic<bool> sawProxyError{false};

namespace {

constexpr int kLogLevel = 1;
constexpr size_t kRenderBufferSize = 4000;  // one tick of 16-bit stereo
constexpr size_t kRenderSamples = 1000;

void openTokLogger(const char* line) {
  if (!line) return;
  logMessageToApp("open_tok_logger: %s", line);
  if (std::strstr(line, "Proxy connection failed code")) {
    logMessageToApp("open_tok_logger saw proxy error");
    sawProxyError = true;
  }
  // With a guest in the show, carrying on is worth the risk; without one, a fresh process is better.
  ZarvoGuestSession* session = sharedGuestSession.load(std::memory_order_acquire);
  if (std::strstr(line, "[ERROR]") && session && !session->connected_to_guest) {
    logMessageToApp("Exiting because of [ERROR]");
    usleep(static_cast<useconds_t>(kExitDelayAfterSdkError.count()));
    exit(0);
  }
}

}  // namespace

void ZarvoGuestSession::initOpenTokSDK() {
  static dispatch_once_t once;
  dispatch_once(&once, [] {
    otc_init(nullptr);
    otc_log_enable(kLogLevel);
    otc_log_set_logger_callback(openTokLogger);
  });
}

ZarvoGuestSession* ZarvoGuestSession::initWithAPIKey(const std::string& key) {
  initOpenTokSDK();
  return new ZarvoGuestSession(key);
}

ZarvoGuestSession::ZarvoGuestSession(const std::string& key) {
  // First of all, so that what the SDK logs from here on reaches the studio.
  sharedGuestSession.store(this, std::memory_order_release);
  apiKey = key;
  installAudioDevice(this);
  startRenderTimer();
  std::thread([this] { registerForSleepNotifications(); }).detach();
}

void ZarvoGuestSession::startRenderTimer() {
  dispatch_queue_attr_t attributes =
      dispatch_queue_attr_make_with_qos_class(DISPATCH_QUEUE_SERIAL, QOS_CLASS_USER_INTERACTIVE, 0);
  render_dispatch_queue =
      Ref<dispatch_queue_t>::adopt(dispatch_queue_create("com.zarvo.renderqueue", attributes));
  send_video_queue =
      Ref<dispatch_queue_t>::adopt(dispatch_queue_create("com.zarvo.send_video_queue", attributes));
  m_render_timer = Ref<dispatch_source_t>::adopt(
      dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, render_dispatch_queue.get()));

  // What is pulled is thrown away: pulling keeps the SDK's output side running. The buffer is the
  // handler's for the life of the process.
  auto* renderAudioBuffer = static_cast<int16_t*>(std::malloc(kRenderBufferSize));
  dispatch_source_set_event_handler(m_render_timer.get(), [this, renderAudioBuffer] {
    if (audio_connected) otc_audio_device_read_render_data(renderAudioBuffer, kRenderSamples);
  });
  dispatch_source_set_cancel_handler(m_render_timer.get(), [] {});
  dispatch_source_set_timer(m_render_timer.get(), DISPATCH_TIME_NOW,
                            static_cast<uint64_t>(kRenderInterval.count()),
                            static_cast<uint64_t>(kRenderLeeway.count()));
  dispatch_resume(m_render_timer.get());
}

void ZarvoGuestSession::logMessage(const std::string& text) {
  if (GuestSessionDelegate* receiver = delegate()) receiver->sendLogMessage(text);
}
