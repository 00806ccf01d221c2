// SPDX-License-Identifier: Apache-2.0
// zem run: one reply, or the continuation of a text.
#include <cmath>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "commands/commands.h"
#include "commands/number_list.h"
#include "commands/options.h"
#include "commands/talk_options.h"
#include "console/terminal.h"
#include "engine/text/constraint.h"
#include "talk/follow_reply.h"
#include "talk/reply_printer.h"
#include "talk/reply_record.h"
#include "talk/saved_session.h"

namespace zemtool {
namespace {

using zem::text::Json;

constexpr int kInterruptedStatus = 130;  // as of a program that Ctrl-C ends

struct RunOptions {
  TalkOptions talk;
  PromptOptions prompt;
  std::vector<int> ids;
  bool chat = false;
  bool raw = false;
  std::string schema;  // a file
  std::optional<size_t> logProbabilities;
  std::string session;  // a file
  bool json = false;
  bool timings = false;
};

// One object a token, and one at the end.
class JsonPrinter : public ReplyWatcher {
 public:
  void onToken(const zem::Token& token) override {
    Json line = {{"id", token.id}, {"text", token.text}};
    if (token.logProbabilities) {
      line["logprob"] = finite(token.logProbabilities->chosen);
      line["top"] = Json::array();
      for (const zem::TokenLogProbability& top : token.logProbabilities->likeliest) {
        line["top"].push_back({{"id", top.id}, {"logprob", finite(top.logProbability)}});
      }
    }
    writeOut(lineOf(line));
    flushOut();
  }
  void onEvent(const zem::text::ReplyEvent& event) override { record_.add(event); }

  void finish(const zem::End& end) const {
    const zem::Usage& usage = end.usage;
    Json line = {{"reason", zem::nameOf(end.reason)}, {"text", end.text}};
    if (!end.error.empty()) line["error"] = end.error;
    if (end.stopText) line["stop_text"] = *end.stopText;
    line["message"] = jsonOf(record_.message());
    line["usage"] = {{"prompt", usage.prompt}, {"generated", usage.generated}};
    line["reused"] = usage.reused;
    line["evaluated"] = usage.prompt - usage.reused;
    line["timings"] = {{"prompt_seconds", usage.promptSeconds},
                       {"generate_seconds", usage.generateSeconds}};
    writeOut(lineOf(line));
  }

 private:
  // JSON has no infinity.
  static Json finite(double value) { return std::isfinite(value) ? Json(value) : Json(); }

  ReplyRecord record_;
};

// What is asked of the engine: a chat, or a plain request.
struct Asked {
  bool isChat = false;
  zem::PreparedChat chat;  // of a plain request: the member `request` alone
};

bool asksAsChat(const RunOptions& options, const zem::Engine& engine) {
  const TalkOptions& talk = options.talk;
  if (!options.raw && options.ids.empty()) {
    if (engine.chatFormat() != nullptr) return true;
    if (options.chat) {
      throw Failure(talk.model.model + ": its chat template is none of the known revisions; " +
                    "name one with --chat-template (" + zem::text::chatFormatNames() +
                    "), or use --raw");
    }
  }
  const bool needsChat =
      !talk.system.empty() || !talk.tools.empty() || talk.think != "auto" || talk.thinkBudget;
  if (needsChat) {
    throw Failure(
        "a system prompt, tools and thinking belong to a chat, and the prompt is a text to be "
        "continued; leave --raw and --ids out, or name a template with --chat-template");
  }
  return false;
}

std::optional<Json> schemaOf(const RunOptions& options) {
  if (options.schema.empty()) return std::nullopt;
  return readJsonFile(options.schema, "schema file");
}

zem::text::Message messageOf(zem::text::Role role, const std::string& text) {
  return {role, {{zem::text::ContentPart::Kind::Text, text}}, {}, {}};
}

Asked askAsChat(const RunOptions& options, const zem::Engine& engine, const std::string& prompt,
                bool goesOn) {
  const TalkOptions& talk = options.talk;
  if (goesOn && (!talk.system.empty() || !talk.tools.empty())) {
    throw Failure("a system prompt and tools belong to the beginning of a conversation, and the " +
                  ("session " + options.session) +
                  " has begun; leave them out, or name another file");
  }
  zem::ChatRequest chat = chatRequestOf(talk);
  chat.schema = schemaOf(options);
  chat.logProbabilities = options.logProbabilities;
  if (!talk.system.empty()) {
    chat.messages.push_back(messageOf(zem::text::Role::System, talk.system));
  }
  chat.messages.push_back(messageOf(zem::text::Role::User, prompt));
  Asked asked;
  asked.isChat = true;
  const kiv::Status status = zem::prepareChat(engine, chat, asked.chat);
  if (!status.ok()) throw Failure(status.message());
  return asked;
}

void setPrompt(const RunOptions& options, const zem::Engine& engine, const std::string& prompt,
               zem::Request& request) {
  if (!options.ids.empty()) {
    request.prompt.assign(options.ids.begin(), options.ids.end());
    return;
  }
  const kiv::Status status =
      engine.vocabulary().encode(prompt, zem::text::AddedTokens::Recognised, request.prompt);
  if (!status.ok()) throw Failure(status.message());
}

Asked askAsText(const RunOptions& options, const zem::Engine& engine, const std::string& prompt) {
  Asked asked;
  zem::Request& request = asked.chat.request;
  setPrompt(options, engine, prompt, request);
  request.sampling = options.talk.sampling.over(engine.defaultSampling(false));
  request.stops.endTokens = engine.vocabulary().endTokens();
  request.stops.stopTexts = options.talk.stops;
  if (options.talk.tokens >= 0) {
    request.stops.maxTokens = static_cast<uint64_t>(options.talk.tokens);
  }
  request.logProbabilities = options.logProbabilities;
  if (const std::optional<Json> schema = schemaOf(options)) {
    const kiv::Status status = zem::text::Constraint::compile(*schema, {}, request.form);
    if (!status.ok()) throw Failure("the schema file " + options.schema + ": " + status.message());
  }
  return asked;
}

FollowedReply follow(zem::Engine& engine, Asked asked, ReplyWatcher& watcher) {
  if (asked.isChat) return followReply(engine, std::move(asked.chat), watcher);
  return followReply(engine, std::move(asked.chat.request), watcher);
}

FollowedReply printReply(const RunOptions& options, zem::Engine& engine, Asked asked) {
  if (options.json) {
    JsonPrinter printer;
    FollowedReply whole = follow(engine, std::move(asked), printer);
    printer.finish(whole.end);
    return whole;
  }
  ReplyPrinter printer(thinkingView(options.talk, ThinkingView::Shown));
  FollowedReply whole = follow(engine, std::move(asked), printer);
  printer.finish();
  return whole;
}

void explainEnd(const zem::End& end, const zem::Engine& engine) {
  if (end.reason == zem::EndReason::Error) throw Failure("the reply failed: " + end.error);
  if (end.reason == zem::EndReason::Context) {
    remark("(the context of " + std::to_string(engine.context()) + " tokens is full)");
  }
}

void requireSense(const RunOptions& options) {
  const bool hasPrompt = options.prompt.hasText || !options.prompt.file.empty();
  if (!options.ids.empty() && hasPrompt) throw UsageError("--ids excludes --prompt and --file");
  if (!options.ids.empty() && options.chat) throw UsageError("--ids excludes --chat");
  if (options.logProbabilities && !options.json) throw UsageError("--logprobs needs --json");
}

// Returns the exit status.
int answer(const RunOptions& options) {
  requireSense(options);
  const std::string prompt = options.ids.empty() ? readPrompt(options.prompt) : std::string();
  // A session keeps whatever was computed.
  const size_t cacheBytes = options.session.empty() ? 0 : std::numeric_limits<size_t>::max() / 2;
  const std::unique_ptr<zem::Engine> engine =
      openEngine(options.talk.model, options.talk.chatTemplate, cacheBytes);
  std::optional<SavedSession> session;
  if (!options.session.empty()) session.emplace(*engine, options.session);

  const bool isChat = asksAsChat(options, *engine);
  const bool goesOn = session && !session->isNew();
  Asked asked =
      isChat ? askAsChat(options, *engine, prompt, goesOn) : askAsText(options, *engine, prompt);
  if (session) session->goOn(asked.chat.request, isChat);
  const std::vector<uint32_t> whole = asked.chat.request.prompt;

  const InterruptGuard guard;
  const FollowedReply reply = printReply(options, *engine, std::move(asked));
  explainEnd(reply.end, *engine);
  if (options.timings) remark(describeUsage(reply.end.usage));
  if (session) session->write(whole, reply.ids);
  return reply.end.reason == zem::EndReason::Cancelled ? kInterruptedStatus : 0;
}

void addRunPromptOptions(Command& command, RunOptions& options) {
  command.heading("Prompt");
  addPromptOptions(command, options.prompt);
  addNumberList(command, "--ids", "Prompt as ids of tokens, in place of a text", 0,
                std::numeric_limits<int>::max(), options.ids);
  const Option chat = command.flag("--chat", options.chat,
                                   "The prompt is a user's message (default, if the model's chat "
                                   "template is known)");
  command.flag("--raw", options.raw, "The prompt is a text to be continued").excludes(chat);
  command.option("--schema", options.schema, "The answer is JSON that this JSON schema allows")
      .valueName("FILE");
  command
      .option("--session", options.session,
              "Go on with the conversation of this file, if it is there, and keep this one in it")
      .valueName("FILE");
}

void addOutputOptions(Command& command, RunOptions& options) {
  command.heading("Output");
  const auto take = [&options](const std::string& text) -> std::string {
    constexpr int kMost = 1000;
    const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    const int number = digits && text.size() < 5 ? std::stoi(text) : kMost + 1;
    if (number > kMost) return "\"" + text + "\" is not a whole number from 0 to 1000";
    options.logProbabilities = static_cast<size_t>(number);
    return {};
  };
  command
      .option("--logprobs", take,
              "With --json: the logarithm of each token's probability, and of the N likeliest")
      .valueName("N");
  command.flag("--json", options.json, "Print a line of JSON for each token and one at the end");
  command.flag("--show-timings", options.timings,
               "Say on standard error how many tokens took how long");
}

constexpr const char* kRunFooter =
    "The answer alone goes to standard output, thinking to standard error. One line feed at the\n"
    "end of a prompt from a file or a pipe is dropped. Calls of tools are lines of JSON. Ctrl-C\n"
    "ends the reply; what came stays, and the exit status is 130. With a session, the prompt\n"
    "is the next message of its conversation, or with --raw the next piece of its text.\n"
    "\nExamples:\n"
    "  zem run -m model.zem -p \"Why is the sky blue?\"\n"
    "  zem run -m model.zem -f page.txt -sys \"Summarise in one sentence.\" --think off\n"
    "  zem run -m model.zem --raw -p \"Once upon a time\" -n 100 --temp 0.8 -s 7\n"
    "  zem run -m model.zem -p \"A name and an age\" --schema person.json";

}  // namespace

void addRun(Command& program, int& status) {
  auto options = std::make_shared<RunOptions>();
  Command command = program.command("run", "Answer a prompt", "Talk to a model");
  addRunPromptOptions(command, *options);
  addTalkOptions(command, options->talk);
  addOutputOptions(command, *options);
  command.footer(kRunFooter);
  command.action([options, &status] {
    int ended = 0;
    status = guarded([&] { ended = answer(*options); });
    if (status == 0) status = ended;
  });
}

}  // namespace zemtool
