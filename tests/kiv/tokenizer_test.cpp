// SPDX-License-Identifier: Apache-2.0
#include "kiv/tokenizer.h"

#include <gmock/gmock.h>

#include <thread>
#include <utility>

namespace zemtest {

using namespace kiv;

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TokenizerData wordVocabulary() {
  TokenizerData data;
  data.tokens = {"a", "b", "ab", "▁", "<s>", "▁ab"};
  data.tokenTypes = {1, 1, 1, 1, 3, 1};
  data.merges = {"a b", "▁ ab"};
  data.bosId = 4;
  return data;
}

Tokenizer loaded(TokenizerData data) {
  Tokenizer tokenizer;
  EXPECT_TRUE(tokenizer.load(std::move(data)).ok());
  return tokenizer;
}

std::vector<int32_t> encoded(const Tokenizer& tokenizer, const std::string& text) {
  std::vector<int32_t> ids;
  EXPECT_TRUE(tokenizer.encode(text, ids, false).ok());
  return ids;
}

// What the vocabulary writes for a space tells its style.
std::string spaceMarker(std::vector<std::string> tokens, std::vector<std::string> merges) {
  TokenizerData data;
  data.tokens = std::move(tokens);
  data.merges = std::move(merges);
  std::string space = " ";
  loaded(std::move(data)).escapeWhitespace(space);
  return space;
}

constexpr char kByteLevel[] = "Ġ";
constexpr char kPlain[] = "▁";

TEST(TokenizerStyleTest, TheFirstRuleDecides) {
  EXPECT_EQ(spaceMarker({"t"}, {"Ġ t"}), kByteLevel);
  EXPECT_EQ(spaceMarker({"t"}, {"▁ t"}), kPlain);
  EXPECT_EQ(spaceMarker({"t"}, {"a t", "Ġ t"}), kPlain);
  EXPECT_EQ(spaceMarker({"t"}, {"Ġ t", "▁ t"}), kByteLevel);
}

TEST(TokenizerStyleTest, WithoutRulesItIsNotByteLevel) {
  EXPECT_EQ(spaceMarker({"Ġ", "Ġt"}, {}), kPlain);
}

TEST(TokenizerStyleTest, BothMarkersInTheFirstRuleAreNotByteLevel) {
  EXPECT_EQ(spaceMarker({"t"}, {"Ġ ▁"}), kPlain);
}

TEST(TokenizerStyleTest, AMarkerCutByTheSpaceOfTheRuleIsNone) {
  EXPECT_EQ(spaceMarker({"t"}, {"\xC4 \xA0"}), kPlain);
}

TEST(TokenizerLoadTest, ANewTokenizerIsEmpty) {
  const Tokenizer tokenizer;
  EXPECT_FALSE(tokenizer.valid());
  EXPECT_EQ(tokenizer.tokenToId("a"), -1);
  EXPECT_EQ(tokenizer.tokenToId(""), -1);
  EXPECT_EQ(tokenizer.bos(), -1);
  EXPECT_EQ(tokenizer.eos(), -1);
  EXPECT_EQ(tokenizer.unk(), -1);
  std::string text = "kept";
  EXPECT_FALSE(tokenizer.tokenToString(0, text).ok());
  EXPECT_EQ(text, "kept");
}

TEST(TokenizerLoadTest, AnEmptyTokenListIsRefused) {
  Tokenizer tokenizer;
  const Status status = tokenizer.load({});
  EXPECT_EQ(status.code(), StatusCode::InvalidFormat);
  EXPECT_EQ(status.message(), "tokenizer: empty token list");
  EXPECT_FALSE(tokenizer.valid());
}

TEST(TokenizerLoadTest, AFailedLoadLeavesTheOldVocabulary) {
  Tokenizer tokenizer = loaded(wordVocabulary());
  TokenizerData empty;
  empty.bosId = 77;
  EXPECT_FALSE(tokenizer.load(std::move(empty)).ok());
  EXPECT_EQ(tokenizer.bos(), 4);
  EXPECT_THAT(encoded(tokenizer, "ab<s>"), ElementsAre(2, 4));
}

TEST(TokenizerLoadTest, ASecondLoadReplacesEverything) {
  Tokenizer tokenizer = loaded(wordVocabulary());
  TokenizerData other;
  other.tokens = {"x", "<", "s", ">", "a", "b"};
  ASSERT_TRUE(tokenizer.load(std::move(other)).ok());
  EXPECT_EQ(tokenizer.tokenToId("ab"), -1);
  EXPECT_EQ(tokenizer.bos(), -1);
  EXPECT_THAT(encoded(tokenizer, "ab<s>"), ElementsAre(4, 5, 1, 2, 3));
}

TEST(TokenizerLoadTest, TheRecordIsKept) {
  TokenizerData data = wordVocabulary();
  data.scores = {0, 1, 2, 3, 4, 5};
  data.bosId = 1;
  data.eosId = INT32_MAX;
  data.unkId = INT32_MIN;
  data.padId = 3;
  data.addBos = true;
  data.chatTemplate = "template";
  const Tokenizer tokenizer = loaded(data);
  EXPECT_EQ(tokenizer.data().tokens, data.tokens);
  EXPECT_EQ(tokenizer.data().merges, data.merges);
  EXPECT_EQ(tokenizer.data().tokenTypes, data.tokenTypes);
  EXPECT_EQ(tokenizer.data().scores, data.scores);
  EXPECT_EQ(tokenizer.data().padId, 3);
  EXPECT_TRUE(tokenizer.data().addBos);
  EXPECT_EQ(tokenizer.data().chatTemplate, "template");
  EXPECT_EQ(tokenizer.bos(), 1);
  EXPECT_EQ(tokenizer.eos(), INT32_MAX);
  EXPECT_EQ(tokenizer.unk(), INT32_MIN);
}

TEST(TokenizerLoadTest, ScoresOfAnotherLengthAreDropped) {
  for (const size_t count : {0U, 1U, 5U, 7U}) {
    TokenizerData data = wordVocabulary();
    data.scores.assign(count, 1.0F);
    EXPECT_THAT(loaded(std::move(data)).data().scores, IsEmpty()) << count;
  }
}

TEST(TokenizerLookUpTest, FindsExactTextsOnly) {
  const Tokenizer tokenizer = loaded(wordVocabulary());
  EXPECT_EQ(tokenizer.tokenToId("ab"), 2);
  EXPECT_EQ(tokenizer.tokenToId("<s>"), 4);
  EXPECT_EQ(tokenizer.tokenToId("abc"), -1);
  EXPECT_EQ(tokenizer.tokenToId(" ab"), -1);
  EXPECT_EQ(tokenizer.tokenToId(""), -1);
}

TEST(TokenizerLookUpTest, TheLowestIdOfEqualTextsWins) {
  TokenizerData data;
  data.tokens = {"x", "a", "a", "", "a", ""};
  const Tokenizer tokenizer = loaded(std::move(data));
  EXPECT_EQ(tokenizer.tokenToId("a"), 1);
  EXPECT_EQ(tokenizer.tokenToId(""), 3);
}

TEST(TokenizerLookUpTest, ANulByteIsAByteLikeAnyOther) {
  TokenizerData data;
  data.tokens = {std::string("a\0b", 3), "a", std::string(1, '\0')};
  const Tokenizer tokenizer = loaded(std::move(data));
  EXPECT_EQ(tokenizer.tokenToId(std::string("a\0b", 3)), 0);
  EXPECT_EQ(tokenizer.tokenToId("a"), 1);
  EXPECT_EQ(tokenizer.tokenToId(std::string(1, '\0')), 2);
  EXPECT_EQ(tokenizer.tokenToId(std::string(2, '\0')), -1);
}

TEST(TokenizerLookUpTest, EveryTokenOfALargeVocabularyIsFound) {
  TokenizerData data;
  for (int i = 0; i < 100000; ++i) data.tokens.push_back(std::to_string(i));
  const Tokenizer tokenizer = loaded(std::move(data));
  for (int i = 0; i < 100000; ++i) {
    ASSERT_EQ(tokenizer.tokenToId(std::to_string(i)), i);
  }
  EXPECT_EQ(tokenizer.tokenToId("100000"), -1);
}

TEST(TokenizerLookUpTest, TokenToStringIsTheStoredText) {
  TokenizerData data = wordVocabulary();
  data.tokens.emplace_back("<0x41>");
  const Tokenizer tokenizer = loaded(std::move(data));
  std::string text;
  ASSERT_TRUE(tokenizer.tokenToString(5, text).ok());
  EXPECT_EQ(text, "▁ab");
  ASSERT_TRUE(tokenizer.tokenToString(6, text).ok());
  EXPECT_EQ(text, "<0x41>");
}

TEST(TokenizerLookUpTest, TokenToStringRefusesIdsOutsideTheVocabulary) {
  const Tokenizer tokenizer = loaded(wordVocabulary());
  for (const int32_t id : {-1, 6, INT32_MIN, INT32_MAX}) {
    std::string text = "kept";
    const Status status = tokenizer.tokenToString(id, text);
    EXPECT_EQ(status.code(), StatusCode::InvalidFormat);
    EXPECT_EQ(status.message(), "tokenizer: token id out of range");
    EXPECT_EQ(text, "kept");
  }
}

TEST(TokenizerLifetimeTest, ACopyStandsAlone) {
  auto original = std::make_unique<Tokenizer>(loaded(wordVocabulary()));
  const Tokenizer copy = *original;
  original.reset();
  EXPECT_EQ(copy.tokenToId("ab"), 2);
  EXPECT_THAT(encoded(copy, "ab ab<s>"), ElementsAre(2, 5, 4));
}

TEST(TokenizerLifetimeTest, AMovedTokenizerWorksAndItsSourceIsEmpty) {
  Tokenizer source = loaded(wordVocabulary());
  Tokenizer target = loaded(wordVocabulary());
  target = std::move(source);
  EXPECT_THAT(encoded(target, "ab ab<s>"), ElementsAre(2, 5, 4));
  EXPECT_FALSE(source.valid());  // NOLINT(bugprone-use-after-move): the claim under test
  EXPECT_EQ(source.tokenToId("ab"), -1);
  std::vector<int32_t> ids;
  EXPECT_EQ(source.encode("ab", ids, false).message(), "tokenizer: not loaded");
}

TEST(TokenizerThreadsTest, OneTokenizerServesManyThreads) {
  const Tokenizer tokenizer = loaded(wordVocabulary());
  std::string text;
  for (int i = 0; i < 50; ++i) text += "ab a<s>b ";
  const std::vector<int32_t> expected = encoded(tokenizer, text);
  std::string expectedText;
  ASSERT_TRUE(tokenizer.decode(expected, expectedText).ok());
  EXPECT_EQ(expectedText, text);

  std::vector<int> failures(8, 0);
  std::vector<std::thread> threads;
  threads.reserve(failures.size());
  for (int& failed : failures) {
    threads.emplace_back([&] {
      for (int round = 0; round < 200; ++round) {
        std::vector<int32_t> ids;
        std::string decoded;
        const bool ok = tokenizer.encode(text, ids, false).ok() && ids == expected &&
                        tokenizer.decode(ids, decoded).ok() && decoded == text &&
                        tokenizer.tokenToId("ab") == 2;
        failed += ok ? 0 : 1;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(failures, ::testing::Each(0));
}

}  // namespace
}  // namespace zemtest
