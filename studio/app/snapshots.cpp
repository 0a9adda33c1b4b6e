#include "app/snapshots.h"

#include <algorithm>
#include <utility>

namespace studio {

namespace {

constexpr std::chrono::seconds frameLimit(5);

}  // namespace

void Snapshots::request(Stage::Number guest, const std::string& file, Done done) {
  const auto job = std::make_shared<Job>();
  job->guest = guest;
  job->file = file;
  job->done = std::move(done);
  job->limit.once(frameLimit, [this, weak = std::weak_ptr(job)] {
    const JobPointer late = weak.lock();
    const std::lock_guard lock(mutex_);
    if (waiting_.remove(late) == 0) return;  // a frame has come after all
    loop_.post([this, late] { finish(late, {"no frame came within 5 seconds", 0, 0}); });
  });
  jobs_.push_back(job);
  const std::lock_guard lock(mutex_);
  waiting_.push_back(job);
}

void Snapshots::offer(Stage::Number guest, const Frame& frame) {
  const std::lock_guard lock(mutex_);
  std::shared_ptr<PictureCopy> picture;
  for (auto job = waiting_.begin(); job != waiting_.end();) {
    if ((*job)->guest != guest) {
      ++job;
      continue;
    }
    if (!picture) picture = std::make_shared<PictureCopy>(frame);
    loop_.post([this, taken = *job, picture] { write(taken, picture); });
    job = waiting_.erase(job);
  }
}

void Snapshots::write(const JobPointer& job, std::shared_ptr<PictureCopy> picture) {
  job->limit.stop();
  job->writer = std::jthread([this, job = job.get(), shared = job, picture = std::move(picture)]() mutable {
    const Outcome outcome{picture->writePng(job->file), picture->width(), picture->height()};
    loop_.post([this, shared = std::move(shared), outcome] { finish(shared, outcome); });
  });
}

void Snapshots::finish(const JobPointer& job, const Outcome& outcome) {
  jobs_.remove(job);
  job->done(outcome);
}

}  // namespace studio
