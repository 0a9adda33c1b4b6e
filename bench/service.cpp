#include "service.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>
#include <vector>

#include "plain_socket.h"

namespace bench {

namespace {

constexpr std::chrono::seconds kPatience(20);
constexpr int kFirstDescriptor = 3;

int listeningSocket(const std::string& name) {
  const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const char* const directory = std::getenv("XDG_RUNTIME_DIR");
  const std::string path = fmt::format("{}/{}", directory != nullptr ? directory : "", name);
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(socket, 4) != 0) {
    throw std::runtime_error("cannot listen at " + path);
  }
  return socket;
}

struct SocketPair {
  SocketPair() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
      throw std::runtime_error("no socket pair");
    }
    ours = ends[0];
    theirs = ends[1];
  }
  int ours;
  int theirs;
};

std::string uniqueName() {
  static int count = 0;
  return fmt::format("service-{}", ++count);
}

}  // namespace

void Signal::give() {
  {
    const std::lock_guard guard(mutex_);
    given_ = true;
  }
  changed_.notify_one();
}

bool Signal::take() {
  std::unique_lock lock(mutex_);
  if (!changed_.wait_for(lock, kPatience, [this] { return given_; })) return false;
  given_ = false;
  return true;
}

std::optional<int64_t> Studio::waitForArrival() {
  if (!arrived_.take()) throw std::runtime_error("the service does not answer");
  return std::exchange(duration_, std::nullopt);
}

int64_t Studio::roundTrip() {
  const int64_t begin = now();
  client.there([this, begin](bool) { arrive(now() - begin); });
  return *waitForArrival();
}

void Studio::waitForRing() {
  if (!rang_.take()) throw std::runtime_error("the guest does not ring");
}

void Studio::onRing(const studio::Ring& ring) {
  lastRing = ring.id;
  rang_.give();
}

void Studio::onFrame(studio::Frame frame) {
  const int64_t duration = now() - frame.timestamp();
  // The answer leaves before the next frame is ordered.
  { const studio::Frame done = std::move(frame); }
  arrive(duration);
}

void Studio::onSound(const studio::Sound& sound) {
  int64_t sent = 0;
  std::memcpy(&sent, sound.samples.data(), sizeof sent);
  arrive(now() - sent);
}

void Studio::onLogLine(std::string_view line) {
  if (line == "too many pixelbuffers queued for guest") arrive(std::nullopt);
}

void Studio::onRefused(std::string_view reason) {
  fmt::print(stderr, "the studio refused {}\n", reason);
  std::abort();
}

void Studio::arrive(std::optional<int64_t> duration) {
  duration_ = duration;
  arrived_.give();
}

Surroundings::Surroundings() {
  std::string path = (std::filesystem::temp_directory_path() / "zarvo-bench-XXXXXX").string();
  if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("cannot make " + path);
  path_ = path;
  // What the processes that are started find in their environment.
  setenv("XDG_RUNTIME_DIR", path_.c_str(), 1);
  setenv("LISTEN_FDS", "1", 1);
  setenv("LD_LIBRARY_PATH", SDK_DIRECTORY, 1);
  setenv(kControlVariable, std::to_string(kFirstDescriptor + 1).c_str(), 1);
  setenv(kFloorVariable, std::to_string(kFirstDescriptor + 2).c_str(), 1);
}

Surroundings::~Surroundings() {
  std::filesystem::remove_all(path_);
}

pid_t start(const std::string& program, const std::vector<int>& descriptors) {
  std::array<char, 32> process{};
  std::vector<char*> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) environment.push_back(*entry);
  environment.push_back(process.data());
  environment.push_back(nullptr);
  std::string path = program;
  char* const arguments[] = {path.data(), nullptr};

  const pid_t started = fork();
  if (started != 0) return started;
  // Nothing here may allocate: other threads may have held the heap's locks.
  *fmt::format_to(process.data(), "LISTEN_PID={}", getpid()) = '\0';
  int place = kFirstDescriptor;
  for (const int descriptor : descriptors) {
    // By way of a number that none of them has, so that none is written over and none closes at exec.
    const int copy = fcntl(descriptor, F_DUPFD_CLOEXEC, 100);
    dup2(copy, place++);
  }
  execve(program.c_str(), arguments, environment.data());
  _exit(127);
}

void end(pid_t process) {
  kill(process, SIGKILL);
  waitpid(process, nullptr, 0);
}

Service::Service() : name_(uniqueName()) {
  const SocketPair control;
  const SocketPair floor;
  control_ = control.ours;
  floor_ = floor.ours;
  const int listening = listeningSocket(name_);
  started_ = now();
  process_ = start(SERVICE_PROGRAM, {listening, control.theirs, floor.theirs});
  close(listening);
  close(control.theirs);
  close(floor.theirs);
}

Service::~Service() {
  end(process_);
  studio_.reset();
  close(control_);
  close(floor_);
}

int64_t Service::join() {
  studio_.emplace(name_);
  studio_->client.init("session", "token");
  return answer().nanoseconds - started_;
}

void Service::order(const Message& message) {
  sendPlain(control_, &message, sizeof message);
}

Answer Service::answer() {
  Answer answer;
  if (!receivePlain(control_, &answer, sizeof answer)) throw std::runtime_error("the service has ended");
  return answer;
}

Answer Service::ask(const Message& message) {
  order(message);
  return answer();
}

void Service::addGuest() {
  ask({.order = Order::announceGuest});
  studio_->waitForRing();
  studio_->client.startBroadcast(studio_->lastRing);
  studio_->roundTrip();
}

}  // namespace bench
