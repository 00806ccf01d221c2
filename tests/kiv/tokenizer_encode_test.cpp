// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

#include "kiv/small_vocabulary.h"
#include "kiv/tokenizer.h"

namespace zemtest {

using namespace kiv;

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

Tokenizer loaded(TokenizerData data) {
  Tokenizer tokenizer;
  EXPECT_TRUE(tokenizer.load(std::move(data)).ok());
  return tokenizer;
}

// The texts of the ids, so that a test reads without counting.
std::vector<std::string> texts(const Tokenizer& tokenizer, const std::string& text) {
  std::vector<int32_t> ids = {1, 2, 3};
  EXPECT_TRUE(tokenizer.encode(text, ids, false).ok());
  std::vector<std::string> result;
  for (const int32_t id : ids) {
    result.emplace_back();
    if (!tokenizer.tokenToString(id, result.back()).ok()) result.back() = std::to_string(id);
  }
  return result;
}

std::vector<std::string> texts(TokenizerData data, const std::string& text) {
  return texts(loaded(std::move(data)), text);
}

std::vector<int32_t> idsOf(const Tokenizer& tokenizer, const std::string& text, bool addBos) {
  std::vector<int32_t> ids = {7, 7};
  EXPECT_TRUE(tokenizer.encode(text, ids, addBos).ok());
  return ids;
}

// Byte-level style, every letter of the alphabet below a token.
TokenizerData byteLevel(std::vector<std::string> more, std::vector<std::string> merges) {
  TokenizerData data = vocabulary(std::move(more), std::move(merges));
  data.merges.insert(data.merges.begin(), "Ġ Ġ");
  data.tokens.insert(data.tokens.end(),
                     {"Ġ", "a", "b", "1", "2", "3", "4", "5", "'", "T", "!", "\n", "\t", "ĠĠ"});
  return data;
}

TEST(TokenizerEncodeTest, AnEmptyVocabularyIsRefused) {
  std::vector<int32_t> ids = {5};
  const Status status = Tokenizer().encode("a", ids, true);
  EXPECT_EQ(status.code(), StatusCode::InvalidFormat);
  EXPECT_EQ(status.message(), "tokenizer: not loaded");
}

TEST(TokenizerEncodeTest, EmptyTextIsTheOptionalFirstIdAlone) {
  TokenizerData data = vocabulary({"a", "<s>"});
  EXPECT_THAT(idsOf(loaded(data), "", true), IsEmpty());
  data.bosId = 1;
  EXPECT_THAT(idsOf(loaded(data), "", true), ElementsAre(1));
  EXPECT_THAT(idsOf(loaded(data), "", false), IsEmpty());
}

TEST(TokenizerEncodeTest, OnlyTheArgumentAsksForTheFirstId) {
  TokenizerData data = vocabulary({"a", "<s>"});
  data.bosId = 1;
  data.addBos = true;
  EXPECT_THAT(idsOf(loaded(data), "a", false), ElementsAre(0));
  data.addBos = false;
  EXPECT_THAT(idsOf(loaded(data), "a", true), ElementsAre(1, 0));
}

TEST(TokenizerEncodeTest, IdsBeyondTheVocabularyArePassedOn) {
  TokenizerData data = vocabulary({"a"});
  data.bosId = INT32_MAX;
  data.unkId = 1000000;
  EXPECT_THAT(idsOf(loaded(data), "ax", true), ElementsAre(INT32_MAX, 0, 1000000));
  data.bosId = INT32_MIN;
  data.unkId = INT32_MIN;
  EXPECT_THAT(idsOf(loaded(data), "ax", true), ElementsAre(0));
}

TEST(TokenizerEncodeTest, TextWithoutATokenIsUnknownOrNothing) {
  TokenizerData data = vocabulary({"a", "<unk>"});
  EXPECT_THAT(texts(data, "axay€"), ElementsAre("a", "a"));
  data.unkId = 1;
  EXPECT_THAT(texts(data, "axay€"), ElementsAre("a", "<unk>", "a", "<unk>", "<unk>"));
}

TEST(TokenizerEncodeTest, ByteTokensAreNoFallback) {
  EXPECT_THAT(texts(vocabulary({"<0x78>", "a"}), "xa"), ElementsAre("a"));
}

TEST(TokenizerEncodeTest, WithoutRulesEveryCharacterIsATokenOfItsOwn) {
  EXPECT_THAT(texts(vocabulary({"a", "b", "ab", "é"}), "abé"), ElementsAre("a", "b", "é"));
}

TEST(TokenizerEncodeTest, TheLowestIdOfEqualTextsIsUsed) {
  EXPECT_THAT(idsOf(loaded(vocabulary({"b", "a", "a", "b", "ab", "ab"}, {"a b"})), "aab", false),
              ElementsAre(1, 4));
}

TEST(TokenizerEncodeTest, LineFeedsAreSegmentsOfTheirOwn) {
  const TokenizerData data =
      vocabulary({"a", "b", "\n", "\n\n", "a\n", "\nb"}, {"\n \n", "a \n", "\n b"});
  EXPECT_THAT(texts(data, "a\n\nb"), ElementsAre("a", "\n", "\n", "b"));
  EXPECT_THAT(texts(data, "\n"), ElementsAre("\n"));
  EXPECT_THAT(texts(data, "\n\n\n"), ElementsAre("\n", "\n", "\n"));
  EXPECT_THAT(texts(data, "\na\n"), ElementsAre("\n", "a", "\n"));
  EXPECT_THAT(texts(data, "a\nb\n\n\na"), ElementsAre("a", "\n", "b", "\n", "\n", "\n", "a"));
}

TEST(TokenizerEncodeTest, ALineFeedWithoutATokenIsUnknown) {
  TokenizerData data = vocabulary({"a", "?"});
  data.unkId = 1;
  EXPECT_THAT(texts(data, "a\n\na"), ElementsAre("a", "?", "?", "a"));
}

TEST(TokenizerEncodeTest, ASpaceJoinsWordsUnlessByteLevel) {
  TokenizerData data = vocabulary({"a", "b", "▁", "a▁", "a▁b"}, {"a ▁", "a▁ b"});
  EXPECT_THAT(texts(data, "a b"), ElementsAre("a▁b"));
}

TEST(TokenizerEncodeTest, ByteLevelWordsAreSeparate) {
  const TokenizerData data = byteLevel({"aĠ", "Ġb"}, {"a Ġ", "Ġ b"});
  EXPECT_THAT(texts(data, "a b"), ElementsAre("a", "Ġb"));
  EXPECT_THAT(texts(data, "a  b"), ElementsAre("a", "ĠĠ", "b"));
}

TEST(TokenizerEncodeTest, ByteLevelEscapesAPieceBeforeItsCharactersAreCut) {
  // The lead byte takes two bytes with it: the space in the run of letters, but the
  // marker's bytes afterwards.
  TokenizerData data = byteLevel({"\xE2Ġ", "?"}, {});
  data.unkId = 1;
  EXPECT_THAT(texts(data, "\xE2 a"), ElementsAre("\xE2Ġ", "a"));
}

TEST(TokenizerEncodeTest, MergesStopAtTheBordersOfPieces) {
  const TokenizerData data = byteLevel({"12", "123", "34", "45", "'T", "a'", "b!"},
                                       {"1 2", "12 3", "3 4", "4 5", "a '", "' T", "b !", "Ġ 1"});
  EXPECT_THAT(texts(data, "12345"), ElementsAre("123", "45"));
  EXPECT_THAT(texts(data, "1234"), ElementsAre("123", "4"));
  EXPECT_THAT(texts(data, "a'T"), ElementsAre("a", "'T"));
  EXPECT_THAT(texts(data, "b!"), ElementsAre("b", "!"));
  EXPECT_THAT(texts(data, " 1"), ElementsAre("Ġ", "1"));
}

TEST(TokenizerEncodeTest, NulBytesAreBytes) {
  TokenizerData data =
      vocabulary({"a", std::string(1, '\0'), std::string("\0\0", 2)}, {std::string("\0 \0", 3)});
  EXPECT_THAT(idsOf(loaded(data), std::string("a\0a\0\0", 5), false), ElementsAre(0, 1, 0, 2));
}

TEST(TokenizerEncodeTest, ACutOffCharacterIsOneSymbol) {
  TokenizerData data = vocabulary({"a", "\xE2\x82", "\xE2", "?"});
  data.unkId = 3;
  EXPECT_THAT(texts(data, "a\xE2\x82"), ElementsAre("a", "\xE2\x82"));
  EXPECT_THAT(texts(data, "a\xE2"), ElementsAre("a", "\xE2"));
  EXPECT_THAT(texts(data, "a\xF0\x9F"), ElementsAre("a", "?"));
  EXPECT_THAT(texts(data, "\xE2\x82\na"), ElementsAre("\xE2\x82", "?", "a"));
}

TEST(TokenizerSpecialsTest, FoundAnywhereInTheText) {
  TokenizerData data = vocabulary({"a", "b", "<s>", "<", "s", ">"});
  data.tokenTypes = {1, 1, 3, 1, 1, 1};
  EXPECT_THAT(texts(data, "<s>"), ElementsAre("<s>"));
  EXPECT_THAT(texts(data, "a<s>b<s><s>"), ElementsAre("a", "<s>", "b", "<s>", "<s>"));
  EXPECT_THAT(texts(data, "<<s>s>"), ElementsAre("<", "<s>", "s", ">"));
  EXPECT_THAT(texts(data, "<s"), ElementsAre("<", "s"));
  EXPECT_THAT(texts(data, "<S>"), ElementsAre("<", ">"));
}

TEST(TokenizerSpecialsTest, TypesUnknownAndControlAreSpecial) {
  for (const int32_t type : {0, 1, 2, 3, 4, 5, 6, -2}) {
    TokenizerData data = vocabulary({"x", "y", "xy"});
    data.tokenTypes = {1, 1, type};
    const size_t expected = type == 2 || type == 3 ? 1 : 2;
    EXPECT_EQ(texts(data, "xy").size(), expected) << type;
  }
}

TEST(TokenizerSpecialsTest, ATypeTableOfAnotherLengthMakesNoneSpecial) {
  TokenizerData data = vocabulary({"xy", "x", "y"});
  data.tokenTypes = {3, 1};
  EXPECT_THAT(texts(data, "xy"), ElementsAre("x", "y"));
  data.tokenTypes = {3, 1, 1, 1};
  EXPECT_THAT(texts(data, "xy"), ElementsAre("x", "y"));
  data.tokenTypes = {3, 1, 1};
  EXPECT_THAT(texts(data, "xy"), ElementsAre("xy"));
}

TEST(TokenizerSpecialsTest, TheLongestThatStandsThereIsTaken) {
  TokenizerData data = vocabulary({"<a>", "<ab>", "<b>", "<", "<a>b", "<a>bcd", "a", "b", "c"});
  data.tokenTypes = {3, 3, 3, 3, 3, 3, 1, 1, 1};
  EXPECT_THAT(texts(data, "<ab><a><b>"), ElementsAre("<ab>", "<a>", "<b>"));
  EXPECT_THAT(texts(data, "<a>b<a>bc<a>bcd"), ElementsAre("<a>b", "<a>b", "c", "<a>bcd"));
  EXPECT_THAT(texts(data, "<<ab"), ElementsAre("<", "<", "a", "b"));
}

TEST(TokenizerSpecialsTest, TheFirstPlaceWinsOverALongerTokenLater) {
  TokenizerData data = vocabulary({"ab", "bcd", "c", "d"});
  data.tokenTypes = {3, 3, 1, 1};
  EXPECT_THAT(texts(data, "abcd"), ElementsAre("ab", "c", "d"));
}

TEST(TokenizerSpecialsTest, BytesCompareUnsigned) {
  TokenizerData data = vocabulary({"\xFFx", "\x01x", "\xFF\x80", "\xFF\x01", "x"});
  data.tokenTypes = {3, 3, 3, 3, 1};
  EXPECT_THAT(texts(data, "\xFFx\x01x\xFF\x80\xFF\x01x"),
              ElementsAre("\xFFx", "\x01x", "\xFF\x80", "\xFF\x01", "x"));
}

TEST(TokenizerSpecialsTest, TheLowestIdOfEqualTextsIsUsed) {
  TokenizerData data = vocabulary({"a", "<s>", "<s>", "<s>"});
  data.tokenTypes = {1, 1, 3, 2};
  EXPECT_THAT(idsOf(loaded(data), "a<s>", false), ElementsAre(0, 2));
}

TEST(TokenizerSpecialsTest, EqualTextsAreNotReadBeyondTheirEnds) {
  // Long enough to lie on the heap, where a sanitizer guards what follows.
  const std::string special = "<a_special_token_of_some_length>";
  TokenizerData data = vocabulary({special, special, special, "a"});
  data.tokenTypes = {3, 3, 3, 1};
  EXPECT_THAT(idsOf(loaded(data), special + std::string(8, '\0') + "a", false), ElementsAre(0, 3));
}

TEST(TokenizerSpecialsTest, AnEmptyOneIsNeverMatched) {
  TokenizerData data = vocabulary({"", "a", "<s>"});
  data.tokenTypes = {3, 1, 3};
  EXPECT_THAT(texts(data, "a<s>a"), ElementsAre("a", "<s>", "a"));
  data.tokenTypes = {3, 1, 1};
  EXPECT_THAT(texts(data, "aa"), ElementsAre("a", "a"));
}

TEST(TokenizerSpecialsTest, NeverMatchedAcrossALineFeed) {
  TokenizerData data = vocabulary({"a\nb", "a", "b", "\n", "\n\n"});
  data.tokenTypes = {3, 1, 1, 1, 3};
  EXPECT_THAT(texts(data, "a\nb\n\n"), ElementsAre("a", "\n", "b", "\n", "\n"));
}

TEST(TokenizerSpecialsTest, ASpecialLineFeedUsesTheTokenOfItsText) {
  TokenizerData data = vocabulary({"\n", "\n", "a"});
  data.tokenTypes = {1, 3, 1};
  EXPECT_THAT(idsOf(loaded(data), "a\na", false), ElementsAre(2, 0, 2));
}

TEST(TokenizerSpecialsTest, SpacesAreMarkersWhereTheyAreSought) {
  TokenizerData data = vocabulary({"<x y>", "<x▁y>", "x"});
  data.tokenTypes = {3, 3, 1};
  EXPECT_THAT(texts(data, "<x y>"), ElementsAre("<x▁y>"));

  data = byteLevel({"<x y>", "<xĠy>"}, {});
  data.tokenTypes.assign(data.tokens.size(), 1);
  data.tokenTypes[0] = data.tokenTypes[1] = 3;
  EXPECT_THAT(texts(data, "a<x y>a"), ElementsAre("a", "<x y>", "a"));
  EXPECT_THAT(texts(data, "<xĠy>"), ElementsAre("<xĠy>"));
}

TEST(TokenizerSpecialsTest, TextAroundOneIsCutIntoPiecesOnItsOwn) {
  TokenizerData data = byteLevel({"<s>", "ab", "'", "Ġa"}, {"a b", "Ġ a", "' T"});
  data.tokenTypes.assign(data.tokens.size(), 1);
  data.tokenTypes[0] = 3;
  EXPECT_THAT(texts(data, "a<s>b ab"), ElementsAre("a", "<s>", "b", "Ġ", "ab"));
  EXPECT_THAT(texts(data, "a <s>a"), ElementsAre("a", "Ġ", "<s>", "a"));
}

TEST(TokenizerSpecialsTest, EveryTokenOfALargeVocabularyMayBeSpecial) {
  TokenizerData data;
  std::string text;
  for (int i = 0; i < 20000; ++i) {
    data.tokens.push_back(std::to_string(i).append(">"));
    text += data.tokens.back();
  }
  data.tokenTypes.assign(data.tokens.size(), 3);
  const std::vector<int32_t> ids = idsOf(loaded(std::move(data)), text, false);
  ASSERT_EQ(ids.size(), 20000U);
  for (int32_t i = 0; i < 20000; ++i) ASSERT_EQ(ids[static_cast<size_t>(i)], i);
}

}  // namespace
}  // namespace zemtest
