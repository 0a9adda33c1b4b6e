#pragma once

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "child.h"

// The Chromium of browser.mjs: a participant that knows nothing of the engine.
class Browser {
 public:
  Browser() {
    std::array<int, 2> in = {};
    std::array<int, 2> out = {};
    if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipe");
    }
    process_.emplace(std::vector<std::string>{"node", ENGINE_TESTS_DIRECTORY "/browser.mjs"},
                     std::map<int, int>{{STDIN_FILENO, in[0]}, {STDOUT_FILENO, out[1]}});
    close(in[0]);
    close(out[1]);
    to_ = in[1];
    from_ = out[0];
    readLine();
  }
  ~Browser() {
    close(to_);  // the end of its input ends it
    close(from_);
    process_->waitForEnd();
  }
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;

  // Calls a function of browser_page.js; throws what it throws.
  nlohmann::json call(const std::string& function,
                      const nlohmann::json& argument = nlohmann::json::object()) const {
    const std::string line = nlohmann::json{{"call", function}, {"with", argument}}.dump() + "\n";
    if (write(to_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
      throw std::runtime_error("the browser has ended");
    }
    const nlohmann::json answer = nlohmann::json::parse(readLine());
    if (answer.contains("error")) throw std::runtime_error(answer["error"].get<std::string>());
    return answer["result"];
  }

 private:
  std::string readLine() const {
    std::string line;
    for (char next = 0; next != '\n'; line += next) {
      pollfd waiting = {from_, POLLIN, 0};
      if (poll(&waiting, 1, 60000) <= 0 || read(from_, &next, 1) != 1) {
        throw std::runtime_error("the browser does not answer");
      }
    }
    return line;
  }

  int to_ = -1;
  int from_ = -1;
  std::optional<Child> process_;
};
