// One line on a terminal's standard error that says how far a long measurement is.
#pragma once

#include <string>

namespace zemtool {

// Shows nothing where standard error is no terminal. The line is gone when the
// object is, or when a signal ends the process, which it does at once: a runtime's
// call cannot be interrupted, and nothing is left behind. One at a time.
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
