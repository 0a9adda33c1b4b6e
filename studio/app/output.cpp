#include "app/output.h"

#include <unistd.h>

#include <cstdio>

namespace studio {

std::string printable(std::string_view text) {
  std::string safe;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
    if (byte < 0x20 || byte == 0x7f) {
      safe += '?';
    } else if (byte == 0xc2 && next >= 0x80 && next < 0xa0) {  // the second row of control characters
      safe += '?';
      ++i;
    } else {
      safe += text[i];
    }
  }
  return safe;
}

namespace {

// The control characters that JSON leaves as they are, written as it writes the others: whoever prints the
// line to a terminal is safe.
std::string escaped(const std::string& json) {
  constexpr char digits[] = "0123456789abcdef";
  std::string safe;
  for (std::size_t i = 0; i < json.size(); ++i) {
    const auto byte = static_cast<unsigned char>(json[i]);
    const auto next = i + 1 < json.size() ? static_cast<unsigned char>(json[i + 1]) : 0;
    if (byte == 0x7f) {
      safe += "\\u007f";
    } else if (byte == 0xc2 && next >= 0x80 && next < 0xa0) {
      safe += std::string("\\u00") + digits[next >> 4] + digits[next & 15];
      ++i;
    } else {
      safe += json[i];
    }
  }
  return safe;
}

}  // namespace

Output::Output() : terminal_(isatty(STDOUT_FILENO) == 1) {}

void Output::event(const nlohmann::ordered_json& event) {
  const std::string line =
      escaped(event.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace)) + '\n';
  before();
  const bool written = std::fwrite(line.data(), 1, line.size(), stdout) == line.size();
  const bool flushed = std::fflush(stdout) == 0;
  after();
  if (!written || !flushed) closed();
}

void Output::note(std::string_view text) {
  before();
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    std::fprintf(stderr, "%s\n", printable(line).c_str());
    text.remove_prefix(std::min(text.size(), line.size() + 1));
  }
  after();
}

}  // namespace studio
