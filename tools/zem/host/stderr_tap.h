// What the process writes to standard error, overheard: a runtime has no entry that
// tells what it computes on, but it prints it when it opens a model.
#pragma once

#include <optional>
#include <string>

#include "console/stderr_capture.h"

namespace zemtool {

// A compat::StderrTap, refused as a Failure.
class StderrTap {
 public:
  StderrTap();

  const std::string& finish() { return tap_->finish(); }

 private:
  std::optional<compat::StderrTap> tap_;
};

}  // namespace zemtool
