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
  std::string running;            ///< the name of a running service, to be used instead
  std::string show = "test";
  int width = 1024;
  int height = 576;
  int framesPerSecond = 30;
  bool everyFrame = false;
  bool everySound = false;
  bool log = true;
  bool autoRejoin = true;
};

/// The options, or the status to end with after help was printed or something was wrong.
struct Parsed {
  Options options;
  std::optional<int> end;
};
Parsed parseOptions(int argc, char** argv);

}  // namespace studio
