#include "stage/rooms.h"

#include <utility>

#include "stage/secret.h"

namespace studio {

namespace {

constexpr int mostBitsASecond = 2'500'000;
constexpr std::string_view guestPrefix = "Guest - ";
constexpr char watchName[] = "Watch";

}  // namespace

Room Room::unguessable(std::size_t tokens) {
  Room room;
  room.id = studio::unguessable();
  room.secret = studio::unguessable();
  while (room.tokens.size() < tokens) room.tokens.push_back(studio::unguessable());
  return room;
}

Rooms::Rooms(std::string url, std::string adminKey, JanusClient::Listener listener)
    : adminKey_(std::move(adminKey)),
      ready_(std::move(listener.ready)),
      client_(std::move(url), {[this, ended = listener.ended] {
                                 client_.attach("videoroom",
                                                [this](JanusClient::Handle handle) { video_ = handle; });
                                 client_.attach("textroom", [this, ended](JanusClient::Handle handle) {
                                   text_ = handle;
                                   if (video_ == 0 || text_ == 0) {
                                     ended("it lacks the plugins videoroom and textroom");
                                   } else {
                                     ready_();
                                   }
                                 });
                               },
                               listener.ended}) {}

// Asks both plugins, and tells the first fault.
void Rooms::inBoth(const Json& video, const Json& text, Done done) {
  struct Both {
    int missing = 2;
    std::string fault;
    Done done;
  };
  auto both = std::make_shared<Both>(Both{2, {}, std::move(done)});
  const auto answered = [both](const Json&, const std::string& fault) {
    if (both->fault.empty()) both->fault = fault;
    if (--both->missing == 0 && both->done) both->done(both->fault);
  };
  client_.request(video_, video, answered);
  client_.request(text_, text, answered);
}

void Rooms::make(const Room& room, Done done) {
  Json text = {{"request", "create"},   {"room", room.id},       {"description", "Show"},
               {"is_private", true},    {"secret", room.secret}, {"allowed", room.tokens},
               {"admin_key", adminKey_}};
  if (!room.pin.empty()) text["pin"] = room.pin;
  Json video = text;
  video.update({{"publishers", room.publishers},
                {"videocodec", "vp8"},
                {"audiocodec", "opus"},
                {"bitrate", mostBitsASecond},
                {"notify_joining", true},
                {"lock_record", true}});
  inBoth(video, text, std::move(done));
}

void Rooms::end(const Room& room, Done done) {
  const Json request = {{"request", "destroy"}, {"room", room.id}, {"secret", room.secret}};
  inBoth(request, request, std::move(done));
}

void Rooms::changePin(const Room& room, const std::string& pin, Done done) {
  const Json request = {{"request", "edit"}, {"room", room.id}, {"secret", room.secret}, {"new_pin", pin}};
  inBoth(request, request, std::move(done));
}

void Rooms::evictService(const Room& room, Done done) {
  const Json list = {{"request", "listparticipants"}, {"room", room.id}};
  client_.request(
      video_, list, [this, room, done = std::move(done)](const Json& data, const std::string& fault) {
        if (!fault.empty()) {
          if (done) done(fault);
          return;
        }
        struct Left {
          int missing = 1;
          Done done;
        };
        auto left = std::make_shared<Left>(Left{1, done});
        const auto kicked = [left](const Json&,
                                   const std::string&) {  // who is gone by then need not be put out
          if (--left->missing == 0 && left->done) left->done({});
        };
        for (const Json& each : data.value("participants", Json::array())) {
          const std::string display = each.value("display", "");
          if (display.starts_with(guestPrefix) || display == watchName) continue;
          Json kick = {{"request", "kick"}, {"room", room.id}, {"secret", room.secret}};
          left->missing += 2;
          kick["id"] = each.value("id", "");
          client_.request(video_, kick, kicked);
          kick.erase("id");
          kick["username"] = each.value("id", "");  // who enters TextRoom does so under this name
          client_.request(text_, kick, kicked);
        }
        kicked({}, {});
      });
}

std::unique_ptr<Rooms::Watch> Rooms::watch(const Room& room, std::string name,
                                           std::function<void(const std::optional<std::string>&)> news) {
  auto watch = std::unique_ptr<Watch>(new Watch(*this, std::move(name), std::move(news)));
  const Json join = {{"request", "join"}, {"ptype", "publisher"}, {"room", room.id},
                     {"pin", room.pin},   {"display", watchName}, {"token", room.tokens.front()}};
  client_.attach(
      "videoroom",
      [this, join, watch = watch.get(), alive = std::weak_ptr(watch->alive_)](JanusClient::Handle handle) {
        if (alive.expired()) {
          client_.detach(handle);
          return;
        }
        watch->handle_ = handle;
        client_.request(handle, join, [watch, alive](const Json& data, const std::string&) {
          if (!alive.expired()) watch->onEvent(data);
        });
      },
      [watch = watch.get(), alive = std::weak_ptr(watch->alive_)](const Json& data) {
        if (!alive.expired()) watch->onEvent(data);
      });
  return watch;
}

Rooms::Watch::Watch(Rooms& rooms, std::string name, std::function<void(const Feed&)> news)
    : rooms_(rooms), name_(std::move(name)), news_(std::move(news)) {}

Rooms::Watch::~Watch() {
  if (handle_ != 0) rooms_.client_.detach(handle_);
}

void Rooms::Watch::onEvent(const JanusClient::Json& data) {
  Feed feed = feed_;
  for (const Json& each : data.value("publishers", Json::array())) {
    if (each.value("display", "") == name_) feed = each.value("id", "");
  }
  for (const char* end : {"leaving", "unpublished", "kicked"}) {
    if (feed && data.contains(end) && data[end] == *feed) feed.reset();
  }
  if (feed == feed_) return;
  feed_ = feed;
  const auto news = news_;  // which may destroy this object
  news(feed);
}

}  // namespace studio
