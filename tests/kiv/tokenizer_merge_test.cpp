// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "kiv/plain_encoder.h"
#include "kiv/small_vocabulary.h"
#include "kiv/tokenizer.h"

namespace zemtest {

using namespace kiv;

namespace {

using ::testing::Each;
using ::testing::ElementsAre;

std::vector<int32_t> mergedIds(const TokenizerData& data, const std::string& text) {
  Tokenizer tokenizer;
  EXPECT_TRUE(tokenizer.load(data).ok());
  std::vector<int32_t> ids;
  EXPECT_TRUE(tokenizer.encode(text, ids, true).ok());
  return ids;
}

class RandomCase {
 public:
  explicit RandomCase(uint32_t seed) : random_(seed) {
    std::vector<std::string> all = {"a", "b", "▁", "Ġ", " ", "c", "é", "\n", "'", "s", "1"};
    all.insert(all.end(), {"<", ">", "\xE2", "\x96", "\r", "😀", "\x81", "!"});
    all.emplace_back(1, '\0');
    alphabet_.assign(all.begin(), all.begin() + 1 + below(static_cast<uint32_t>(all.size())));
  }

  TokenizerData vocabulary() {
    TokenizerData data;
    std::vector<std::string> symbols = alphabet_;
    const uint32_t rules = below(60);
    for (uint32_t i = 0; i < rules; ++i) data.merges.push_back(rule(symbols));
    if (below(2) == 0) data.merges.insert(data.merges.begin(), "Ġ a");
    data.tokens = symbols;
    for (uint32_t i = below(10); i > 0; --i) data.tokens.push_back(text(below(5)));
    std::shuffle(data.tokens.begin(), data.tokens.end(), random_);
    // Some symbols are no tokens: merges may pass through texts without an id.
    data.tokens.resize(1 + below(static_cast<uint32_t>(data.tokens.size())));
    if (below(2) == 0) {
      for (size_t i = 0; i < data.tokens.size(); ++i) {
        data.tokenTypes.push_back(below(8) == 0 ? 2 + static_cast<int32_t>(below(2)) : 1);
      }
    }
    data.bosId = static_cast<int32_t>(below(3)) - 1;
    data.unkId = below(2) == 0 ? -1 : 1000000;
    return data;
  }

  std::string text(uint32_t length) {
    std::string result;
    // A run now and then, because equal neighbours are where order matters.
    while (length > 0) {
      const std::string& piece = pick(alphabet_);
      uint32_t run = below(3) == 0 ? 1 + below(6) : 1;
      for (run = std::min(run, length); run > 0; --run, --length) result += piece;
    }
    if (below(4) == 0 && !result.empty()) result.pop_back();
    return result;
  }

  uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }

 private:
  const std::string& pick(const std::vector<std::string>& from) {
    return from[below(static_cast<uint32_t>(from.size()))];
  }

  std::string rule(std::vector<std::string>& symbols) {
    const std::string left = pick(symbols);
    const std::string right = pick(symbols);
    switch (below(12)) {
      case 0:
        return left + right;
      case 1:
        return left + "  " + right;
      case 2:
        return " " + right;
      default:
        if (left.size() + right.size() < 40) symbols.push_back(left + right);
        return left + " " + right;
    }
  }

  std::mt19937 random_;
  std::vector<std::string> alphabet_;
};

TEST(MergeTest, TheSmallestRankComesFirst) {
  const std::vector<std::string> tokens = {"a", "b", "c", "ab", "bc"};
  EXPECT_THAT(mergedIds(vocabulary(tokens, {"a b", "b c"}), "abc"), ElementsAre(3, 2));
  EXPECT_THAT(mergedIds(vocabulary(tokens, {"b c", "a b"}), "abc"), ElementsAre(0, 4));
}

TEST(MergeTest, TheLeftmostOfEqualRanksComesFirst) {
  const TokenizerData data = vocabulary({"a", "aa", "aaaa"}, {"a a", "aa aa"});
  EXPECT_THAT(mergedIds(data, "aaa"), ElementsAre(1, 0));
  EXPECT_THAT(mergedIds(data, "aaaa"), ElementsAre(2));
  EXPECT_THAT(mergedIds(data, "aaaaaaa"), ElementsAre(2, 1, 0));
}

TEST(MergeTest, AMergeMayEnableABetterRule) {
  EXPECT_THAT(
      mergedIds(vocabulary({"a", "b", "c", "abc", "ca", "ab"}, {"ab c", "a b", "c a"}), "abcab"),
      ElementsAre(3, 5));
}

TEST(MergeTest, TheFirstOfEqualRulesCounts) {
  EXPECT_THAT(mergedIds(vocabulary({"a", "b", "c", "ab", "bc"}, {"a b", "b c", "a b"}), "abc"),
              ElementsAre(3, 2));
}

TEST(MergeTest, MergesPassThroughTextsThatAreNoTokens) {
  const TokenizerData data = vocabulary({"abc", "c"}, {"a b", "ab c"});
  EXPECT_THAT(mergedIds(data, "abc"), ElementsAre(0));
  EXPECT_THAT(mergedIds(data, "abab"), ElementsAre());
}

TEST(MergeTest, AResultWithoutATokenOrARuleIsOneUnknown) {
  TokenizerData data = vocabulary({"a", "b"}, {"a b"});
  data.unkId = 9;
  EXPECT_THAT(mergedIds(data, "abb"), ElementsAre(9, 1));
}

TEST(MergeTest, TheSameTextMadeInTwoWaysIsOneSymbol) {
  const TokenizerData data =
      vocabulary({"a", "b", "c", "d", "abcd"}, {"b c", "a bc", "abc d", "a b", "ab c"});
  EXPECT_THAT(mergedIds(data, "abcd"), ElementsAre(4));
}

TEST(MergeTest, RulesOfOtherShapesFitNothing) {
  // A piece holds no spaces, so no symbol does, and none is empty.
  for (const char* rule : {"", " ", "ab", "a  b", " ab", "ab ", "a b ", " a b", "a b c"}) {
    EXPECT_THAT(mergedIds(vocabulary({"a", "b", "ab", "c", "a b"}, {rule}), "ab"),
                ElementsAre(0, 1))
        << '"' << rule << '"';
    EXPECT_THAT(mergedIds(vocabulary({"a", "b", "ab", "c", "a b"}, {rule, "a b"}), "ab"),
                ElementsAre(2))
        << '"' << rule << '"';
  }
}

TEST(MergeTest, ARuleMaySplitACharacter) {
  // The stray byte, then the character that was cut off by the end of the text.
  EXPECT_THAT(mergedIds(vocabulary({"\x80\xE2\x82", "\x80"}, {"\x80 \xE2\x82"}), "\x80\xE2\x82"),
              ElementsAre(0));
  EXPECT_THAT(mergedIds(vocabulary({"€", "\xE2"}, {"\xE2 \x82\xAC"}), "€\xE2"), ElementsAre(0, 1));
}

TEST(MergeTest, ZerosAndACutOffCharacterDiffer) {
  TokenizerData data =
      vocabulary({std::string("\xE2\0\0", 3), "\xE2", std::string("\xE2\0", 2)}, {});
  EXPECT_THAT(mergedIds(data, "\xE2"), ElementsAre(1));
  EXPECT_THAT(mergedIds(data, std::string("\xE2\0", 2)), ElementsAre(2));
  EXPECT_THAT(mergedIds(data, std::string("\xE2\0\0", 3)), ElementsAre(0));
}

TEST(MergeTest, AgreesWithThePlainRuleOnRandomVocabularies) {
  for (uint32_t seed = 0; seed < 3000; ++seed) {
    RandomCase random(seed);
    const TokenizerData data = random.vocabulary();
    Tokenizer tokenizer;
    ASSERT_TRUE(tokenizer.load(data).ok());
    PlainEncoder plain(data);
    for (int round = 0; round < 8; ++round) {
      const std::string text = random.text(random.below(60));
      std::vector<int32_t> ids;
      ASSERT_TRUE(tokenizer.encode(text, ids, true).ok());
      ASSERT_EQ(ids, plain.encode(text)) << "seed " << seed << ", text \"" << text << '"';
    }
  }
}

TEST(MergeTest, AgreesWithThePlainRuleWherePiecesComeAgainAndAreLong) {
  for (uint32_t seed = 5000; seed < 5200; ++seed) {
    RandomCase random(seed);
    const TokenizerData data = random.vocabulary();
    Tokenizer tokenizer;
    ASSERT_TRUE(tokenizer.load(data).ok());
    PlainEncoder plain(data);
    std::string text = random.text(80) + ' ' + random.text(200);
    text += text;
    std::vector<int32_t> ids;
    ASSERT_TRUE(tokenizer.encode(text, ids, true).ok());
    ASSERT_EQ(ids, plain.encode(text)) << "seed " << seed << ", text \"" << text << '"';
  }
}

// A quadratic encoder would need hours for each of these.
constexpr size_t kMillion = 1000000;

TEST(LongPieceTest, AMillionEqualLetters) {
  TokenizerData data = vocabulary({"a"}, {});
  for (std::string run = "a"; run.size() < 1024; run += run) {
    data.merges.push_back(std::string(run).append(" ").append(run));
    data.tokens.push_back(run + run);
  }
  const std::vector<int32_t> ids = mergedIds(data, std::string(kMillion, 'a'));
  // 976 runs of 1024 letters, then 576 = 512 + 64.
  ASSERT_EQ(ids.size(), 978U);
  EXPECT_THAT(std::vector<int32_t>(ids.begin(), ids.begin() + 976), Each(10));
  EXPECT_THAT(std::vector<int32_t>(ids.begin() + 976, ids.end()), ElementsAre(9, 6));
}

TEST(LongPieceTest, ASymbolThatGrowsLetterByLetter) {
  TokenizerData data = vocabulary({"a"}, {});
  for (size_t length = 1; length < 2000; ++length) {
    data.merges.insert(data.merges.begin(), std::string(length, 'a') + " a");
    data.tokens.emplace_back(length + 1, 'a');
  }
  const std::vector<int32_t> ids = mergedIds(data, std::string(kMillion, 'a'));
  ASSERT_EQ(ids.size(), 500U);
  EXPECT_THAT(ids, Each(1999));
}

TEST(LongPieceTest, AMillionSpaces) {
  const TokenizerData data = vocabulary({"▁", "▁▁"}, {"▁ ▁"});
  const std::vector<int32_t> ids = mergedIds(data, std::string(kMillion, ' '));
  EXPECT_EQ(ids.size(), kMillion / 2);
  EXPECT_THAT(ids, Each(1));
}

TEST(LongPieceTest, AMillionSpecialTokens) {
  TokenizerData data = vocabulary({"a", "<s>", "<s"}, {});
  data.tokenTypes = {1, 3, 1};
  std::string text;
  for (size_t i = 0; i < kMillion; ++i) text += "<s>";
  const std::vector<int32_t> ids = mergedIds(data, text);
  EXPECT_EQ(ids.size(), kMillion);
  EXPECT_THAT(ids, Each(1));
}

TEST(LongPieceTest, HundredsOfSpecialTokensThatNearlyMatch) {
  TokenizerData data = vocabulary({"<"}, {});
  for (int i = 0; i < 500; ++i)
    data.tokens.push_back(std::to_string(i).insert(0, "<<").append(">"));
  data.tokenTypes.assign(data.tokens.size(), 3);
  data.tokenTypes[0] = 1;
  const std::vector<int32_t> ids = mergedIds(data, std::string(kMillion, '<') + "<<499>");
  ASSERT_EQ(ids.size(), kMillion + 1);
  EXPECT_EQ(ids.back(), 500);
}

TEST(LongPieceTest, AMillionLineFeeds) {
  const std::vector<int32_t> ids =
      mergedIds(vocabulary({"a", "\n"}, {}), std::string(kMillion, '\n'));
  EXPECT_EQ(ids.size(), kMillion);
  EXPECT_THAT(ids, Each(1));
}

}  // namespace
}  // namespace zemtest
