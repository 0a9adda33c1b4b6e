#include "stage/spares.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace studio {

namespace {

constexpr std::chrono::milliseconds shortestPause(250);
constexpr std::chrono::milliseconds longestPause(10'000);

}  // namespace

Spares::Spares(GuestService::Settings settings, std::function<void(const std::string& reason)> failed)
    : settings_(std::move(settings)), failed_(std::move(failed)), pause_(shortestPause) {
  replenish();
}

Spares::~Spares() {
  if (starter_.joinable()) starter_.join();
}

void Spares::take(std::function<void(std::unique_ptr<GuestService>)> taken) {
  asking_.push_back(std::move(taken));
  if (spare_) hand();
}

void Spares::replenish() {
  if (starting_ || spare_) return;
  starting_ = true;
  if (starter_.joinable()) starter_.join();
  starter_ = std::thread([this, alive = std::weak_ptr(alive_)] {
    auto service = std::make_shared<std::unique_ptr<GuestService>>();
    std::string fault;
    try {
      *service = std::make_unique<GuestService>(settings_);
    } catch (const std::exception& error) {
      fault = error.what();
    }
    loop_.post([this, alive, service, fault] {
      if (!alive.expired()) onStarted(std::move(*service), fault);
    });
  });
}

void Spares::onStarted(std::unique_ptr<GuestService> service, const std::string& fault) {
  starting_ = false;
  if (!service) {
    again_.once(pause_, [this] { replenish(); });
    pause_ = std::min(2 * pause_, longestPause);
    failed_(fault);
    return;
  }
  pause_ = shortestPause;
  spare_ = std::move(service);
  spare_->onEnd(loop_, [this, ready = spare_.get()](ServiceProcess::End) {
    if (spare_.get() != ready) return;  // it has been handed on, and its end is told to whoever has it
    spare_.reset();
    again_.once(shortestPause, [this] { replenish(); });
  });
  if (!asking_.empty()) hand();
}

void Spares::hand() {
  const auto taken = std::move(asking_.front());
  asking_.pop_front();
  std::unique_ptr<GuestService> service = std::move(spare_);
  replenish();
  taken(std::move(service));
}

}  // namespace studio
