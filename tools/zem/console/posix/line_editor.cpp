// SPDX-License-Identifier: Apache-2.0
#include "console/line_editor.h"

#include <histedit.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "console/terminal.h"

namespace zemtool {
namespace {

constexpr int kHistoryLines = 1000;

// Holds back the signals that end a line or the program, so that none arrives between
// setting the terminal up and waiting for a key.
class SignalsHeld {
 public:
  SignalsHeld() {
    sigset_t held;
    sigemptyset(&held);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP}) sigaddset(&held, number);
    pthread_sigmask(SIG_BLOCK, &held, &before);
  }
  ~SignalsHeld() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
  SignalsHeld(const SignalsHeld&) = delete;
  SignalsHeld& operator=(const SignalsHeld&) = delete;

  static sigset_t before;
};
sigset_t SignalsHeld::before;

// One byte from the terminal, as read() returns it; -1 after an interrupt.
// Signals arrive here and nowhere else.
ssize_t readByte(char& byte) {
  for (;;) {
    if (interruptFlag != 0) return -1;
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (ppoll(&input, 1, nullptr, &SignalsHeld::before) > 0) {
      return ::read(STDIN_FILENO, &byte, 1);
    }
    if (errno != EINTR) return -1;
  }
}

int readCharacter(EditLine* /*editor*/, wchar_t* character) {
  std::mbstate_t state{};
  for (;;) {
    char byte = 0;
    const ssize_t got = readByte(byte);
    if (got <= 0) return static_cast<int>(got);
    const size_t length = std::mbrtowc(character, &byte, 1, &state);
    if (length == static_cast<size_t>(-2)) continue;  // more bytes belong to it
    if (length == static_cast<size_t>(-1)) *character = L'?';
    return 1;
  }
}

bool isEditing(EditLine* editor) {
  int editing = 0;
  el_get(editor, EL_EDITMODE, &editing);
  return editing != 0;
}

// What types `text`. Control characters would be commands.
std::string asKeys(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, ' ');
  return text;
}

std::string shownPrompt;

char* promptText(EditLine* /*editor*/) { return shownPrompt.data(); }

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
  el_set(impl_->editor, EL_GETCFN, &readCharacter);
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

LineEditor::Event LineEditor::read(std::string& line, const std::string& prompt,
                                   const std::string& draft) {
  line.clear();
  shownPrompt = prompt;
  flushOut();
  const SignalsHeld held;
  interruptFlag = 0;
  // Before the prompt shows, for it invites to type.
  if (isEditing(impl_->editor)) el_set(impl_->editor, EL_PREP_TERM, 1);
  if (!draft.empty()) el_push(impl_->editor, asKeys(draft).c_str());
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
