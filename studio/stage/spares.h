// Services that are started before anybody needs them.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "stage/guest_service.h"
#include "stage/loop.h"

namespace studio {

/// Keeps one service ready that has been asked for nothing yet, and so serves a new seat and a killed one's
/// room alike. For one loop's thread; the starting is done on others.
class Spares {
 public:
  /// `failed` is told why a service cannot be started; it is tried again, ever more slowly.
  Spares(GuestService::Settings settings, std::function<void(const std::string& reason)> failed);
  /// Waits for a start that is under way.
  ~Spares();
  Spares(const Spares&) = delete;
  Spares& operator=(const Spares&) = delete;

  /// `taken` gets a service at once if one is ready, or as soon as one is, in the order of asking. It is
  /// called with nothing more once this object is gone.
  void take(std::function<void(std::unique_ptr<GuestService>)> taken);
  bool ready() const { return spare_ != nullptr; }

 private:
  void replenish();
  void onStarted(std::unique_ptr<GuestService> service, const std::string& fault);
  void hand();

  GuestService::Settings settings_;
  std::function<void(const std::string& reason)> failed_;
  Loop loop_;
  std::unique_ptr<GuestService> spare_;
  std::deque<std::function<void(std::unique_ptr<GuestService>)>> asking_;
  std::thread starter_;
  bool starting_ = false;
  std::chrono::milliseconds pause_;
  Timer again_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace studio
