// Guests' pictures to files.
#pragma once

#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "app/picture.h"
#include "stage/loop.h"
#include "studio/stage.h"

namespace studio {

/// Writes the next frame of a guest to a PNG file.
class Snapshots {
 public:
  struct Outcome {
    std::string fault;  ///< what went wrong, or nothing
    std::size_t width = 0;
    std::size_t height = 0;
  };
  using Done = std::function<void(const Outcome& outcome)>;

  /// Main loop's thread; so is the call of `done`.
  void request(Stage::Number guest, const std::string& file, Done done);
  bool pending() const { return !jobs_.empty(); }

  /// Any thread. Copies the picture if somebody waits for it.
  void offer(Stage::Number guest, const Frame& frame);

 private:
  struct Job {
    Stage::Number guest = 0;
    std::string file;
    Done done;
    Timer limit;
    std::jthread writer;
  };
  using JobPointer = std::shared_ptr<Job>;

  void write(const JobPointer& job, std::shared_ptr<PictureCopy> picture);
  void finish(const JobPointer& job, const Outcome& outcome);

  Loop loop_;
  std::list<JobPointer> jobs_;
  std::mutex mutex_;  // guards what follows
  std::list<JobPointer> waiting_;
};

}  // namespace studio
