#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>

// The Chromium of browser.mjs: a participant that knows nothing of the engine.
class Browser {
 public:
  Browser();
  ~Browser();
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;

  // Calls a function of browser_page.js; throws what it throws.
  nlohmann::json call(const std::string& function, const nlohmann::json& argument);

 private:
  std::string read_line();

  int process_ = -1;
  int to_ = -1;
  int from_ = -1;
  std::string unread_;
};
