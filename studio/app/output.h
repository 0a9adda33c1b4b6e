// What the studio says: reports as JSON lines on standard output, all else on standard error.
#pragma once

#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace studio {

/// For the main loop's thread.
class Output {
 public:
  Output();

  /// One line on standard output. Bytes that are not UTF-8 are replaced.
  void event(const nlohmann::ordered_json& event);
  /// One or more lines for people, on standard error, made `printable`.
  void note(std::string_view text);
  /// Rings the terminal's bell, if there is one; at most once a second.
  void bell();

  /// Called before and after something is written, to put the prompt away and back.
  std::function<void()> before = [] {};
  std::function<void()> after = [] {};
  /// Called when standard output takes no more, since who read it has gone.
  std::function<void()> closed = [] {};

  bool isTerminal() const { return terminal_; }

 private:
  bool terminal_;
  std::chrono::steady_clock::time_point lastBell_;
};

}  // namespace studio
