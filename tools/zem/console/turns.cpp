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

// Takes the next line out of a draft, as it is typed.
std::string nextLine(std::string& draft) {
  const size_t end = draft.find('\n');
  std::string line = draft.substr(0, end);
  if (end != std::string::npos) line += '\\';
  draft.erase(0, end == std::string::npos ? end : end + 1);
  return line;
}

void converseOnTerminal(TurnForm form, const TakeTurn& take) {
  const InterruptGuard guard;
  LineEditor editor(defaultHistoryPath());
  remark(std::string("Ctrl-C stops a reply, ") + kEndKeys +
         " ends the conversation, /help lists the commands.");
  std::string draft;
  const auto read = [&](std::string& line, bool first) {
    return editor.read(line, first ? "> " : ". ", nextLine(draft));
  };
  bool interrupted = false;
  for (bool open = true; open;) {
    std::string turn;
    const Event event = readTurn(form, read, turn);
    draft.clear();
    switch (event) {
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
          open = take(turn, draft);
        } catch (const Failure& failure) {
          complain(failure.what());
        }
        break;
    }
  }
}

void converseThroughPipes(TurnForm form, const TakeTurn& take) {
  size_t number = 0;
  const auto read = [&](std::string& line, bool /*first*/) {
    if (readLine(line) != Input::Line) return Event::End;
    if (line.ends_with('\r')) line.pop_back();
    requireText(line, "line " + std::to_string(++number));
    return Event::Line;
  };
  std::string turn;
  std::string draft;
  while (readTurn(form, read, turn) == Event::Line && take(turn, draft)) {
  }
}

}  // namespace

const char* const kLinesHelp =
    "A backslash at the end of a line continues it on the next one. Several lines can stand\n"
    "between two \"\"\".";

bool conversesOnTerminal() { return stdinIsTerminal() && stderrIsTerminal(); }

void holdConversation(TurnForm form, const TakeTurn& take) {
  if (conversesOnTerminal()) {
    converseOnTerminal(form, take);
  } else {
    converseThroughPipes(form, take);
  }
}

}  // namespace zemtool
