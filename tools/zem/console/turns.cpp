// SPDX-License-Identifier: Apache-2.0
#include "console/turns.h"

#include <string_view>

#include "console/line_editor.h"
#include "console/streams.h"
#include "console/terminal.h"

namespace zemtool {
namespace {

using Event = LineEditor::Event;

constexpr std::string_view kQuotes = "\"\"\"";

// Reads a line of a turn. `first` is true for the first one.
using ReadLine = std::function<Event(std::string& line, bool first)>;

// What stands between the quotes. `line` begins with them. The end of the input ends it too.
Event readBlock(const ReadLine& read, std::string line, std::string& turn) {
  line.erase(0, kQuotes.size());
  for (bool first = true;; first = false) {
    const bool ends = line.ends_with(kQuotes);
    if (ends) line.erase(line.size() - kQuotes.size());
    if (!turn.empty() || !first) turn += '\n';
    turn += line;
    if (ends) break;
    const Event event = read(line, false);
    if (event == Event::Interrupted) return event;
    if (event == Event::End) break;
  }
  if (turn.starts_with('\n')) turn.erase(0, 1);
  if (turn.ends_with('\n')) turn.pop_back();
  return Event::Line;
}

Event readTurn(TurnForm form, const ReadLine& read, std::string& turn) {
  turn.clear();
  std::string line;
  Event event = read(line, true);
  if (event != Event::Line || form == TurnForm::Line) {
    turn = line;
    return event;
  }
  if (line.starts_with(kQuotes)) return readBlock(read, line, turn);
  while (line.ends_with('\\')) {
    line.back() = '\n';
    turn += line;
    event = read(line, false);
    if (event == Event::Interrupted) return event;
    if (event == Event::End) break;
  }
  turn += line;
  return Event::Line;
}

void converseOnTerminal(TurnForm form, const std::function<bool(const std::string&)>& take) {
  const InterruptGuard guard;
  LineEditor editor(defaultHistoryPath());
  remark(std::string("Ctrl-C stops a reply, ") + kEndKeys +
         " ends the conversation, /help lists the commands.");
  const auto read = [&](std::string& line, bool first) {
    return editor.read(line, first ? "> " : ". ");
  };
  bool interrupted = false;
  for (bool open = true; open;) {
    std::string turn;
    switch (readTurn(form, read, turn)) {
      case Event::End:
        remark("");
        return;
      case Event::Interrupted:
        remark(interrupted ? "^C" : "^C (again, or " + std::string(kEndKeys) + ", to quit)");
        if (interrupted) return;
        interrupted = true;
        break;
      case Event::Line:
        interrupted = false;
        try {
          open = take(turn);
        } catch (const Failure& failure) {
          complain(failure.what());
        }
        break;
    }
  }
}

void converseThroughPipes(TurnForm form, const std::function<bool(const std::string&)>& take) {
  size_t number = 0;
  const auto read = [&](std::string& line, bool /*first*/) {
    if (readLine(line) != Input::Line) return Event::End;
    if (line.ends_with('\r')) line.pop_back();
    requireText(line, "line " + std::to_string(++number));
    return Event::Line;
  };
  std::string turn;
  while (readTurn(form, read, turn) == Event::Line && take(turn)) {
  }
}

}  // namespace

const char* const kLinesHelp =
    "A backslash at the end of a line continues it on the next one. Several lines can stand\n"
    "between two \"\"\".";

void holdConversation(TurnForm form, const std::function<bool(const std::string& turn)>& take) {
  if (stdinIsTerminal() && stderrIsTerminal()) {
    converseOnTerminal(form, take);
  } else {
    converseThroughPipes(form, take);
  }
}

}  // namespace zemtool
