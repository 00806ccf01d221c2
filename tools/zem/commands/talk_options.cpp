// SPDX-License-Identifier: Apache-2.0
#include "commands/talk_options.h"

#include <charconv>
#include <limits>
#include <nlohmann/json.hpp>
#include <system_error>

#include "commands/options.h"
#include "console/program.h"
#include "console/terminal.h"
#include "console/text.h"
#include "host/model_file.h"

namespace zemtool {
namespace {

constexpr int kMostContext = 1 << 24;
constexpr int kMostBatch = 4096;

template <typename Number>
bool readWholly(const std::string& text, Number& number) {
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end;
}

// An option that changes `value` only when it is given.
Option addNumber(Command& command, const std::string& names, std::optional<float>& value, float low,
                 float high, const std::string& description) {
  const auto take = [=, &value](const std::string& text) -> std::string {
    float number = 0;
    if (readWholly(text, number) && number >= low && number <= high) {
      value = number;
      return {};
    }
    return "\"" + text + "\" is not a number from " + formatNumber(static_cast<double>(low), 2) +
           " to " + formatNumber(static_cast<double>(high), 2);
  };
  return command.option(names, take, description).valueName("X");
}

template <typename Whole>
Option addWhole(Command& command, const std::string& names, std::optional<Whole>& value,
                const std::string& description) {
  const auto take = [&value](const std::string& text) -> std::string {
    Whole number = 0;
    if (!readWholly(text, number)) {
      return "\"" + text + "\" is not a whole number from 0 to " +
             std::to_string(std::numeric_limits<Whole>::max());
    }
    value = number;
    return {};
  };
  return command.option(names, take, description).valueName("N");
}

void addThinkingOptions(Command& command, TalkOptions& options) {
  command.heading("Thinking");
  command.option("--think", options.think, "on, off or auto: as the chat template does (default)")
      .oneOf({"on", "off", "auto"})
      .valueName("WHEN");
  addWhole(command, "--think-budget", options.thinkBudget,
           "Most tokens of thinking; then the model is told to answer");
  command
      .option("--think-show", options.thinkShow,
              "on, off or auto: show the thinking on standard error if it is a terminal (default)")
      .oneOf({"on", "off", "auto"})
      .valueName("WHEN");
}

void addDrawOptions(Command& command, zem::SamplingSettings& sampling) {
  command.heading("Choice of tokens (defaults: the model's)");
  addNumber(command, "--temp", sampling.temperature, 0, 100,
            "Temperature; 0 takes the likeliest token");
  addWhole(command, "--top-k", sampling.topK, "Choose among the N likeliest; 0: all");
  addNumber(command, "--top-p", sampling.topP, 0, 1,
            "Choose among the likeliest that have probability X together; 1: all");
  addNumber(command, "--min-p", sampling.minP, 0, 1,
            "Choose among those that are at least X times as likely as the best; 0: all");
  addNumber(command, "--repeat-penalty", sampling.repeatPenalty, 0.01F, 100,
            "Divide the logit of what was written before by X; 1: off");
  addNumber(command, "--presence-penalty", sampling.presencePenalty, -100, 100,
            "Subtract X from the logit of what was written before; 0: off");
  addNumber(command, "--frequency-penalty", sampling.frequencyPenalty, -100, 100,
            "Subtract X for each time that it was written; 0: off");
  addWhole(command, "-s,--seed", sampling.seed,
           "Seed; the same seed gives the same reply (default: another one each time)");
}

void addEndOptions(Command& command, TalkOptions& options) {
  command.heading("End of a reply");
  command
      .option("-n,--tokens", options.tokens,
              "Most tokens of a reply; -1: until the model ends it (default)")
      .wholeNumber(-1, std::numeric_limits<int32_t>::max())
      .valueName("N");
  command.option("--stop", options.stops, "End the reply where TEXT comes; may be given again")
      .valueName("TEXT");
}

}  // namespace

void addModelOptions(Command& command, ModelOptions& options) {
  command.heading("Model");
  addModelOption(command, options.model);
  command
      .option("-c,--ctx-size", options.context,
              "Tokens of prompt and replies together (default: what the model was made for)")
      .wholeNumber(1, kMostContext)
      .valueName("N");
  addThreadsOption(command, options.threads, "CPU threads (default: one a processor)");
  command
      .option("-b,--batch-size", options.batch,
              "Tokens of a prompt that are computed together (default: 48)")
      .wholeNumber(1, kMostBatch)
      .valueName("N");
  command
      .option("--cache", options.cache,
              "Keys and values of earlier tokens: f16 (default), or f32: twice the memory, exact")
      .oneOf({"f16", "f32"})
      .valueName("TYPE");
  command
      .option("--math", options.math,
              "exact (default), or fast: activations of 14 bits; either is the same everywhere")
      .oneOf({"exact", "fast"})
      .valueName("KIND");
}

void addTalkOptions(Command& command, TalkOptions& options) {
  addModelOptions(command, options.model);
  command.heading("Conversation");
  command.option("--system-prompt", options.system, "System prompt; -sys for short")
      .valueName("TEXT");
  command
      .option(
          "--chat-template", options.chatTemplate,
          "Revision of the chat template, in place of the model's: " + zem::text::chatFormatNames())
      .valueName("NAME");
  command.option("--tools", options.tools, "Functions that the model may call: a list, as JSON")
      .valueName("FILE");
  addThinkingOptions(command, options);
  addDrawOptions(command, options.sampling);
  addEndOptions(command, options);
}

zem::EngineOptions settingsOf(const ModelOptions& options) {
  zem::EngineOptions settings;
  settings.threads =
      static_cast<size_t>(options.threads > 0 ? options.threads : usableProcessors());
  settings.cacheNumbers =
      options.cache == "f32" ? zem::CacheNumbers::Float : zem::CacheNumbers::Half;
  settings.math = options.math == "fast" ? zem::Math::Fast : zem::Math::Exact;
  settings.sequences = 1;
  settings.context = static_cast<size_t>(options.context);
  settings.batchTokens = static_cast<size_t>(options.batch);
  return settings;
}

std::unique_ptr<zem::Engine> openEngine(const ModelOptions& options,
                                        const std::string& chatTemplate, size_t cacheBytes) {
  zem::EngineOptions settings = settingsOf(options);
  settings.cacheBytes = cacheBytes;
  settings.chatFormat = chatTemplate;
  std::unique_ptr<zem::Engine> engine;
  const kiv::Status status = zem::Engine::open(options.model, settings, engine);
  if (!status.ok()) {
    throw Failure("cannot open the model " + options.model + ": " + status.message());
  }
  return engine;
}

zem::ChatRequest chatRequestOf(const TalkOptions& options) {
  zem::ChatRequest chat;
  if (options.think != "auto") chat.format.thinking = options.think == "on";
  chat.thinkingBudget = options.thinkBudget;
  chat.sampling = options.sampling;
  chat.stopTexts = options.stops;
  if (options.tokens >= 0) chat.maxTokens = static_cast<uint64_t>(options.tokens);
  if (options.tools.empty()) return chat;
  const zem::text::Json tools = readJsonFile(options.tools, "tools file");
  const kiv::Status status = zem::text::readTools(tools, chat.tools);
  if (!status.ok()) throw Failure("the tools file " + options.tools + ": " + status.message());
  return chat;
}

ThinkingView thinkingView(const TalkOptions& options, ThinkingView view) {
  if (options.thinkShow == "on") return ThinkingView::Shown;
  return options.thinkShow == "auto" && stderrIsTerminal() ? view : ThinkingView::Hidden;
}

zem::text::Json readJsonFile(const std::string& path, const std::string& kind) {
  zem::text::Json json;
  const kiv::Status status =
      zem::text::parseJson(readWhole(path, kind), "the " + kind + " " + path, json);
  if (!status.ok()) throw Failure(status.message());
  return json;
}

}  // namespace zemtool
