// SPDX-License-Identifier: Apache-2.0
// zem plugin chat: a conversation, on a terminal or line by line through pipes.
#include <exception>
#include <memory>
#include <string>

#include "commands/options.h"
#include "commands/plugin/plugin.h"
#include "console/streams.h"
#include "console/terminal.h"
#include "console/text.h"
#include "console/turns.h"
#include "host/gpu_choice.h"
#include "host/plugin_host.h"

namespace zemtool {
namespace {

std::string pluginChatCommands() {
  return "/clear          start a new conversation\n"
         "/system TEXT    system prompt of the next conversation (/clear starts it)\n"
         "/stats          tokens and speed since the last /clear\n"
         "/help           this list\n"
         "/quit           end the program (so does " +
         std::string(kEndKeys) + ")";
}

struct PluginChatOptions {
  SessionOptions session;
  SamplingOptions sampling;
  std::string system;
};

// Shows one reply as it arrives.
class PiecePrinter {
 public:
  int pieces() const { return pieces_; }

  // A ZEMChatTokenFn; `user` is a PiecePrinter. An exception must not pass through the
  // runtime's frames: it ends the turn, and finish() throws it again.
  static void onPiece(const char* piece, uint32_t length, void* user) noexcept {
    auto* self = static_cast<PiecePrinter*>(user);
    ++self->pieces_;
    try {
      self->show(self->joiner_.push({piece, length}));
    } catch (...) {
      self->problem_ = std::current_exception();
      interruptFlag = 1;
    }
  }

  void finish() {
    if (problem_) std::rethrow_exception(problem_);
    show(joiner_.finish());
    if (!atLineStart_ || pieces_ == 0) writeOut("\n");
    flushOut();
  }

 private:
  void show(const std::string& text) {
    if (text.empty()) return;
    writeOut(stdoutIsTerminal() ? escapeControls(text, "\n\t") : text);
    flushOut();
    atLineStart_ = text.back() == '\n';
  }

  Utf8Joiner joiner_;
  std::exception_ptr problem_;
  int pieces_ = 0;
  bool atLineStart_ = false;
};

class PluginConversation {
 public:
  PluginConversation(const PluginHost& host, const PluginChatOptions& options)
      : session_(host, options.session), systemPrompt_(options.system) {
    session_.configure(sessionRecord(options.sampling));
    applySystemPrompt();
  }

  // One line of the user: a turn or a command. Returns false for /quit.
  bool take(const std::string& line) {
    if (line.find_first_not_of(" \t") == std::string::npos) return true;
    if (line[0] != '/') {
      turn(line);
      return true;
    }
    return command(line);
  }

 private:
  void turn(const std::string& text) {
    started_ = true;
    interruptFlag = 0;
    PiecePrinter printer;
    try {
      session_.chatTurn(text, &PiecePrinter::onPiece, &printer, &interruptFlag);
    } catch (const Failure&) {
      if (printer.pieces() > 0) printer.finish();
      throw;
    }
    const bool stopped = interruptFlag != 0;
    printer.finish();
    if (stopped) {
      remark("(stopped)");
    } else if (printer.pieces() >= kTokenBudget) {
      remark("(the reply ended at the runtime's limit of " + std::to_string(kTokenBudget) +
             " tokens)");
    }
  }

  bool command(const std::string& line) {
    const size_t space = line.find_first_of(" \t");
    const std::string name = line.substr(0, space);
    const size_t begin = line.find_first_not_of(" \t", space);
    const std::string rest = begin == std::string::npos ? "" : line.substr(begin);
    if (name == "/quit") return false;
    if (name == "/clear") {
      clear();
    } else if (name == "/system") {
      setSystemPrompt(rest);
    } else if (name == "/stats") {
      remark(describeStats(session_.stats()));
    } else if (name == "/help") {
      remark(pluginChatCommands());
    } else {
      complain("unknown command " + name +
               "; /help lists them (a space in front sends the line as text)");
    }
    return true;
  }

  void clear() {
    session_.reset();
    started_ = false;
    applySystemPrompt();
    remark("(new conversation)");
  }

  void setSystemPrompt(const std::string& text) {
    if (text.empty()) {
      remark(systemPrompt_.empty() ? "(no system prompt)" : systemPrompt_);
      return;
    }
    systemPrompt_ = text;
    if (started_) {
      remark("(the system prompt takes effect after /clear)");
    } else {
      applySystemPrompt();
    }
  }

  // A runtime takes a system prompt only while no conversation is running.
  void applySystemPrompt() {
    if (systemPrompt_.empty()) return;
    ZEMSessionOptions settings = sessionRecord({});
    settings.system_prompt = systemPrompt_.c_str();
    session_.configure(settings);
  }

  Session session_;
  std::string systemPrompt_;
  bool started_ = false;
};

void chat(PluginChatOptions options) {
  applyThreads(options.session.threads);
  settleGpu(options.session);
  const PluginHost host(findPlugin(options.session.plugin));
  PluginConversation conversation(host, options);
  holdConversation(TurnForm::Line, [&](const std::string& line, std::string& /*draft*/) {
    return conversation.take(line);
  });
}

}  // namespace

void addPluginChat(Command& program, int& status) {
  auto options = std::make_shared<PluginChatOptions>();
  Command command = program.command("chat", "Hold a conversation");
  addSessionOptions(command, options->session);
  addContextOption(command, options->session);
  command
      .option("--system-prompt", options->system,
              "System prompt of the conversation; -sys for short")
      .valueName("TEXT");
  addSamplingOptions(command, options->sampling);
  command.footer(std::string("Replies, of up to 96 tokens, go to standard output, all else to "
                             "standard error. Without a\nterminal each line of standard input is "
                             "a turn. Commands, with and without a terminal:\n") +
                 pluginChatCommands() +
                 "\n\nExamples:\n"
                 "  zem plugin chat -m model.zem -sys \"Answer in one sentence.\"\n"
                 "  echo \"Why is the sky blue?\" | zem plugin chat -m model.zem");
  command.action([options, &status] { status = guarded([&] { chat(*options); }); });
}

}  // namespace zemtool
