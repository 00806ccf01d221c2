// SPDX-License-Identifier: Apache-2.0
// A line on the terminal that says how far a long measurement is.
#pragma once

#include <string>

namespace zemtool {

// Shows nothing unless standard error is a terminal. The destructor erases the line. So do
// SIGINT and SIGTERM, which end the process at once, because a runtime's call cannot be
// interrupted. One at a time.
class ProgressLine {
 public:
  using Handler = void (*)(int);  // of a signal

  ProgressLine();
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void show(const std::string& text) const;
  void clear() const;

 private:
  bool shown_;
  Handler interrupt_ = nullptr;  // as found
  Handler terminate_ = nullptr;
};

}  // namespace zemtool
