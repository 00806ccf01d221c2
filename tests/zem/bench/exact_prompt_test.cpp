// SPDX-License-Identifier: Apache-2.0
#include "bench/exact_prompt.h"

#include <gmock/gmock.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "console/terminal.h"
#include "support/tiny_model.h"
#include "support/trained_vocabulary.h"

namespace zemtool {
namespace {

using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

kiv::Tokenizer load(kiv::TokenizerData data) {
  kiv::Tokenizer tokenizer;
  EXPECT_TRUE(tokenizer.load(std::move(data)).ok());
  return tokenizer;
}

std::string someText() {
  std::string text;
  for (int i = 0; i < 400; ++i) {
    text += "the river ran under an old bridge and the miller slept " + std::to_string(i) + "\n";
  }
  return text;
}

kiv::TokenizerData letters(std::vector<std::string> tokens, std::vector<std::string> merges) {
  kiv::TokenizerData data;
  data.tokens = std::move(tokens);
  data.merges = std::move(merges);
  return data;
}

kiv::TokenizerData withBos(kiv::TokenizerData data) {
  data.bosId = static_cast<int32_t>(data.tokens.size());
  data.tokens.emplace_back("<s>");
  if (!data.tokenTypes.empty()) data.tokenTypes.push_back(kiv::kTokenTypeControl);
  return data;
}

struct Vocabulary {
  const char* name;
  kiv::TokenizerData data;
};

// Words with spaces of either spelling, single letters, and letters of which
// only a pair stays itself.
std::vector<Vocabulary> vocabularies() {
  using zemtest::SpaceMarker;
  const auto trained = [](SpaceMarker marker) {
    return zemtest::trainVocabulary(someText(), 600, marker);
  };
  return {{"ByteLevel", trained(SpaceMarker::ByteLevel)},
          {"LowerBlock", trained(SpaceMarker::LowerBlock)},
          {"WithBos", withBos(trained(SpaceMarker::ByteLevel))},
          {"Tiny", zemtest::tinyTokenizer()},
          {"Letters", withBos(letters({"a", "b", "ab", "\n"}, {"a b"}))},
          {"Pairs", letters({"a", "aa"}, {"a a"})}};
}

class ExactPromptTest : public ::testing::TestWithParam<Vocabulary> {
 protected:
  size_t count(const std::string& text) const {
    std::vector<int32_t> ids;
    EXPECT_TRUE(tokenizer_.encode(text, ids, true).ok());
    return ids.size();
  }

  kiv::Tokenizer tokenizer_ = load(GetParam().data);
  ExactPrompt maker_{tokenizer_};
};

INSTANTIATE_TEST_SUITE_P(Vocabularies, ExactPromptTest, ::testing::ValuesIn(vocabularies()),
                         [](const auto& vocabulary) { return vocabulary.param.name; });

TEST_P(ExactPromptTest, PromptsHaveTheirLength) {
  for (size_t tokens = 1; tokens <= 40; ++tokens) EXPECT_EQ(count(maker_.prompt(tokens)), tokens);
  for (const size_t tokens : {511, 512, 8192}) EXPECT_EQ(count(maker_.prompt(tokens)), tokens);
}

TEST_P(ExactPromptTest, TurnsHaveTheirLengthWithTheFrame) {
  const size_t least = maker_.frameTokens();
  for (const size_t tokens : {least, least + 1, least + 2, least + 50, size_t{4096}}) {
    EXPECT_EQ(
        count("<|im_start|>user\n" + maker_.turn(tokens) + "<|im_end|>\n<|im_start|>assistant\n"),
        tokens);
  }
  EXPECT_EQ(maker_.turn(least), "");
}

TEST_P(ExactPromptTest, AreTheSameEveryTime) {
  EXPECT_EQ(maker_.prompt(300), ExactPrompt(tokenizer_).prompt(300));
}

TEST_P(ExactPromptTest, HoldNoSpecialToken) {
  std::vector<int32_t> ids;
  ASSERT_TRUE(tokenizer_.encode(maker_.prompt(600), ids, false).ok());
  const auto& types = tokenizer_.data().tokenTypes;
  for (const int32_t id : ids) {
    EXPECT_NE(id, tokenizer_.eos());
    EXPECT_NE(id, tokenizer_.bos());
    EXPECT_EQ(types.empty() ? 1 : types[static_cast<size_t>(id)], 1);
  }
}

TEST_P(ExactPromptTest, ATurnBelowItsFrameIsAFailure) {
  if (maker_.frameTokens() == 0) return;  // a vocabulary that knows none of its letters
  EXPECT_THAT([&] { static_cast<void>(maker_.turn(maker_.frameTokens() - 1)); },
              ThrowsMessage<Failure>(
                  HasSubstr("its frame alone has " + std::to_string(maker_.frameTokens()))));
}

TEST(ExactPrompt, UsesManyWordsWhereThereAreSome) {
  const kiv::Tokenizer tokenizer = load(vocabularies()[0].data);
  std::vector<int32_t> ids;
  ASSERT_TRUE(tokenizer.encode(ExactPrompt(tokenizer).prompt(200), ids, true).ok());
  EXPECT_GT(std::set<int32_t>(ids.begin(), ids.end()).size(), 5U);
}

TEST(ExactPrompt, WithoutAnOrdinaryTokenThereIsNone) {
  kiv::TokenizerData data = letters({"<s>", "</s>"}, {});
  data.tokenTypes = {kiv::kTokenTypeControl, kiv::kTokenTypeControl};
  EXPECT_THAT([&] { ExactPrompt(load(data)); },
              ThrowsMessage<Failure>(HasSubstr("no token of the model's vocabulary")));
}

}  // namespace
}  // namespace zemtool
