// A prompt on the terminal: line editing with a history that outlives the program,
// except on Windows, where both are the console's.
#pragma once

#include <memory>
#include <string>

namespace zemtool {

// $XDG_STATE_HOME/zem/history, else ~/.local/state/zem/history; empty when
// neither folder is known, and on Windows.
std::string defaultHistoryPath();

// Edits on stdin and stderr, so that stdout is free for answers. One at a time,
// and under an InterruptGuard: an interrupt ends the line being read.
class LineEditor {
 public:
  enum class Event { Line, Interrupted, End };

  // An empty path, or a file that cannot be read, starts an empty history.
  explicit LineEditor(std::string historyPath);
  ~LineEditor();  // saves the history
  LineEditor(const LineEditor&) = delete;
  LineEditor& operator=(const LineEditor&) = delete;

  // Reads one line, without its line feed; `line` is empty after any other
  // event. The terminal is left as it was found.
  Event read(std::string& line);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zemtool
