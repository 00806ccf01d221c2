// SPDX-License-Identifier: Apache-2.0
// zem chat: a conversation, on a terminal or line by line through pipes.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "commands/commands.h"
#include "commands/options.h"
#include "commands/talk_options.h"
#include "compat/files.h"
#include "console/streams.h"
#include "console/terminal.h"
#include "console/turns.h"
#include "talk/conversation.h"
#include "talk/follow_reply.h"
#include "talk/reply_printer.h"
#include "talk/reply_record.h"

namespace zemtool {
namespace {

using zem::text::Json;
using zem::text::Message;

// States of earlier turns. A long conversation must fit, for what does not is evaluated again.
constexpr size_t kKeptBytes = size_t{4} << 30;

// An older file stays as it was until the new one is whole.
void writeFile(const std::string& path, const std::string& text) {
  using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
  const std::string part = path + ".part";
  File file(compat::openStream(part.c_str(), "wb"), &std::fclose);
  bool written = file && std::fwrite(text.data(), 1, text.size(), file.get()) == text.size();
  if (file) written = std::fclose(file.release()) == 0 && written;
  if (written && compat::moveOver(part.c_str(), path.c_str())) return;
  const std::string reason = std::strerror(errno);
  compat::removeFile(part.c_str());
  throw Failure("cannot write " + path + ": " + reason);
}

class Chat {
 public:
  explicit Chat(const TalkOptions& options)
      : engine_(openEngine(options.model, options.chatTemplate, kKeptBytes)),
        request_(chatRequestOf(options)),
        conversation_(options.system),
        view_(thinkingView(options, ThinkingView::Shown)) {
    if (engine_->chatFormat() == nullptr) {
      throw Failure(options.model.model +
                    ": its chat template is none of the known revisions; name one with "
                    "--chat-template (" +
                    zem::text::chatFormatNames() + ")");
    }
  }

  // What the user said: a message or a command. False: the conversation is over. `draft` becomes
  // what the user may edit next.
  bool take(const std::string& turn, std::string& draft) {
    draft_.clear();
    const bool goesOn = takeTurn(turn);
    draft = draft_;
    return goesOn;
  }

  static std::string commandsHelp();

 private:
  struct ChatCommand {
    const char* name;
    const char* argument;
    const char* help;
    void (Chat::*run)(const std::string& argument);
  };
  static const ChatCommand kCommands[];

  bool takeTurn(const std::string& turn) {
    if (turn.find_first_not_of(" \t\n") == std::string::npos) return true;
    if (turn[0] == '/') return obey(turn);
    conversation_.ask(turn);
    reply();
    return true;
  }
  bool obey(const std::string& turn);
  void reply();
  void noteEnd(const FollowedReply& reply, const ReplyPrinter& printer);

  void clear(const std::string& argument);
  void setSystem(const std::string& text);
  void regenerate(const std::string& argument);
  void undo(const std::string& argument);
  void edit(const std::string& text);
  void offerLastQuestion();
  void answerTool(const std::string& text);
  void think(const std::string& how);
  void showThinking() const;
  void save(const std::string& path);
  void load(const std::string& path);
  void showStats(const std::string& argument);
  void help(const std::string& argument);

  std::unique_ptr<zem::Engine> engine_;
  zem::ChatRequest request_;  // without messages
  Conversation conversation_;
  ThinkingView view_;
  zem::Usage last_;
  zem::Usage total_;
  size_t replies_ = 0;
  uint64_t attempt_ = 0;  // at the same reply
  std::string draft_;
};

const Chat::ChatCommand Chat::kCommands[] = {
    {"/regen", "", "another reply to the last message", &Chat::regenerate},
    {"/undo", "", "take back the last message and its reply", &Chat::undo},
    {"/edit", "[TEXT]",
     "put TEXT in place of the last message, and reply to it; without\n"
     "                TEXT, edit that message",
     &Chat::edit},
    {"/clear", "", "start a new conversation", &Chat::clear},
    {"/system", "TEXT", "system prompt from now on; without TEXT, show it", &Chat::setSystem},
    {"/think", "[HOW]",
     "show the last thinking; on, off, auto: whether the model thinks;\n"
     "                show, fold, hide: how thinking is shown while it comes",
     &Chat::think},
    {"/tool", "TEXT", "what a called tool answers", &Chat::answerTool},
    {"/save", "FILE", "write the conversation, as JSON", &Chat::save},
    {"/load", "FILE", "go on with a conversation that was saved", &Chat::load},
    {"/stats", "", "tokens and speed", &Chat::showStats},
    {"/help", "", "this list", &Chat::help},
};

std::string Chat::commandsHelp() {
  constexpr size_t kColumn = 16;
  std::string text;
  for (const ChatCommand& command : kCommands) {
    std::string usage = std::string(command.name) + " " + command.argument;
    usage.resize(std::max(usage.size(), kColumn), ' ');
    text += usage + command.help + "\n";
  }
  return text + "/quit           end the program (so does " + kEndKeys + ")";
}

bool Chat::obey(const std::string& turn) {
  const size_t space = turn.find_first_of(" \t\n");
  const std::string name = turn.substr(0, space);
  const size_t begin = turn.find_first_not_of(" \t\n", space);
  const std::string argument = begin == std::string::npos ? "" : turn.substr(begin);
  if (name == "/quit") return false;
  const auto* command = std::find_if(std::begin(kCommands), std::end(kCommands),
                                     [&](const ChatCommand& c) { return name == c.name; });
  if (command == std::end(kCommands)) {
    complain("unknown command " + name +
             "; /help lists them (a space in front sends the line as text)");
  } else {
    (this->*command->run)(argument);
  }
  return true;
}

void Chat::reply() {
  zem::ChatRequest request = request_;
  request.messages = conversation_.messages();
  if (request.sampling.seed) *request.sampling.seed += attempt_;
  zem::PreparedChat prepared;
  const kiv::Status status = zem::prepareChat(*engine_, request, prepared);
  if (!status.ok()) {
    conversation_.takeQuestionBack();
    throw Failure(status.message());
  }
  interruptFlag = 0;
  ReplyPrinter printer(view_);
  try {
    const FollowedReply reply = followReply(*engine_, std::move(prepared), printer);
    if (reply.end.reason != zem::EndReason::Cancelled || !printer.record().empty()) {
      printer.finish();
    }
    noteEnd(reply, printer);
  } catch (const Failure&) {
    conversation_.takeQuestionBack();
    throw;
  }
}

void Chat::noteEnd(const FollowedReply& reply, const ReplyPrinter& printer) {
  const zem::End& end = reply.end;
  if (end.reason == zem::EndReason::Error) throw Failure("the reply failed: " + end.error);
  if (end.reason == zem::EndReason::Cancelled && printer.record().empty()) {
    conversation_.takeQuestionBack();
    remark("(stopped before the reply began; the message is taken back)");
    return;
  }
  conversation_.add(printer.record().message());
  last_ = end.usage;
  ++replies_;
  total_.prompt += end.usage.prompt;
  total_.reused += end.usage.reused;
  total_.generated += end.usage.generated;
  total_.promptSeconds += end.usage.promptSeconds;
  total_.generateSeconds += end.usage.generateSeconds;
  if (end.reason == zem::EndReason::Cancelled) remark("(stopped)");
  if (end.reason == zem::EndReason::Length) remark("(the reply ended at the limit of -n)");
  if (end.reason == zem::EndReason::Context) {
    remark("(the context of " + std::to_string(engine_->context()) +
           " tokens is full; /clear starts a new conversation)");
  }
}

void Chat::clear(const std::string& /*argument*/) {
  conversation_.clear();
  remark("(new conversation)");
}

void Chat::setSystem(const std::string& text) {
  if (!text.empty()) {
    conversation_.setSystem(text);
  } else {
    remark(conversation_.system().empty() ? "(no system prompt)" : conversation_.system());
  }
}

void Chat::regenerate(const std::string& /*argument*/) {
  if (!conversation_.takeReplyBack()) throw Failure("there is no message to reply to");
  ++attempt_;
  reply();
}

void Chat::undo(const std::string& /*argument*/) {
  const std::optional<std::string> question = conversation_.takeQuestionBack();
  if (!question) throw Failure("there is no message to take back");
  remark("(taken back: " + *question + ")");
}

void Chat::edit(const std::string& text) {
  if (text.empty()) return offerLastQuestion();
  if (!conversation_.takeQuestionBack()) throw Failure("there is no message to edit");
  conversation_.ask(text);
  reply();
}

void Chat::offerLastQuestion() {
  if (!conversesOnTerminal()) throw Failure("/edit needs a text, which becomes the last message");
  const std::optional<std::string> question = conversation_.lastQuestion();
  if (!question) throw Failure("there is no message to edit");
  draft_ = "/edit " + *question;
}

void Chat::answerTool(const std::string& text) {
  const Message* called = conversation_.lastReply();
  if (called == nullptr || called->calls.empty()) throw Failure("no tool was called");
  conversation_.answer(text);
  reply();
}

void Chat::think(const std::string& how) {
  if (how.empty()) return showThinking();
  if (how == "on" || how == "off") {
    request_.format.thinking = how == "on";
  } else if (how == "auto") {
    request_.format.thinking.reset();
  } else if (how == "show") {
    view_ = ThinkingView::Shown;
  } else if (how == "fold") {
    view_ = ThinkingView::Folded;
  } else if (how == "hide") {
    view_ = ThinkingView::Hidden;
  } else {
    throw Failure("/think takes on, off, auto, show, fold or hide, and found \"" + how + "\"");
  }
}

void Chat::showThinking() const {
  const Message* reply = conversation_.lastReply();
  const bool thought = reply != nullptr && reply->reasoning.has_value();
  remark(thought ? *reply->reasoning : "(no thinking)");
}

void Chat::save(const std::string& path) {
  if (path.empty()) throw Failure("/save needs the name of a file");
  Json json = conversation_.json();
  if (!request_.tools.empty()) json["tools"] = request_.tools;
  writeFile(path, json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
  remark("(saved in " + path + ")");
}

void Chat::load(const std::string& path) {
  if (path.empty()) throw Failure("/load needs the name of a file");
  conversation_.take(readJsonFile(path, "conversation"), path);
  remark("(" + std::to_string(conversation_.messages().size()) + " messages from " + path + ")");
}

void Chat::showStats(const std::string& /*argument*/) {
  if (replies_ == 0) return remark("(no reply yet)");
  remark("last reply\n" + describeUsage(last_) + "\nall " + std::to_string(replies_) + "\n" +
         describeUsage(total_) + "\ncontext: " + std::to_string(last_.prompt + last_.generated) +
         " of " + std::to_string(engine_->context()) + " tokens");
}

void Chat::help(const std::string& /*argument*/) { remark(commandsHelp() + "\n" + kLinesHelp); }

void chatWith(const TalkOptions& options) {
  Chat chat(options);
  holdConversation(TurnForm::Lines, [&](const std::string& turn, std::string& draft) {
    return chat.take(turn, draft);
  });
}

}  // namespace

void addChat(Command& program, int& status) {
  auto options = std::make_shared<TalkOptions>();
  Command command = program.command("chat", "Hold a conversation", "Talk to a model");
  addTalkOptions(command, *options);
  command.footer(
      "Replies go to standard output, all else to standard error. Without a terminal each line\n"
      "of standard input is a turn. The model goes on from what it has computed of the\n"
      "conversation already. Commands, with and without a terminal:\n" +
      Chat::commandsHelp() + "\n\n" + kLinesHelp +
      "\n\nExamples:\n"
      "  zem chat -m model.zem -sys \"Answer in one sentence.\"\n"
      "  echo \"Why is the sky blue?\" | zem chat -m model.zem");
  command.action([options, &status] { status = guarded([&] { chatWith(*options); }); });
}

}  // namespace zemtool
