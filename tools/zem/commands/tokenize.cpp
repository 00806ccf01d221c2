// SPDX-License-Identifier: Apache-2.0
// zem tokenize: a text as the ids and pieces of a model's vocabulary, and ids as text.
#include <algorithm>
#include <charconv>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "commands/commands.h"
#include "commands/options.h"
#include "console/terminal.h"
#include "console/text.h"
#include "engine/text/published_vector.h"
#include "host/text_source.h"
#include "host/vocabulary.h"

namespace zemtool {
namespace {

using Ids = std::vector<int32_t>;

struct TokenizeOptions {
  std::string model;
  PromptOptions prompt;
  bool ids = false;
  bool json = false;
  bool decode = false;
  bool exact = false;
  bool plugin = false;
  bool selfTest = false;
};

void printIds(const Ids& ids) {
  std::string line;
  for (const int32_t id : ids) line += (line.empty() ? "" : " ") + std::to_string(id);
  writeOut(line + "\n");
}

void printPieces(const Vocabulary& vocabulary, const Ids& ids) {
  std::vector<std::vector<std::string>> rows;
  rows.reserve(ids.size());
  for (const int32_t id : ids) rows.push_back({std::to_string(id), vocabulary.shown(id)});
  writeOut(formatTable(rows, {0}));
}

// A piece that is no text has its bytes beside it.
nlohmann::ordered_json tokenJson(int32_t id, const std::string& piece) {
  nlohmann::ordered_json token = {{"id", id}, {"piece", piece}};
  if (!isWholeUtf8(piece)) token["bytes"] = std::vector<uint8_t>(piece.begin(), piece.end());
  return token;
}

void printJson(const Vocabulary& vocabulary, const Ids& ids) {
  auto tokens = nlohmann::ordered_json::array();
  for (const int32_t id : ids) tokens.push_back(tokenJson(id, vocabulary.bytesOf(id)));
  writeJson({{"count", ids.size()}, {"tokens", tokens}});
}

void encode(const Vocabulary& vocabulary, const std::string& text, const TokenizeOptions& options) {
  const Ids ids = vocabulary.encode(text);
  if (options.json) {
    printJson(vocabulary, ids);
  } else if (options.ids) {
    printIds(ids);
  } else {
    printPieces(vocabulary, ids);
  }
  const std::string loss = vocabulary.lossOf(ids, text);
  if (!loss.empty()) complain("warning: " + loss);
}

int32_t parseId(std::string_view word, const Vocabulary& vocabulary) {
  int32_t id = -1;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), id);
  const std::string shown = "\"" + std::string(word.substr(0, 40)) + "\"";
  const bool isNumber = end == word.data() + word.size();
  if (!isNumber || (error != std::errc() && error != std::errc::result_out_of_range)) {
    throw Failure(shown + " is not an id; ids are whole numbers with spaces or commas between");
  }
  if (error != std::errc() || !vocabulary.hasToken(id)) {
    throw Failure("the vocabulary has no token " + shown + "; its ids are below " +
                  std::to_string(vocabulary.size()));
  }
  return id;
}

// The brackets of a list may stand around them.
Ids parseIds(std::string_view text, const Vocabulary& vocabulary) {
  constexpr std::string_view kBetween = " \t\r\n,[]";
  Ids ids;
  for (size_t at = text.find_first_not_of(kBetween); at != std::string_view::npos;
       at = text.find_first_not_of(kBetween, at)) {
    const size_t end = std::min(text.size(), text.find_first_of(kBetween, at));
    ids.push_back(parseId(text.substr(at, end - at), vocabulary));
    at = end;
  }
  return ids;
}

VocabularyChoice choiceOf(const TokenizeOptions& options) {
  if (options.exact) return VocabularyChoice::Exact;
  return options.plugin ? VocabularyChoice::Plugin : VocabularyChoice::Best;
}

void tokenize(const TokenizeOptions& options) {
  const std::string text = readPrompt(options.prompt);
  const auto vocabulary = openVocabulary(options.model, choiceOf(options));
  if (choiceOf(options) == VocabularyChoice::Best) {
    remark("tokenizer: " + vocabulary->description());
  }
  if (options.decode) {
    writeExact(vocabulary->decode(parseIds(text, *vocabulary)));
  } else {
    encode(*vocabulary, text, options);
  }
}

// Whether the ids of the marks around turns are those of the published vocabulary.
bool isPublished(const zem::text::Tokenizer& tokenizer) {
  return tokenizer.addedToken("<|endoftext|>") == 248044 &&
         tokenizer.addedToken("<|im_start|>") == 248045 &&
         tokenizer.addedToken("<|im_end|>") == 248046;
}

void selfTest(const TokenizeOptions& options) {
  if (options.prompt.hasText || !options.prompt.file.empty()) {
    throw UsageError("--self-test has a text of its own: leave -p and -f out");
  }
  const std::optional<ExactTokenizer> exact = openExactTokenizer(options.model);
  if (!exact) throw Failure(options.model + " carries no tokenizer of its source to test");
  if (!isPublished(exact->tokenizer)) {
    throw Failure("the self-test is for the published vocabulary of 248,044 pieces, and " +
                  options.model + " has another one");
  }
  const zem::text::PublishedVector vector = zem::text::publishedVector();
  Ids ids;
  const kiv::Status status =
      exact->tokenizer.encode(vector.text, zem::text::AddedTokens::Recognised, ids);
  if (!status.ok()) throw Failure(status.message());
  const auto [expected, got] =
      std::mismatch(vector.ids.begin(), vector.ids.end(), ids.begin(), ids.end());
  if (expected != vector.ids.end() || got != ids.end()) {
    throw Failure("self-test failed: the ids differ from the published ones, first at place " +
                  std::to_string(got - ids.begin()));
  }
  if (exact->tokenizer.decode(ids) != vector.text) {
    throw Failure("self-test failed: decoding does not give the published text back");
  }
  writeOut("self-test passed: " + std::to_string(ids.size()) + " ids as published\n");
}

void addSelfTest(Command& command, TokenizeOptions& options, const Option& ids, const Option& json,
                 const Option& decode, const Option& plugin) {
  command.flag("--self-test", options.selfTest, "Check the ids of a published text")
      .excludes(ids)
      .excludes(json)
      .excludes(decode)
      .excludes(plugin);
}

}  // namespace

void addTokenize(Command& program, int& status) {
  auto options = std::make_shared<TokenizeOptions>();
  Command command =
      program.command("tokenize", "Show a text as a model's tokens", "Examine models");
  command.option("-m,--model", options->model, "Model file (.zem or .gguf), or a tokenizer.json")
      .required()
      .valueName("FILE");
  addPromptOptions(command, options->prompt);
  command.flag("--keep-newline", options->prompt.keepNewline,
               "Keep the line feed at the end of a file or a pipe");
  Option ids = command.flag("--ids", options->ids, "Print only the ids, on one line");
  Option json = command.flag("--json", options->json, "Print JSON").excludes(ids);
  const Option decode =
      command.flag("--decode", options->decode, "Read ids, print their text").excludes(ids);
  json.excludes(decode);
  const Option exact = command.flag("--exact", options->exact,
                                    "As the model's publisher does, or fail (default: if the "
                                    "file has that tokenizer)");
  const Option plugin =
      command.flag("--plugin", options->plugin, "As the runtime plug-in does").excludes(exact);
  addSelfTest(command, *options, ids, json, decode, plugin);
  command.footer(
      "Prints what the model is fed with for this text: one id and piece a line. No weights are\n"
      "needed. The publisher's tokenizer comes from a tokenizer.json, a GGUF file, or a container\n"
      "converted from these. Other containers have the plug-in's alone, which puts the\n"
      "beginning-of-sequence token in front when the vocabulary has one, and shows pieces as the\n"
      "vocabulary stores them. Without --exact and --plugin a line on standard error says which\n"
      "one was used. --decode reads ids from -p, -f or a pipe, with spaces or commas between, and\n"
      "adds no line feed to the text, except on a terminal.\n"
      "\nExamples:\n"
      "  zem tokenize -m model.zem -p \"Hello there\"\n"
      "  zem tokenize -m model.zem -f page.txt --ids | zem tokenize -m model.zem --decode\n"
      "  zem tokenize -m tokenizer.json --self-test");
  command.action([options, &status] {
    status = guarded([&] { options->selfTest ? selfTest(*options) : tokenize(*options); });
  });
}

}  // namespace zemtool
