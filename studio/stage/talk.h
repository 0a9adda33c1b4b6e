// What is said in writing, on its way round.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace studio {

/// One line of chat or a comment.
struct Line {
  std::string name;
  std::string text;
  std::string uuid;
};

/// Lines and favourites go round to everybody once; who comes later gets the last fifty. For one
/// thread.
class Talk {
 public:
  /// A guest's line as it shall go round, under the name of the seat; nothing for an empty one.
  std::optional<Line> fromGuest(const std::string& name, std::string_view text, std::string_view uuid);
  /// The studio's own line; where `uuid` is empty or taken, it gets one.
  Line fromStudio(const std::string& name, const std::string& text, const std::string& uuid);
  /// Whether the mark is news.
  bool favourite(const std::string& uuid, const std::string& state);

  const std::deque<Line>& lines() const { return lines_; }

 private:
  Line keep(Line line);
  bool known(std::string_view uuid) const;

  std::deque<Line> lines_;
  std::map<std::string, std::string> favourites_;
  std::deque<std::string> marked_;  // the favourites' uuids, oldest first
};

}  // namespace studio
