// SPDX-License-Identifier: Apache-2.0
#include "kiv/text/byte_level.h"

#include <set>
#include <string>

#include "gtest/gtest.h"
#include "kiv/tokenizer.h"
#include "support/published_model.h"

namespace zemtest {

using namespace kiv;

namespace {

std::string allBytes() {
  std::string bytes;
  for (int b = 0; b < 256; ++b) bytes.push_back(static_cast<char>(b));
  return bytes;
}

std::string bytesOf(std::string_view spelled) {
  std::string bytes = "unchanged";
  EXPECT_TRUE(byteLevelToBytes(spelled, bytes)) << spelled;
  return bytes;
}

TEST(ByteLevelTest, EveryByteHasASpellingAndComesBack) {
  EXPECT_EQ(bytesOf(zemtest::spelled(allBytes())), allBytes());
  EXPECT_EQ(bytesOf(""), "");
}

TEST(ByteLevelTest, PublishedSpellingsStandForTheirText) {
  EXPECT_EQ(bytesOf("\u0120the"), " the");
  EXPECT_EQ(bytesOf("\u010A\u010A"), "\n\n");
  EXPECT_EQ(bytesOf("\u0109"), "\t");
  EXPECT_EQ(bytesOf("\u0100"), std::string(1, '\0'));
  EXPECT_EQ(bytesOf("\u0143"), "\xAD");
  EXPECT_EQ(bytesOf("\u00C3\u00A9"), "\u00E9");
}

TEST(ByteLevelTest, OtherCharactersSpellNoByte) {
  for (const char* text : {" ", "a b", "\u4E2D", "\u0144", "\u00AD", "\x7F", "\xFF", "\xC4"}) {
    std::string bytes = "unchanged";
    EXPECT_FALSE(byteLevelToBytes(text, bytes)) << text;
    EXPECT_EQ(bytes, "unchanged");
  }
}

TEST(ByteLevelTest, WholeTextIsWellFormedUtf8) {
  for (const char* text : {"", "a", "\u00E9", "\u4E2D\u6587", "\U0001F600", "\x7F", "\uFFFD",
                           "\U0010FFFF", "\uD7FF\uE000"}) {
    EXPECT_TRUE(isWholeText(text)) << text;
  }
  for (const char* text : {"\x80", "\xE4\xB8", "a\xC3", "\xC0\x80", "\xC1\xBF", "\xE0\x9F\xBF",
                           "\xED\xA0\x80", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80",
                           "\xF5\x80\x80\x80", "\xFF", "\xC3(", "\u4E2D\xE6"}) {
    EXPECT_FALSE(isWholeText(text)) << text;
  }
}

TEST(ByteLevelTest, StoredTokensAreText) {
  EXPECT_EQ(storedToken(" the"), "\u2581the");
  EXPECT_EQ(storedToken("\n"), "\n");
  EXPECT_EQ(storedToken("a\tb"), "a\tb");
  EXPECT_EQ(storedToken(""), "");
  EXPECT_TRUE(storedAsText(" the"));
  EXPECT_TRUE(storedAsText("<0x4"));
}

TEST(ByteLevelTest, WhatIsNoTextIsARunOfBytes) {
  EXPECT_EQ(storedToken("\xE4\xB8"), "<0xE4><0xB8>");
  EXPECT_EQ(storedToken(" \xC3"), "<0x20><0xC3>");
  EXPECT_FALSE(storedAsText("\xE4\xB8"));
}

TEST(ByteLevelTest, WhatDecodingWouldTakeForSomethingElseIsSpelledInBytes) {
  EXPECT_EQ(storedToken("a\u2581"), "a<0xE2><0x96><0x81>");
  EXPECT_EQ(storedToken("<0x41>"), "<0x3C>0x41>");
  EXPECT_FALSE(storedAsText("a\u2581"));
  EXPECT_FALSE(storedAsText("x<0x4f>"));
}

TEST(ByteLevelTest, DecodingAStoredTokenGivesItsBytes) {
  const std::set<std::string> tokens = {
      " the",   "\n\n",     std::string(1, '\0'), "\xE4\xB8",       " \xE4",      "\u2581",
      "<0x41>", "<<0x41>>", "<0x<0x41>",          "a \u2581 b\r\n", "\U0001F600", allBytes()};
  for (const std::string& bytes : tokens) {
    TokenizerData data;
    data.tokens = {storedToken(bytes)};
    data.tokenTypes = {1};
    Tokenizer tokenizer;
    ASSERT_TRUE(tokenizer.load(std::move(data)).ok());
    std::string text;
    ASSERT_TRUE(tokenizer.decode({0}, text).ok());
    EXPECT_EQ(text, bytes);
  }
}

}  // namespace
}  // namespace zemtest
