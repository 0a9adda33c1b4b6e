#pragma once

#include <string>

namespace engine {

// What a session is joined with. A program has one string for it, its token.
struct Access {
  std::string token;
  std::string pin;     // the room's; empty: it has none
  std::string server;  // empty: the one that the environment names

  // Takes any text: an object of README.md's form as what it says, everything else as a token.
  static Access parse(const std::string& text);
};

}  // namespace engine
