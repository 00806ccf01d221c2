#include "line_editor.h"

#include <histedit.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "terminal.h"

namespace zemtool {
namespace {

constexpr int kHistoryLines = 1000;

char* promptText(EditLine* /*editor*/) {
  static char text[] = "> ";
  return text;
}

}  // namespace

struct LineEditor::Impl {
  std::string historyPath;
  EditLine* editor = nullptr;
  History* history = nullptr;
};

std::string defaultHistoryPath() {
  const char* state = std::getenv("XDG_STATE_HOME");
  if (state != nullptr && *state == '/') return std::string(state) + "/zem/history";
  const char* home = std::getenv("HOME");
  if (home != nullptr && *home == '/') return std::string(home) + "/.local/state/zem/history";
  return {};
}

LineEditor::LineEditor(std::string historyPath) : impl_(std::make_unique<Impl>()) {
  impl_->historyPath = std::move(historyPath);
  impl_->editor = el_init("zem", stdin, stderr, stderr);
  impl_->history = history_init();
  if (impl_->editor == nullptr || impl_->history == nullptr) {
    throw Failure("the terminal cannot be set up for line editing");
  }
  HistEvent event;
  history(impl_->history, &event, H_SETSIZE, kHistoryLines);
  history(impl_->history, &event, H_SETUNIQUE, 1);
  if (!impl_->historyPath.empty()) {
    history(impl_->history, &event, H_LOAD, impl_->historyPath.c_str());
  }
  el_set(impl_->editor, EL_PROMPT, &promptText);
  el_set(impl_->editor, EL_EDITOR, "emacs");
  el_set(impl_->editor, EL_HIST, history, impl_->history);
  // Its handlers give the terminal back before any signal stops or ends us.
  el_set(impl_->editor, EL_SIGNAL, 1);
  el_source(impl_->editor, nullptr);  // the user's own key bindings, ~/.editrc
}

LineEditor::~LineEditor() {
  if (!impl_->historyPath.empty()) {
    const std::filesystem::path path = impl_->historyPath;
    std::error_code error;
    std::filesystem::create_directories(path.parent_path(), error);
    HistEvent event;
    if (history(impl_->history, &event, H_SAVE, path.c_str()) == -1) {
      complain("warning: cannot save the history in " + path.string());
    }
  }
  history_end(impl_->history);
  el_end(impl_->editor);
}

LineEditor::Event LineEditor::read(std::string& line) {
  line.clear();
  interruptFlag = 0;
  std::fflush(stdout);
  int length = 0;
  const char* text = el_gets(impl_->editor, &length);
  if (interruptFlag != 0) return Event::Interrupted;
  if (text == nullptr || length <= 0) return Event::End;
  line.assign(text, static_cast<size_t>(length));
  if (line.ends_with('\n')) line.pop_back();
  if (line.find_first_not_of(" \t") != std::string::npos) {
    HistEvent event;
    history(impl_->history, &event, H_ENTER, line.c_str());
  }
  return Event::Line;
}

}  // namespace zemtool
