// SPDX-License-Identifier: Apache-2.0
// Decoding, at once and as a model writes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "engine/text/byte_vocabulary.h"
#include "engine/text/tokenizer.h"
#include "engine/text/unicode/utf8.h"
#include "support/status_matchers.h"

namespace zem::text {
namespace {

using test::ByteVocabulary;
using zemtest::IsOk;
using Ids = std::vector<int32_t>;

class TokenizerDecodeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    vocabulary_.merge("\xF0", "\x9F");
    vocabulary_.merge("\xF0\x9F", "\x98");
    special_ = vocabulary_.add("<|end|>", true);
    think_ = vocabulary_.add("<think\xC3\xA9>", false);
    ASSERT_THAT(tokenizer_.loadJson(vocabulary_.text()), IsOk());
  }

  std::string streamed(const Ids& ids, bool skipSpecial = false) const {
    TextDecoder decoder(tokenizer_, skipSpecial);
    std::string text;
    for (const int32_t id : ids) {
      const std::string part = decoder.push(id);
      EXPECT_EQ(wellFormedLength(part), part.size());
      text += part;
    }
    return text + decoder.finish();
  }

  ByteVocabulary vocabulary_;
  int32_t special_ = -1;
  int32_t think_ = -1;
  Tokenizer tokenizer_;
};

TEST_F(TokenizerDecodeTest, AddedTokensAreTheirText) {
  const Ids ids = {'a', special_, think_};
  EXPECT_EQ(tokenizer_.decode(ids), "a<|end|><think\xC3\xA9>");
  EXPECT_EQ(tokenizer_.decode(ids, true), "a<think\xC3\xA9>");
  EXPECT_EQ(streamed(ids), "a<|end|><think\xC3\xA9>");
  EXPECT_EQ(streamed(ids, true), "a<think\xC3\xA9>");
}

TEST_F(TokenizerDecodeTest, IncompleteCharactersAreHeldBack) {
  TextDecoder decoder(tokenizer_);
  EXPECT_EQ(decoder.push('x'), "x");
  EXPECT_EQ(decoder.push(vocabulary_.idOf("\xF0\x9F\x98")), "");
  EXPECT_EQ(decoder.push(0x80), "\xF0\x9F\x98\x80");
  EXPECT_EQ(decoder.finish(), "");
}

TEST_F(TokenizerDecodeTest, BytesThatNeverBecomeACharacterAreReplaced) {
  TextDecoder decoder(tokenizer_);
  EXPECT_EQ(decoder.push(0xC3), "");
  EXPECT_EQ(decoder.push('z'), "\xEF\xBF\xBDz");
  EXPECT_EQ(decoder.push(0x80), "\xEF\xBF\xBD");
  EXPECT_EQ(decoder.push(0xE2), "");
  EXPECT_EQ(decoder.push(0x82), "");
  EXPECT_EQ(decoder.finish(), "\xEF\xBF\xBD");
  EXPECT_EQ(decoder.push('a'), "a");
}

TEST_F(TokenizerDecodeTest, IdsWithoutATokenArePassedOver) {
  const Ids ids = {-1, 'a', 1000000, INT32_MIN, INT32_MAX, 'b'};
  EXPECT_EQ(tokenizer_.decode(ids), "ab");
  EXPECT_EQ(streamed(ids), "ab");
  EXPECT_EQ(tokenizer_.decode(Ids{}), "");
}

TEST_F(TokenizerDecodeTest, StreamedTextsAreThoseDecodedAtOnce) {
  std::mt19937 random(1);
  for (int round = 0; round < 5000; ++round) {
    Ids ids;
    for (size_t n = random() % 12; n > 0; --n) {
      const bool high = random() % 3 != 0;
      ids.push_back(static_cast<int32_t>(high ? 0x80 + random() % 140 : random() % 300));
    }
    ASSERT_EQ(streamed(ids), tokenizer_.decode(ids));
    ASSERT_EQ(streamed(ids, true), tokenizer_.decode(ids, true));
  }
}

TEST_F(TokenizerDecodeTest, TokensAreKnownById) {
  EXPECT_EQ(tokenizer_.size(), static_cast<size_t>(think_) + 1);
  EXPECT_EQ(tokenizer_.bytesOf(0xFF), "\xFF");
  EXPECT_EQ(tokenizer_.bytesOf(0), std::string_view("\0", 1));
  EXPECT_EQ(tokenizer_.bytesOf(vocabulary_.idOf("\xF0\x9F")), "\xF0\x9F");
  EXPECT_EQ(tokenizer_.bytesOf(special_), "<|end|>");
  EXPECT_TRUE(tokenizer_.isAdded(special_) && tokenizer_.isSpecial(special_));
  EXPECT_TRUE(tokenizer_.isAdded(think_) && !tokenizer_.isSpecial(think_));
  EXPECT_TRUE(tokenizer_.hasToken('a') && !tokenizer_.isAdded('a'));
  EXPECT_FALSE(tokenizer_.hasToken(-1) || tokenizer_.hasToken(think_ + 1));
  EXPECT_EQ(tokenizer_.addedToken("<|end|>"), special_);
  EXPECT_EQ(tokenizer_.addedToken("<|end|>x"), std::nullopt);
  EXPECT_EQ(tokenizer_.addedToken("a"), std::nullopt);
  EXPECT_EQ(tokenizer_.addedToken(""), std::nullopt);
}

}  // namespace
}  // namespace zem::text
