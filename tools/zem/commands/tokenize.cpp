// SPDX-License-Identifier: Apache-2.0
// zem tokenize: a text as the ids and pieces of a model's vocabulary.
#include <memory>
#include <nlohmann/json.hpp>

#include "commands/commands.h"
#include "commands/options.h"
#include "console/terminal.h"
#include "console/text.h"
#include "host/model_file.h"
#include "kiv/tokenizer.h"

namespace zemtool {
namespace {

struct TokenizeOptions {
  std::string model;
  PromptOptions prompt;
  bool ids = false;
  bool json = false;
};

std::string pieceOf(const kiv::Tokenizer& tokenizer, int32_t id) {
  std::string piece;
  const kiv::Status status = tokenizer.tokenToString(id, piece);
  return status.ok() ? piece : std::string();
}

void printIds(const std::vector<int32_t>& ids) {
  std::string line;
  for (const int32_t id : ids) line += (line.empty() ? "" : " ") + std::to_string(id);
  writeOut(line + "\n");
}

void printPieces(const kiv::Tokenizer& tokenizer, const std::vector<int32_t>& ids) {
  std::vector<std::vector<std::string>> rows;
  rows.reserve(ids.size());
  for (const int32_t id : ids) {
    rows.push_back({std::to_string(id), escapeControls(pieceOf(tokenizer, id))});
  }
  writeOut(formatTable(rows, {0}));
}

void printJson(const kiv::Tokenizer& tokenizer, const std::vector<int32_t>& ids) {
  auto tokens = nlohmann::ordered_json::array();
  for (const int32_t id : ids) {
    tokens.push_back({{"id", id}, {"piece", pieceOf(tokenizer, id)}});
  }
  writeJson({{"count", ids.size()}, {"tokens", tokens}});
}

// What the model itself adds in front is not part of the text.
void checkRoundTrip(const kiv::Tokenizer& tokenizer, std::vector<int32_t> ids,
                    const std::string& text) {
  if (!ids.empty() && tokenizer.bos() >= 0 && ids.front() == tokenizer.bos()) {
    ids.erase(ids.begin());
  }
  std::string decoded;
  if (!tokenizer.decode(ids, decoded).ok() || decoded != text) {
    complain("warning: decoding these ids does not give the text back");
  }
}

void tokenize(const TokenizeOptions& options) {
  const std::string text = readPrompt(options.prompt);
  const kiv::Tokenizer tokenizer = openTokenizer(options.model);
  std::vector<int32_t> ids;
  if (const kiv::Status status = tokenizer.encode(text, ids, true); !status.ok()) {
    throw Failure(status.message());
  }
  if (options.json) {
    printJson(tokenizer, ids);
  } else if (options.ids) {
    printIds(ids);
  } else {
    printPieces(tokenizer, ids);
  }
  checkRoundTrip(tokenizer, ids, text);
}

}  // namespace

void addTokenize(Command& program, int& status) {
  auto options = std::make_shared<TokenizeOptions>();
  Command command = program.command("tokenize", "Show a text as a model's tokens");
  addModelOption(command, options->model);
  addPromptOptions(command, options->prompt);
  const Option ids = command.flag("--ids", options->ids, "Print only the ids, on one line");
  command.flag("--json", options->json, "Print JSON").excludes(ids);
  command.footer(
      "Prints what a session feeds to the model for this text: one id and piece a line, with the\n"
      "beginning-of-sequence token in front when the vocabulary has one. Pieces are shown as the\n"
      "vocabulary stores them.\n"
      "\nExample:\n  zem tokenize -m model.zem -p \"Hello there\"");
  command.action([options, &status] { status = guarded([&] { tokenize(*options); }); });
}

}  // namespace zemtool
