// Where commands come from: a person at a terminal, or a pipe.
#pragma once

#include <glib.h>

#include <functional>
#include <memory>
#include <string>

#include "app/output.h"

namespace studio {

/// Reads lines from standard input until it is destroyed. For the main loop's thread.
class Prompt {
 public:
  using OnLine = std::function<void(const std::string& line)>;
  /// Called once when there are no more lines.
  using OnEnd = std::function<void()>;

  virtual ~Prompt() = default;

  /// At a terminal a prompt with history and completion, put away whenever `output` writes; else a pipe.
  /// Neither function may destroy the prompt.
  static std::unique_ptr<Prompt> open(Output& output, OnLine onLine, OnEnd onEnd);
};

}  // namespace studio
