// The show's picture on its way to the guests: encoded once, in a room of its own.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "stage/guest_service.h"
#include "stage/loop.h"
#include "stage/rooms.h"
#include "stage/spares.h"
#include "studio/client.h"

namespace studio {

/// Keeps a service publishing into the program's room: another takes its place where it ends, or where the
/// room does not show that it publishes. For one loop's thread, except where noted.
class ProgramFeed {
 public:
  struct News {
    /// What guests need to receive the program has changed; see access().
    std::function<void()> accessChanged;
    /// The service has ended or does not publish, and is being replaced.
    std::function<void(const std::string& reason)> serviceLost;
    std::function<void(std::string_view line)> log;
  };

  /// What a guest's page shows the room in order to receive the program.
  struct Access {
    std::string room;
    std::string pin;
    std::optional<std::string> feed;  ///< nothing while it is not being published
  };

  /// `spares` must outlive this object.
  ProgramFeed(Spares& spares, News news);
  ~ProgramFeed();
  ProgramFeed(const ProgramFeed&) = delete;
  ProgramFeed& operator=(const ProgramFeed&) = delete;

  /// Makes a room on this server and publishes into it. `rooms` must stay until the next open or close.
  void open(Rooms& rooms);
  /// The server is gone, and the room with it.
  void close();
  /// Turns off what was told of the room: who is in stays in, who comes needs the new pin.
  void changePin();

  const std::optional<Access>& access() const { return access_; }

  /// Shows a picture to the guests; false where it was not taken. Any thread.
  bool show(IOSurfaceRef picture);

 private:
  class Reports;

  void publish();
  void serve(std::unique_ptr<GuestService> service);
  void withdraw();
  void replace(const std::string& reason);
  void onFeed(const std::optional<std::string>& feed);

  Spares& spares_;
  News news_;
  Loop loop_;
  Rooms* rooms_ = nullptr;
  Room room_;
  std::unique_ptr<Rooms::Watch> watch_;
  std::optional<Access> access_;
  std::shared_ptr<bool> asked_;  // a service has been asked for; with this gone, it comes too late

  std::unique_ptr<GuestService> service_;
  std::unique_ptr<Reports> reports_;
  std::mutex clientMutex_;  // guards the pointer against show(); it changes on the loop only
  std::unique_ptr<Client> client_;
  Timer unseen_;
};

}  // namespace studio
