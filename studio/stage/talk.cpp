#include "stage/talk.h"

#include <uuid.h>

#include <algorithm>
#include <utility>

namespace studio {

namespace {

constexpr std::size_t mostLines = 50;
constexpr std::size_t mostMarks = 1000;
constexpr std::size_t longestText = 2000;  // bytes
constexpr std::size_t longestUuid = 128;

std::string newUuid() {
  uuid_t bytes;
  uuid_generate(bytes);
  char text[37];
  uuid_unparse_upper(bytes, text);
  return text;
}

// Cut where a character begins.
std::string_view cut(std::string_view text) {
  if (text.size() <= longestText) return text;
  std::size_t end = longestText;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) --end;
  return text.substr(0, end);
}

}  // namespace

std::optional<Line> Talk::fromGuest(const std::string& name, std::string_view text, std::string_view uuid) {
  text = cut(text);
  if (text.empty()) return std::nullopt;
  const bool usable = !uuid.empty() && uuid.size() <= longestUuid && !known(uuid);
  return keep({name, std::string(text), usable ? std::string(uuid) : newUuid()});
}

Line Talk::fromStudio(const std::string& name, const std::string& text, const std::string& uuid) {
  return keep({name, std::string(cut(text)), uuid.empty() || known(uuid) ? newUuid() : uuid});
}

bool Talk::favourite(const std::string& uuid, const std::string& state) {
  if (uuid.empty() || uuid.size() > longestUuid || (state != "yes" && state != "no")) return false;
  const auto [mark, isNew] = favourites_.try_emplace(uuid, state);
  if (!isNew) return std::exchange(mark->second, state) != state;
  marked_.push_back(uuid);
  if (marked_.size() > mostMarks) {
    favourites_.erase(marked_.front());
    marked_.pop_front();
  }
  return state == "yes";
}

Line Talk::keep(Line line) {
  lines_.push_back(line);
  if (lines_.size() > mostLines) lines_.pop_front();
  return line;
}

bool Talk::known(std::string_view uuid) const {
  return std::any_of(lines_.begin(), lines_.end(), [&](const Line& line) { return line.uuid == uuid; });
}

}  // namespace studio
