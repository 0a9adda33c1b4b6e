// A service process with the benchmark's SDK, and a studio connected to it.
#pragma once

#include <studio/client.h>
#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "control.h"

namespace bench {

// What one thread waits for and another tells. The standard's semaphore spins and yields for a while before
// it sleeps, which on one core takes the time from what is measured.
class Signal {
 public:
  void give();
  // False when nothing comes for a long time.
  bool take();

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool given_ = false;
};

// What came of the studio's side of one order.
class Studio final : public studio::Client::Listener {
 public:
  explicit Studio(const std::string& service) : client(service, *this) {}

  // Waits for the next frame or sound and answers how long it took to come; none if the service dropped the
  // frame. Throws when nothing happens.
  std::optional<int64_t> waitForArrival();
  // Asks for a sign of life and waits for it; answers how long that took.
  int64_t roundTrip();

  void onRing(const studio::Ring& ring) override;
  void onFrame(studio::Frame frame) override;
  void onSound(const studio::Sound& sound) override;
  void onAudioChanged(const studio::AudioChanged&) override {}
  void onDropped(const studio::Dropped&) override {}
  void onChat(const studio::Chat&) override {}
  void onFavourite(const studio::Favourite&) override {}
  void onLogLine(std::string_view line) override;
  void onFatalError(std::string_view) override {}
  void onRefused(std::string_view reason) override;
  void onLost(studio::Client::Loss) override {}

  void waitForRing();

  std::string lastRing;

 private:
  void arrive(std::optional<int64_t> duration);

  Signal rang_;
  Signal arrived_;
  std::optional<int64_t> duration_;

 public:
  studio::Client client;  // last: while it lives its reports arrive
};

// The service as a process of its own. It is handed its listening socket, so that a studio need not wait.
class Service {
 public:
  Service();
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // Connects a studio, joins, and answers the time from the start of the process to the service's call of
  // the SDK's connect function.
  int64_t join();
  Studio& studio() { return *studio_; }
  pid_t process() const { return process_; }

  void order(const Message& message);
  Answer answer();
  Answer ask(const Message& message);
  int controlSocket() const { return control_; }
  int floorSocket() const { return floor_; }

  // Makes a guest's stream known and brings the guest in.
  void addGuest();

 private:
  const std::string name_;
  int control_ = -1;
  int floor_ = -1;
  pid_t process_ = -1;
  int64_t started_ = 0;
  std::optional<Studio> studio_;
};

// What the processes that are started find: a directory where services listen, removed in the end, and
// variables in the environment.
class Surroundings {
 public:
  Surroundings();
  ~Surroundings();
  Surroundings(const Surroundings&) = delete;
  Surroundings& operator=(const Surroundings&) = delete;

 private:
  std::string path_;
};

// Starts a program with the descriptors at 3, 4 and so on, and answers its process.
pid_t start(const std::string& program, const std::vector<int>& descriptors);

// The end of a process that was asked to end.
void end(pid_t process);

}  // namespace bench
