#include "app/output.h"

#include <unistd.h>

#include <cstdio>

#include "app/terminal_text.h"

namespace studio {

Output::Output() : terminal_(isatty(STDOUT_FILENO) == 1) {}

void Output::event(const nlohmann::ordered_json& event) {
  const std::string line =
      printableJson(event.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace)) + '\n';
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

void Output::bell() {
  const auto now = std::chrono::steady_clock::now();
  if (isatty(STDERR_FILENO) != 1 || now - lastBell_ < std::chrono::seconds(1)) return;
  lastBell_ = now;
  std::fputc('\a', stderr);
}

}  // namespace studio
