#include "stage/guest_service.h"

#include <mutex>
#include <optional>
#include <utility>

#include "stage/loop.h"
#include "stage/secret.h"

namespace studio {

struct GuestService::Watch {
  std::mutex mutex;  // guards what follows
  std::optional<ServiceProcess::End> end;
  const Loop* loop = nullptr;
  std::function<void(ServiceProcess::End)> ended;

  // With the mutex held: the call is made once both are known.
  static void tell(const std::shared_ptr<Watch>& watch) {
    if (!watch->end || !watch->ended) return;
    watch->loop->post(
        [weak = std::weak_ptr(watch), ended = std::exchange(watch->ended, nullptr), end = *watch->end] {
          if (!weak.expired()) ended(end);
        });
  }
};

GuestService::Address::~Address() {
  std::error_code gone;
  std::filesystem::remove(socket, gone);
  std::filesystem::remove(socket.string() + ".lock", gone);
}

GuestService::GuestService(const Settings& settings)
    // Short, since it becomes a part of a socket's path.
    : name_("com.zarvo.guest-service." + unguessable().substr(0, 8)),
      address_{settings.runtimeDirectory / name_},
      watch_(std::make_shared<Watch>()) {
  ServiceProcess::Settings process;
  process.executable = settings.executable;
  process.name = name_;
  process.runtimeDirectory = settings.runtimeDirectory;
  process.environment = settings.environment;
  process.output = settings.output;
  process_ =
      std::make_unique<ServiceProcess>(process, [weak = std::weak_ptr(watch_)](ServiceProcess::End end) {
        const auto watch = weak.lock();
        if (!watch) return;
        const std::lock_guard lock(watch->mutex);
        watch->end = end;
        Watch::tell(watch);
      });
}

void GuestService::onEnd(const Loop& loop, std::function<void(ServiceProcess::End)> ended) {
  const std::lock_guard lock(watch_->mutex);
  watch_->loop = &loop;
  watch_->ended = std::move(ended);
  Watch::tell(watch_);
}

}  // namespace studio
