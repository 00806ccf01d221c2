// SPDX-License-Identifier: Apache-2.0
#include "bench/exact_prompt.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>

#include "console/terminal.h"

namespace zemtool {
namespace {

constexpr int32_t kTokenTypeNormal = 1;
constexpr size_t kMostWords = 256;
constexpr int kAttempts = 64;
constexpr std::string_view kByteLevelSpace = "\xC4\xA0";  // U+0120
// docs/plugin-abi.md, chat_turn: every turn of a conversation has this frame.
constexpr const char* kBeforeUser = "<|im_start|>user\n";
constexpr const char* kAfterUser = "<|im_end|>\n<|im_start|>assistant\n";

size_t countTokens(const kiv::Tokenizer& tokenizer, const std::string& text, bool addBos) {
  std::vector<int32_t> ids;
  if (const kiv::Status status = tokenizer.encode(text, ids, addBos); !status.ok()) {
    throw Failure("cannot make a prompt: " + status.message());
  }
  return ids.size();
}

// The text of an ordinary token; empty for others.
std::string ordinaryText(const kiv::Tokenizer& tokenizer, size_t id) {
  const kiv::TokenizerData& data = tokenizer.data();
  const auto token = static_cast<int32_t>(id);
  if (!data.tokenTypes.empty() && data.tokenTypes[id] != kTokenTypeNormal) return {};
  if (token == data.bosId || token == data.eosId || token == data.unkId || token == data.padId) {
    return {};
  }
  std::string text;
  if (!tokenizer.decode({token}, text).ok() || text.find('\0') != std::string::npos) return {};
  // Vocabularies that spell bytes keep their spelling of a space.
  if (text.starts_with(kByteLevelSpace)) text.replace(0, kByteLevelSpace.size(), " ");
  return text;
}

bool isWord(const std::string& text) {
  return text.size() >= 3 && text.size() <= 9 && text[0] == ' ' &&
         std::all_of(text.begin() + 1, text.end(), [](char c) { return c >= 'a' && c <= 'z'; });
}

// Whether the text is one token alone, and two when it comes twice. Such a text merges
// neither with the beginning of a line nor with itself.
bool staysItself(const kiv::Tokenizer& tokenizer, const std::string& text) {
  return countTokens(tokenizer, text, false) == 1 &&
         countTokens(tokenizer, text + text, false) == 2;
}

// Up to `limit` texts of single tokens, in the order of their ids. In most vocabularies
// frequent tokens come first.
template <typename Suits>
std::vector<std::string> findTexts(const kiv::Tokenizer& tokenizer, size_t limit, Suits suits) {
  std::vector<std::string> texts;
  for (size_t id = 0; id < tokenizer.data().tokens.size() && texts.size() < limit; ++id) {
    std::string text = ordinaryText(tokenizer, id);
    if (!text.empty() && suits(text) && staysItself(tokenizer, text)) {
      texts.push_back(std::move(text));
    }
  }
  return texts;
}

}  // namespace

ExactPrompt::ExactPrompt(kiv::Tokenizer tokenizer) : tokenizer_(std::move(tokenizer)) {
  words_ = findTexts(tokenizer_, kMostWords, isWord);
  if (words_.empty()) words_ = findTexts(tokenizer_, 1, [](const std::string&) { return true; });
  if (words_.empty()) {
    throw Failure(
        "cannot make prompts of an exact length: no token of the model's vocabulary stays itself "
        "when it is repeated");
  }
}

std::string ExactPrompt::prompt(size_t tokens) const { return fit(tokens, "", ""); }

std::string ExactPrompt::turn(size_t tokens) const {
  if (tokens < frameTokens()) {
    throw Failure("a turn of " + std::to_string(tokens) + " tokens cannot be made: its frame " +
                  "alone has " + std::to_string(frameTokens()) +
                  " in this vocabulary; depths, and prompts at a depth, begin there");
  }
  return fit(tokens, kBeforeUser, kAfterUser);
}

size_t ExactPrompt::frameTokens() const {
  return countTokens(tokenizer_, std::string(kBeforeUser) + kAfterUser, true);
}

// Words may merge with the frame or with each other. Each attempt then adds or drops words
// until the number is right.
std::string ExactPrompt::fit(size_t tokens, const std::string& before,
                             const std::string& after) const {
  std::string text;
  std::vector<size_t> starts;  // of each word in the text
  size_t next = 0;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const size_t have =
        countTokens(tokenizer_, std::string(before).append(text).append(after), true);
    if (have == tokens) return text;
    for (size_t i = have; i < tokens; ++i) {
      starts.push_back(text.size());
      text += words_[next++ % words_.size()];
    }
    const size_t excess = have > tokens ? std::min(have - tokens, starts.size()) : 0;
    if (excess > 0) {
      text.resize(starts[starts.size() - excess]);
      starts.resize(starts.size() - excess);
    }
  }
  throw Failure("cannot make a prompt of exactly " + std::to_string(tokens) +
                " tokens from the model's vocabulary");
}

}  // namespace zemtool
