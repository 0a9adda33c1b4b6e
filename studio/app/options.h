// The command line.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace studio {

struct Options {
  std::string listen = "127.0.0.1";
  std::uint16_t port = 0;
  std::filesystem::path web;
  std::filesystem::path certificate;
  std::filesystem::path key;
  std::string janus = "janus";
  std::uint16_t janusPort = 0;
  std::filesystem::path service;  ///< the executable to start
  std::filesystem::path ledger;   ///< what survives the studio; empty: nothing does
  std::size_t seats = 16;
  std::size_t requestsAMinute = 30;
  int awaySeconds = 300;
  std::string show = "test";
  std::string microphone = "off";
  std::string monitor = "off";
  int width = 1024;
  int height = 576;
  int framesPerSecond = 30;
  bool everyFrame = false;
  bool log = true;
};

/// The options, or the status to end with after help was printed or something was wrong.
struct Parsed {
  Options options;
  std::optional<int> end;
};
Parsed parseOptions(int argc, char** argv);

}  // namespace studio
