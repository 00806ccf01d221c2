// SPDX-License-Identifier: Apache-2.0
#include "engine/text/tokenizer/split_pattern.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

#include "engine/text/byte_vocabulary.h"
#include "engine/text/plain_regex.h"

namespace zem::text {
namespace {

using test::kFamilyRegex;
using test::kGpt2Regex;
using test::kOlderRegex;
using test::PlainRegex;
using ::testing::ElementsAreArray;
using Pieces = std::vector<std::string>;

Pieces piecesOf(SplitPattern pattern, std::string_view text) {
  Pieces pieces;
  while (!text.empty()) {
    pieces.emplace_back(text.substr(0, pieceLength(pattern, text)));
    text.remove_prefix(pieces.back().size());
  }
  return pieces;
}

TEST(SplitPatternTest, ExpressionsAndNamesAreRecognised) {
  EXPECT_EQ(patternOfRegex(kFamilyRegex), SplitPattern::Family);
  EXPECT_EQ(patternOfRegex(kOlderRegex), SplitPattern::FamilyWithoutMarks);
  EXPECT_EQ(patternOfRegex(kGpt2Regex), SplitPattern::Gpt2);
  EXPECT_EQ(patternOfRegex(""), std::nullopt);
  EXPECT_EQ(patternOfRegex(std::string(kFamilyRegex) + " "), std::nullopt);
  EXPECT_EQ(patternOfGgufName("qwen35"), SplitPattern::Family);
  EXPECT_EQ(patternOfGgufName("qwen2"), SplitPattern::FamilyWithoutMarks);
  EXPECT_EQ(patternOfGgufName("gpt-2"), SplitPattern::Gpt2);
  EXPECT_EQ(patternOfGgufName("gpt2"), std::nullopt);
}

TEST(SplitPatternTest, FamilyCutsAsItsExpressionSays) {
  const std::vector<std::pair<std::string, Pieces>> cases = {
      {"", {}},
      {"a", {"a"}},
      {"Hello world", {"Hello", " world"}},
      {"a  b", {"a", " ", " b"}},
      {"a   ", {"a", "   "}},
      {"1234", {"1", "2", "3", "4"}},
      {"x=1;y", {"x", "=", "1", ";y"}},
      {"don't DON'T we'Re they'LLx",
       {"don", "'t", " DON", "'T", " we", "'Re", " they", "'LL", "x"}},
      {"'stop", {"'s", "top"}},
      {"x'\xC5\xBF!", {"x", "'\xC5\xBF", "!"}},  // U+017F folds to s
      {"'\xE2\x84\xAA", {"'\xE2\x84\xAA"}},      // U+212A folds to k
      {"end.\n\nNext", {"end", ".\n\n", "Next"}},
      {"a \r\n b", {"a", " \r\n", " b"}},
      {"\n \n  x", {"\n \n", " ", " x"}},
      {"\t\tx", {"\t", "\tx"}},
      {"e\xCC\x81\xCC\x81z", {"e\xCC\x81\xCC\x81z"}},  // marks belong to words
      {"\xCC\x81", {"\xCC\x81"}},                      // alone
      {"1\xCC\x81", {"1", "\xCC\x81"}},                // behind a digit
      {" \xE0\xB8\x9B\xE0\xB8\xB5", {" \xE0\xB8\x9B\xE0\xB8\xB5"}},
      {"\xE3\x80\x80\xE3\x80\x80x", {"\xE3\x80\x80", "\xE3\x80\x80x"}},  // wide spaces
      {"a\xC2\x85"
       "b",
       {"a",
        "\xC2\x85"
        "b"}},  // a next-line character
      {" ?!\r\n\r\nx", {" ?!\r\n\r\n", "x"}},
      {"\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9",
       {"\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9"}},
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_THAT(piecesOf(SplitPattern::Family, text), ElementsAreArray(expected)) << text;
  }
}

TEST(SplitPatternTest, OlderPatternKeepsMarksApart) {
  EXPECT_THAT(piecesOf(SplitPattern::FamilyWithoutMarks, "e\xCC\x81\xCC\x81z"),
              ElementsAreArray(Pieces{"e", "\xCC\x81\xCC\x81", "z"}));
  EXPECT_THAT(piecesOf(SplitPattern::FamilyWithoutMarks, "1\xCC\x81z"),
              ElementsAreArray(Pieces{"1", "\xCC\x81z"}));
}

TEST(SplitPatternTest, Gpt2CutsAsItsExpressionSays) {
  EXPECT_THAT(piecesOf(SplitPattern::Gpt2, "it's IT'S 1234  x!?\n\ny "),
              ElementsAreArray(Pieces{"it", "'s", " IT", "'", "S", " 1234", " ", " x", "!?", "\n",
                                      "\n", "y", " "}));
}

// Texts of the characters that the expressions tell apart.
std::string randomText(std::mt19937& random) {
  static const Pieces kParts = {"a",
                                "S",
                                "t",
                                "L",
                                "l",
                                "r",
                                "e",
                                "v",
                                "m",
                                "d",
                                "'",
                                "'",
                                "'s",
                                "\xC5\xBF",
                                "\xE2\x84\xAA",
                                "1",
                                "\xD9\xA3",
                                "\xE2\x85\xA7",
                                " ",
                                " ",
                                "\t",
                                "\n",
                                "\r",
                                "\r\n",
                                "\xC2\x85",
                                "\xC2\xA0",
                                "\xE3\x80\x80",
                                "\xE2\x80\xA8",
                                ".",
                                "!",
                                "\xE2\x80\x99",
                                "\xCC\x81",
                                "\xE0\xB8\xB5",
                                "\xE6\x97\xA5",
                                "\xEA\xB0\x80",
                                "\xF0\x9F\x98\x80",
                                "\xE2\x80\x8D",
                                "\xEF\xB8\x8F",
                                "\xEF\xBB\xBF",
                                "\xF0\x90\x97\x89",
                                std::string(1, '\0'),
                                "\x7F"};
  std::string text;
  for (size_t n = random() % 14; n > 0; --n) text += kParts[random() % kParts.size()];
  return text;
}

TEST(SplitPatternTest, AnyTextIsCutAsTheExpressionIsMatched) {
  const std::vector<std::pair<SplitPattern, PlainRegex>> patterns = {
      {SplitPattern::Family, PlainRegex(kFamilyRegex)},
      {SplitPattern::FamilyWithoutMarks, PlainRegex(kOlderRegex)},
      {SplitPattern::Gpt2, PlainRegex(kGpt2Regex)}};
  std::mt19937 random(1);
  for (int round = 0; round < 20000; ++round) {
    const std::string text = randomText(random);
    for (const auto& [pattern, regex] : patterns) {
      ASSERT_THAT(piecesOf(pattern, text), ElementsAreArray(regex.pieces(text))) << text;
    }
  }
}

}  // namespace
}  // namespace zem::text
