#include "report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace bench {

namespace {

double ratio(const Report::Row& row) {
  return row.floor > 0 ? row.value / row.floor : 0;
}

}  // namespace

double Durations::microseconds(double part) const {
  if (values_.empty()) throw std::logic_error("nothing was measured");
  std::vector<int64_t> sorted = values_;
  std::sort(sorted.begin(), sorted.end());
  const auto index = static_cast<size_t>(std::lround(part * static_cast<double>(sorted.size() - 1)));
  return static_cast<double>(sorted[index]) / 1000;
}

void Report::add(const std::string& name, double value, const std::string& unit, double floor, double goal) {
  rows_.push_back({name, value, unit, floor, goal});
}

void Report::add(const std::string& name, const Durations& durations, const Durations& floor, double goal) {
  add(fmt::format("{}, median", name), durations.microseconds(0.5), "us", floor.microseconds(0.5), goal);
  add(fmt::format("{}, 99th percentile", name), durations.microseconds(0.99), "us", floor.microseconds(0.99));
}

void Report::print() const {
  fmt::print("{:<84}{:>12}{:>12}  {:<6}{:>7}{:>9}\n", "", "value", "floor", "unit", "ratio", "goal");
  for (const Row& row : rows_) {
    fmt::print("{:<84}{:>12.1f}{:>12.1f}  {:<6}{:>7}{:>9}\n", row.name, row.value, row.floor, row.unit,
               row.floor > 0 ? fmt::format("{:.2f}", ratio(row)) : "-",
               row.goal > 0 ? fmt::format("<= {:.2f}", row.goal) : "");
  }
}

void Report::write(const std::string& path) const {
  nlohmann::json rows = nlohmann::json::array();
  for (const Row& row : rows_) {
    rows.push_back({{"name", row.name},
                    {"value", row.value},
                    {"unit", row.unit},
                    {"floor", row.floor},
                    {"ratio", row.floor > 0 ? nlohmann::json(ratio(row)) : nlohmann::json()}});
  }
  std::ofstream file(path);
  file << rows.dump(2) << '\n';
  if (!file) throw std::runtime_error("cannot write " + path);
}

}  // namespace bench
