#include "browser.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <stdexcept>

Browser::Browser() {
  std::array<int, 2> in = {};
  std::array<int, 2> out = {};
  if (pipe(in.data()) != 0 || pipe(out.data()) != 0) throw std::runtime_error("no pipe");
  process_ = fork();
  if (process_ == 0) {
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    for (const int fd : {in[0], in[1], out[0], out[1]}) close(fd);
    execlp("node", "node", ENGINE_TESTS_DIRECTORY "/browser.mjs", nullptr);
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  to_ = in[1];
  from_ = out[0];
  read_line();
}

Browser::~Browser() {
  close(to_);  // the end of its input ends it
  close(from_);
  waitpid(process_, nullptr, 0);
}

nlohmann::json Browser::call(const std::string& function, const nlohmann::json& argument) {
  const std::string line = nlohmann::json{{"call", function}, {"with", argument}}.dump() + "\n";
  if (write(to_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
    throw std::runtime_error("the browser has ended");
  }
  const nlohmann::json answer = nlohmann::json::parse(read_line());
  if (answer.contains("error")) throw std::runtime_error(answer["error"].get<std::string>());
  return answer["result"];
}

std::string Browser::read_line() {
  for (;;) {
    const std::size_t end = unread_.find('\n');
    if (end != std::string::npos) {
      std::string line = unread_.substr(0, end);
      unread_.erase(0, end + 1);
      return line;
    }
    pollfd waiting = {from_, POLLIN, 0};
    std::array<char, 4096> part = {};
    const ssize_t count = poll(&waiting, 1, 60000) > 0 ? read(from_, part.data(), part.size()) : 0;
    if (count <= 0) throw std::runtime_error("the browser does not answer");
    unread_.append(part.data(), static_cast<std::size_t>(count));
  }
}
