#include "stage/program_feed.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "stage/secret.h"

namespace studio {

namespace {

constexpr char streamName[] = "ZarvoLive";
// Longer than the service needs to join and to publish on a machine under load.
constexpr std::chrono::seconds unseenLimit(10);
// Nobody has this id: the service publishes, and brings nobody in.
constexpr char nobody[] = "program";

}  // namespace

class ProgramFeed::Reports : public Client::Listener {
 public:
  explicit Reports(ProgramFeed& feed) : feed_(feed) {}

  std::weak_ptr<bool> alive() const { return alive_; }

 private:
  template <typename Task>
  void post(Task task) {
    feed_.loop_.post([alive = alive(), task = std::move(task)] {
      if (!alive.expired()) task();
    });
  }

  void onRing(const Ring&) override {}
  void onAudioChanged(const AudioChanged&) override {}
  void onDropped(const Dropped&) override {
    post([this] { feed_.replace("has lost its session"); });
  }
  void onChat(const Chat&) override {}
  void onFavourite(const Favourite&) override {}
  void onFrame(Frame) override {}
  void onSound(const Sound&) override {}
  void onLogLine(std::string_view line) override {
    post([this, line = std::string(line)] { feed_.news_.log(line); });
  }
  void onFatalError(std::string_view text) override { onLogLine(text); }
  void onRefused(std::string_view reason) override { onLogLine(reason); }
  void onLost(Client::Loss loss) override {
    if (loss == Client::Loss::terminating) return;  // its end follows
    post([this] { feed_.replace("has closed the connection"); });
  }

  ProgramFeed& feed_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

ProgramFeed::ProgramFeed(Spares& spares, News news) : spares_(spares), news_(std::move(news)) {}

ProgramFeed::~ProgramFeed() {
  withdraw();
}

void ProgramFeed::open(Rooms& rooms) {
  close();
  rooms_ = &rooms;
  room_ = Room::unguessable(1);
  room_.pin = unguessable();
  access_ = Access{room_.id, room_.pin, {}};
  asked_ = std::make_shared<bool>(true);
  rooms.make(room_, [this, asked = std::weak_ptr(asked_)](const std::string& fault) {
    if (asked.expired()) return;
    if (!fault.empty()) {
      news_.log("the program's room cannot be made: " + fault);
      return;
    }
    watch_ =
        rooms_->watch(room_, streamName, [this](const std::optional<std::string>& feed) { onFeed(feed); });
    publish();
  });
}

void ProgramFeed::close() {
  asked_.reset();
  watch_.reset();
  withdraw();
  rooms_ = nullptr;
  if (std::exchange(access_, std::nullopt)) news_.accessChanged();
}

void ProgramFeed::changePin() {
  if (!watch_) return;  // nobody has been told it yet
  const std::string pin = unguessable();
  rooms_->changePin(room_, pin, [this, pin, asked = std::weak_ptr(asked_)](const std::string& fault) {
    if (asked.expired()) return;
    if (!fault.empty()) {
      news_.log("the program's room keeps its pin: " + fault);
      return;
    }
    room_.pin = access_->pin = pin;
    news_.accessChanged();
  });
}

bool ProgramFeed::show(IOSurfaceRef picture) {
  const std::lock_guard lock(clientMutex_);
  return client_ && client_->videoFrame(picture);
}

void ProgramFeed::publish() {
  spares_.take([this, asked = std::weak_ptr(asked_)](std::unique_ptr<GuestService> service) {
    if (!asked.expired()) serve(std::move(service));
  });
}

void ProgramFeed::serve(std::unique_ptr<GuestService> service) {
  service_ = std::move(service);
  reports_ = std::make_unique<Reports>(*this);
  service_->onEnd(loop_, [this, alive = reports_->alive()](ServiceProcess::End end) {
    if (!alive.expired()) replace(end.describe());
  });
  auto client = std::make_unique<Client>(service_->name(), *reports_);
  client->init(room_.id, nlohmann::json{{"token", room_.tokens[0]}, {"pin", room_.pin}}.dump());
  client->startBroadcast(nobody);
  unseen_.once(unseenLimit, [this] { replace("does not publish the program"); });
  const std::lock_guard lock(clientMutex_);
  client_ = std::move(client);
}

void ProgramFeed::withdraw() {
  unseen_.stop();
  std::unique_ptr<Client> client;
  {
    const std::lock_guard lock(clientMutex_);
    client = std::move(client_);
  }
  client.reset();  // without the lock: waits for its listener's calls
  reports_.reset();
  service_.reset();
}

void ProgramFeed::replace(const std::string& reason) {
  withdraw();
  news_.serviceLost(reason);
  // A service that has been used takes no second session: a fresh one, with the pin as it is now.
  rooms_->evictService(room_, [this, asked = std::weak_ptr(asked_)](const std::string&) {
    if (!asked.expired()) publish();
  });
}

void ProgramFeed::onFeed(const std::optional<std::string>& feed) {
  access_->feed = feed;
  if (feed) {
    unseen_.stop();
  } else if (client_) {
    unseen_.once(unseenLimit, [this] { replace("does not publish the program any more"); });
  }
  news_.accessChanged();
}

}  // namespace studio
