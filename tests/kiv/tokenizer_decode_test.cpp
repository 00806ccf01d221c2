// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

#include "kiv/tokenizer.h"

namespace zemtest {

using namespace kiv;

namespace {

Tokenizer loadedWith(std::vector<std::string> tokens, std::vector<int32_t> types = {}) {
  TokenizerData data;
  data.tokens = std::move(tokens);
  data.tokenTypes = std::move(types);
  Tokenizer tokenizer;
  EXPECT_TRUE(tokenizer.load(std::move(data)).ok());
  return tokenizer;
}

std::string decoded(const Tokenizer& tokenizer, const std::vector<int32_t>& ids) {
  std::string text = "old";
  EXPECT_TRUE(tokenizer.decode(ids, text).ok());
  return text;
}

// The text of all the tokens, in order.
std::string decodedAll(std::vector<std::string> tokens, std::vector<int32_t> types = {}) {
  std::vector<int32_t> ids;
  for (size_t i = 0; i < tokens.size(); ++i) ids.push_back(static_cast<int32_t>(i));
  return decoded(loadedWith(std::move(tokens), std::move(types)), ids);
}

TEST(TokenizerDecodeTest, AnEmptyVocabularyIsRefused) {
  std::string text = "old";
  const Status status = Tokenizer().decode({0}, text);
  EXPECT_EQ(status.code(), StatusCode::InvalidFormat);
  EXPECT_EQ(status.message(), "tokenizer: not loaded");
  EXPECT_EQ(text, "old");
}

TEST(TokenizerDecodeTest, MarkersBecomeSpacesAndTheFirstStays) {
  EXPECT_EQ(decodedAll({"▁Hello", "▁world"}), " Hello world");
  EXPECT_EQ(decodedAll({"▁▁x▁"}), "  x ");
}

TEST(TokenizerDecodeTest, NoIdsGiveNoText) { EXPECT_EQ(decoded(loadedWith({"a"}), {}), ""); }

TEST(TokenizerDecodeTest, IdsOutsideTheVocabularyAreSkipped) {
  const Tokenizer tokenizer = loadedWith({"a", "b"});
  EXPECT_EQ(decoded(tokenizer, {-1, 99999}), "");
  EXPECT_EQ(decoded(tokenizer, {0, 2, INT32_MIN, 1, INT32_MAX, 0}), "aba");
}

TEST(TokenizerDecodeTest, ByteTokensBecomeBytes) {
  EXPECT_EQ(decodedAll({"<0xE2>", "<0x82>", "<0xAC>"}), "€");
  EXPECT_EQ(decodedAll({"<0xaB>", "<0xFf>"}), "\xAB\xFF");
  EXPECT_EQ(decodedAll({"a<0x00>b"}), std::string("a\0b", 3));
}

TEST(TokenizerDecodeTest, WhatIsNoByteTokenStays) {
  for (const char* text : {"<0x4g>", "<0xg4>", "<0x4>", "<0x>", "<0X41>", "<0x41", "<0x4:>",
                           "<0x/1>", "<0x@1>", "<0x`1>", "<0x 1>", "0x41>", "<1x41>", "<0x411>"}) {
    EXPECT_EQ(decodedAll({text}), text);
  }
}

TEST(TokenizerDecodeTest, EveryByteHasAByteToken) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::vector<std::string> tokens;
  std::string bytes;
  for (unsigned value = 0; value < 256; ++value) {
    tokens.push_back(std::string("<0x") + kDigits[value / 16] + kDigits[value % 16] + '>');
    bytes.push_back(static_cast<char>(value));
  }
  EXPECT_EQ(decodedAll(std::move(tokens)), bytes);
}

TEST(TokenizerDecodeTest, AByteTokenMaySpanTokens) {
  EXPECT_EQ(decodedAll({"x<0", "x4", "1>y"}), "xAy");
  EXPECT_EQ(decodedAll({"<", "0", "x", "4", "1", ">"}), "A");
}

TEST(TokenizerDecodeTest, ByteTokensAreReadOnce) {
  EXPECT_EQ(decodedAll({"<0x3C>", "0x41>"}), "<0x41>");
  EXPECT_EQ(decodedAll({"<0x<0x41>"}), "<0xA");
  EXPECT_EQ(decodedAll({"<<0x41>>"}), "<A>");
}

TEST(TokenizerDecodeTest, AMarkerMadeOfByteTokensStays) {
  EXPECT_EQ(decodedAll({"<0xE2>", "<0x96>", "<0x81>"}), "▁");
}

TEST(TokenizerDecodeTest, AMarkerThatSpansTokensStays) {
  EXPECT_EQ(decodedAll({"a\xE2\x96", "\x81z"}), "a▁z");
}

TEST(TokenizerDecodeTest, SpecialTokensAreKeptAsTheyAre) {
  EXPECT_EQ(decodedAll({"<▁s>", "▁a", "<▁u>"}, {3, 1, 2}), "<▁s> a<▁u>");
}

TEST(TokenizerDecodeTest, OnlyTypesUnknownAndControlAreSpecial) {
  for (const int32_t type : {0, 1, 4, 5, 6, -3, INT32_MAX}) {
    EXPECT_EQ(decodedAll({"▁"}, {type}), " ") << type;
  }
}

TEST(TokenizerDecodeTest, ASpecialByteTokenBecomesAByteToo) {
  EXPECT_EQ(decodedAll({"<0x41>"}, {3}), "A");
}

TEST(TokenizerDecodeTest, AShortTypeTableStillCountsForItsTokens) {
  EXPECT_EQ(decodedAll({"▁", "▁"}, {3}), "▁ ");
}

TEST(TokenizerDecodeTest, TheByteLevelMarkerStays) {
  TokenizerData data;
  data.tokens = {"Ġt", "▁t"};
  data.merges = {"Ġ t"};
  Tokenizer tokenizer;
  ASSERT_TRUE(tokenizer.load(std::move(data)).ok());
  EXPECT_EQ(decoded(tokenizer, {0, 1}), "Ġt t");
}

TEST(TokenizerDecodeTest, EmptyTokensAddNothing) { EXPECT_EQ(decodedAll({"", "a", ""}), "a"); }

TEST(WhitespaceTest, FreeEscapeWritesThePlainMarker) {
  std::string text = std::string(" a\tb\n  \0 ", 9) + "\xC2\xA0";
  escapeWhitespace(text);
  EXPECT_EQ(text, std::string("▁a\tb\n▁▁\0▁", 17) + "\xC2\xA0");
  std::string empty;
  escapeWhitespace(empty);
  EXPECT_EQ(empty, "");
}

TEST(WhitespaceTest, UnescapeTouchesThePlainMarkerAlone) {
  std::string text = "▁Ġ\xE2\x96\x82▁ \xE2\x96";
  unescapeWhitespace(text);
  EXPECT_EQ(text, " Ġ\xE2\x96\x82  \xE2\x96");
  std::string empty;
  unescapeWhitespace(empty);
  EXPECT_EQ(empty, "");
}

TEST(WhitespaceTest, TheMembersFollowTheStyleOnTheWayInOnly) {
  TokenizerData data;
  data.tokens = {"t"};
  data.merges = {"Ġ t"};
  Tokenizer byteLevel;
  ASSERT_TRUE(byteLevel.load(std::move(data)).ok());
  std::string text = "a b ";
  byteLevel.escapeWhitespace(text);
  EXPECT_EQ(text, "aĠbĠ");
  text = "Ġ▁";
  byteLevel.unescapeWhitespace(text);
  EXPECT_EQ(text, "Ġ ");

  const Tokenizer plain = loadedWith({"t"});
  text = "a b";
  plain.escapeWhitespace(text);
  EXPECT_EQ(text, "a▁b");
  plain.unescapeWhitespace(text);
  EXPECT_EQ(text, "a b");
}

}  // namespace
}  // namespace zemtest
