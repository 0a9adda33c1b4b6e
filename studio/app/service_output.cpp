#include "app/service_output.h"

#include <fcntl.h>
#include <glib-unix.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace studio {

namespace {

constexpr std::size_t longestLine = 16'384;

}  // namespace

ServiceOutput::ServiceOutput(std::function<void(const std::string& line)> onLine)
    : onLine_(std::move(onLine)) {
  if (pipe2(ends_, O_CLOEXEC) < 0) throw std::system_error(errno, std::generic_category(), "pipe");
  fcntl(ends_[0], F_SETFL, O_NONBLOCK);
  watch_ = g_unix_fd_add(
      ends_[0], G_IO_IN,
      [](gint, GIOCondition, gpointer self) -> gboolean {
        static_cast<ServiceOutput*>(self)->drain();
        return G_SOURCE_CONTINUE;
      },
      this);
}

ServiceOutput::~ServiceOutput() {
  g_source_remove(watch_);
  close(ends_[0]);
  close(ends_[1]);
}

void ServiceOutput::drain() {
  char piece[4096];
  for (ssize_t count = 0; (count = read(ends_[0], piece, sizeof piece)) > 0;) {
    unread_.append(piece, static_cast<std::size_t>(count));
    if (unread_.size() > longestLine) unread_ += '\n';
    for (std::size_t end = 0; (end = unread_.find('\n')) != std::string::npos;) {
      const std::string line = unread_.substr(0, end);
      unread_.erase(0, end + 1);
      onLine_(line);
    }
  }
}

}  // namespace studio
