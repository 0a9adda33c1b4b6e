// Whether the service has a session.
#pragma once

#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace studio {

/// Follows what the studio says and what the service reports. "StartBroadcast" without a session makes a
/// publisher that belongs to none, and keeps the show away from the sessions that follow.
///
/// The service ends the session with the last guest that it knows of; a guest who rings at that moment may
/// not be known here yet. So a ring after the removal tells that the session goes on, and the drop of the
/// guest removed that it does not. Each `send` is called under the lock: commands go out in the order noted.
class SessionWatch {
 public:
  template <class Send>
  void init(Send send) {
    const std::lock_guard lock(mutex_);
    asked_ = true;
    joined_ = true;
    last_.reset();
    send();
  }

  /// Sends only if there is a session; answers whether there is.
  template <class Send>
  bool startBroadcast(Send send) {
    const std::lock_guard lock(mutex_);
    if (joined_) send();
    return joined_;
  }

  template <class Send>
  void stopBroadcast(const std::string& id, Send send) {
    const std::lock_guard lock(mutex_);
    if (guests_.erase(id) > 0 && guests_.empty()) {
      joined_ = false;
      last_ = id;
    }
    send();
  }

  template <class Send>
  void stop(Send send) {
    const std::lock_guard lock(mutex_);
    asked_ = false;
    joined_ = false;
    send();
  }

  void ring(std::string_view id) {
    const std::lock_guard lock(mutex_);
    guests_.emplace(id);
    joined_ = asked_;
  }

  void dropped(std::string_view id) {
    const std::lock_guard lock(mutex_);
    if (last_ == id) joined_ = false;
  }

  /// The service has ended; the next one knows nothing.
  void lost() {
    const std::lock_guard lock(mutex_);
    asked_ = false;
    joined_ = false;
    guests_.clear();
    last_.reset();
  }

 private:
  std::mutex mutex_;
  bool asked_ = false;   // the studio wants a session
  bool joined_ = false;  // and there is one
  std::set<std::string, std::less<>> guests_;
  std::optional<std::string> last_;  // whose removal may have ended the session
};

}  // namespace studio
