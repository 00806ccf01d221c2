// The console of Windows edits lines itself and remembers them while the program
// runs.
#include "console/line_editor.h"
#include "console/streams.h"
#include "console/terminal.h"

namespace zemtool {

struct LineEditor::Impl {};

std::string defaultHistoryPath() { return {}; }

LineEditor::LineEditor(std::string /*historyPath*/) {}
LineEditor::~LineEditor() = default;

LineEditor::Event LineEditor::read(std::string& line) {
  flushOut();
  interruptFlag = 0;
  compat::writeText(2, "> ");
  switch (compat::readLine(line)) {
    case compat::Input::Line:
      return Event::Line;
    case compat::Input::Interrupted:
      return Event::Interrupted;
    case compat::Input::End:
      break;
  }
  return Event::End;
}

}  // namespace zemtool
