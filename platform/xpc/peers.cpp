#include "peers.h"

#include <sys/resource.h>

#include <mutex>
#include <unordered_map>

namespace platform::xpc {
namespace {

constexpr unsigned kMostOfAProcess = 32;

rlim_t mostOfAll() {
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  return descriptors.rlim_cur / 2;
}

}  // namespace

struct Peers::Counts {
  std::mutex mutex;
  std::unordered_map<pid_t, unsigned> ofProcess;
  unsigned all = 0;
};

Peers::Peers() : counts_(std::make_shared<Counts>()) {}

Peers::Place Peers::enter(pid_t process) {
  std::lock_guard lock(counts_->mutex);
  unsigned& own = counts_->ofProcess[process];
  if (own >= kMostOfAProcess || counts_->all >= mostOfAll()) {
    if (own == 0) counts_->ofProcess.erase(process);
    return nullptr;
  }
  own++;
  counts_->all++;
  return Place(counts_.get(), [counts = counts_, process](const Counts*) {
    std::lock_guard release(counts->mutex);
    counts->all--;
    const auto found = counts->ofProcess.find(process);
    if (--found->second == 0) counts->ofProcess.erase(found);
  });
}

}  // namespace platform::xpc
