// SPDX-License-Identifier: Apache-2.0
// A prompt on the terminal, with line editing and a history that outlives the program. On
// Windows the console does both, and its history ends with the program.
#pragma once

#include <memory>
#include <string>

namespace zemtool {

// $XDG_STATE_HOME/zem/history, else ~/.local/state/zem/history. Empty on Windows, and when
// neither folder is known.
std::string defaultHistoryPath();

// Edits on stdin and stderr, so that stdout is free for answers. Needs an InterruptGuard: an
// interrupt ends the line that is being read. One at a time.
class LineEditor {
 public:
  enum class Event { Line, Interrupted, End };

  // An empty path, or a file that cannot be read, starts an empty history.
  explicit LineEditor(std::string historyPath);
  ~LineEditor();  // saves the history
  LineEditor(const LineEditor&) = delete;
  LineEditor& operator=(const LineEditor&) = delete;

  // Shows `prompt` and reads one line, without its line feed. `line` is empty after any other
  // event. Leaves the terminal as it was. `draft` stands in the line from the beginning, to be
  // edited, its control characters as spaces; on Windows it is shown above the line.
  Event read(std::string& line, const std::string& prompt, const std::string& draft = {});

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zemtool
