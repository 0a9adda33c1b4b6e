// The table of results, on standard output and as build/bench.json.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// Durations of one thing, in nanoseconds.
class Durations {
 public:
  void add(int64_t nanoseconds) { values_.push_back(nanoseconds); }
  // The duration that the given part of them, 0 to 1, does not exceed, in microseconds.
  double microseconds(double part) const;

 private:
  std::vector<int64_t> values_;
};

class Report {
 public:
  // A figure, and what it cannot be below, measured in the same run; `goal` is the ratio wanted.
  struct Row {
    std::string name;
    double value;
    std::string unit;
    double floor;
    double goal;
  };

  void add(const std::string& name, double value, const std::string& unit, double floor, double goal = 0);
  // Median and 99th percentile of both.
  void add(const std::string& name, const Durations& durations, const Durations& floor, double goal = 0);

  void print() const;
  void write(const std::string& path) const;

 private:
  std::vector<Row> rows_;
};

}  // namespace bench
