// What needs real browsers and a real session server is measured by a program of its own, under node and in a
// network of its own; it prints the rows.

#include <fmt/format.h>
#include <stdio.h>

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "measurements.h"

namespace bench {

bool measureMedia(Report& report, const std::string& part) {
  const std::string command =
      fmt::format("'{}' node '{}' '{}' {}", PRIVATE_NETWORK, MEDIA_PROGRAM, PROGRAMS, part);
  FILE* const rows = popen(command.c_str(), "r");
  if (rows == nullptr) throw std::runtime_error("cannot run " + command);
  std::string line;
  for (int byte = fgetc(rows); byte != EOF; byte = fgetc(rows)) {
    if (byte != '\n') {
      line += static_cast<char>(byte);
      continue;
    }
    const auto row = nlohmann::json::parse(line);
    report.add(row["name"], row["value"], row["unit"], row["floor"], row["goal"]);
    line.clear();
  }
  return pclose(rows) == 0;
}

}  // namespace bench
