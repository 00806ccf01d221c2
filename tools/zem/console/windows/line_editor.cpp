// SPDX-License-Identifier: Apache-2.0
// The console of Windows edits lines itself, and remembers them while the program runs.
#include "console/line_editor.h"
#include "console/streams.h"
#include "console/terminal.h"

namespace zemtool {

struct LineEditor::Impl {};

std::string defaultHistoryPath() { return {}; }

LineEditor::LineEditor(std::string /*historyPath*/) {}
LineEditor::~LineEditor() = default;

LineEditor::Event LineEditor::read(std::string& line, const std::string& prompt,
                                   const std::string& draft) {
  if (!draft.empty()) remark(draft);
  flushOut();
  interruptFlag = 0;
  writeText(2, prompt);
  switch (readLine(line)) {
    case Input::Line:
      return Event::Line;
    case Input::Interrupted:
      return Event::Interrupted;
    case Input::End:
      break;
  }
  return Event::End;
}

}  // namespace zemtool
