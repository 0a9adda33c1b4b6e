#include "stage/ledger.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gio/gio.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

namespace studio {

using nlohmann::json;

namespace {

constexpr std::pair<Place, const char*> placeNames[] = {
    {Place::outside, "outside"}, {Place::greenRoom, "greenRoom"}, {Place::live, "live"}};

Place placeNamed(const std::string& name) {
  for (const auto& [place, text] : placeNames) {
    if (name == text) return place;
  }
  return Place::outside;
}

std::string nameOf(Place place) {
  for (const auto& [each, text] : placeNames) {
    if (each == place) return text;
  }
  return {};
}

Ledger::Content contentOf(const json& file) {
  Ledger::Content content;
  content.lastNumber = file.at("lastNumber").get<std::uint32_t>();
  for (const json& each : file.at("invitations"))
    content.invitations.push_back({each.at("key"), each.at("name")});
  for (const json& each : file.at("seats")) {
    content.seats.push_back(
        {each.at("number"), each.at("name"), each.at("key"), placeNamed(each.at("place")), each.at("muted")});
  }
  return content;
}

}  // namespace

Ledger::Ledger(std::filesystem::path file) : file_(std::move(file)) {
  if (file_.empty()) return;
  std::error_code ignored;
  std::filesystem::create_directories(file_.parent_path(), ignored);
  // The file itself is replaced at each writing, so that the lock is on one beside it.
  const std::string beside = file_.string() + ".lock";
  lock_ = open(beside.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lock_ < 0) {
    throw std::runtime_error(
        fmt::format("{} cannot be used: {}; name another file with --state", beside, std::strerror(errno)));
  }
  if (flock(lock_, LOCK_EX | LOCK_NB) != 0) {
    close(lock_);
    throw std::runtime_error(fmt::format(
        "{} is in use by another studio; end that one, or name another file with --state", file_.string()));
  }
}

Ledger::~Ledger() {
  if (lock_ >= 0) close(lock_);
}

Ledger::Content Ledger::read() const {
  std::ifstream stream(file_);
  if (!stream.is_open()) return {};
  try {
    return contentOf(json::parse(stream));
  } catch (const json::exception&) {
    std::error_code ignored;
    std::filesystem::rename(file_, file_.string() + ".damaged", ignored);
    return {};
  }
}

std::string Ledger::write(const Content& content) const {
  if (file_.empty()) return {};
  json file = {{"lastNumber", content.lastNumber}, {"invitations", json::array()}, {"seats", json::array()}};
  for (const Invitation& each : content.invitations) {
    file["invitations"].push_back({{"key", each.key}, {"name", each.name}});
  }
  for (const SeatRecord& each : content.seats) {
    file["seats"].push_back({{"number", each.number},
                             {"name", each.name},
                             {"key", each.key},
                             {"place", nameOf(each.place)},
                             {"muted", each.muted}});
  }
  const std::string text = file.dump(1);
  GError* error = nullptr;
  if (g_file_set_contents_full(file_.c_str(), text.data(), static_cast<gssize>(text.size()),
                               G_FILE_SET_CONTENTS_CONSISTENT, 0600, &error)) {
    return {};
  }
  const std::string fault = error->message;
  g_error_free(error);
  return fault;
}

}  // namespace studio
