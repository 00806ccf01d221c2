// SPDX-License-Identifier: Apache-2.0
// Whole texts with a learnt vocabulary against encoding as it is defined.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "kiv/plain_encoder.h"
#include "kiv/text/piece_memo.h"
#include "kiv/tokenizer.h"
#include "support/trained_vocabulary.h"

namespace zemtest {

using namespace kiv;

namespace {

constexpr char kText[] =
    "It was a bright cold day, and the clocks weren't striking: they'd stopped at 12345.\n"
    "The river's bank (the old one) had been \"closed\"  for repair; nobody'd ask why…\n\n"
    "for (int i = 0; i < count; ++i) {\n\t\tsum += values[i] * 0.125f;  // über die Größe\n}\n"
    "日本語のテキストと、Straße, naïve café — 🙂🙃, 1,000,000 times ___ "
    "--->\r\n";

// Words of syllables, frequent ones far more often.
std::string words(size_t count, uint32_t seed) {
  const std::vector<std::string> syllables = {"ka", "to", "mi", "ren", "s",  "ing", "ver", "ä",
                                              "on", "pl", "er", "語",  "qu", "est", "al",  "d'"};
  std::mt19937 random(seed);
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    std::mt19937 word(static_cast<uint32_t>(random() % (1 + random() % 3000)));
    for (size_t n = 1 + word() % 4; n > 0; --n) text += syllables[word() % syllables.size()];
    text += i % 11 == 10 ? ".\n" : (i % 7 == 6 ? ", " : " ");
  }
  return text;
}

std::string randomBytes(size_t count, uint32_t seed) {
  std::mt19937 random(seed);
  std::string bytes(count, '\0');
  for (char& c : bytes) c = static_cast<char>(random());
  return bytes;
}

std::string repeated(const std::string& unit, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) text += unit;
  return text;
}

class EncodingTest : public ::testing::TestWithParam<SpaceMarker> {
 protected:
  static TokenizerData vocabulary() {
    return trainVocabulary(kText + words(3000, 1), 3000, GetParam());
  }

  void expectAsDefined(const std::string& text) {
    std::vector<int32_t> ids;
    ASSERT_TRUE(tokenizer_.encode(text, ids, true).ok());
    ASSERT_EQ(ids, plain_.encode(text)) << text.substr(0, 200);
  }

  void SetUp() override { ASSERT_TRUE(tokenizer_.load(data_).ok()); }

  TokenizerData data_ = vocabulary();
  Tokenizer tokenizer_;
  PlainEncoder plain_{data_};
};

INSTANTIATE_TEST_SUITE_P(Markers, EncodingTest,
                         ::testing::Values(SpaceMarker::ByteLevel, SpaceMarker::LowerBlock),
                         [](const auto& marker) {
                           return marker.param == SpaceMarker::ByteLevel ? "U0120" : "U2581";
                         });

TEST_P(EncodingTest, ProseAndCode) {
  expectAsDefined(kText);
  expectAsDefined(repeated(kText, 5));
}

TEST_P(EncodingTest, MoreWordsThanAreRemembered) {
  // As many different words as this take each other's places.
  for (uint32_t seed = 2; seed < 5; ++seed) expectAsDefined(words(6000, seed));
}

TEST_P(EncodingTest, EveryPrefixOfAText) {
  const std::string text = kText;
  for (size_t length = 0; length <= text.size(); ++length) expectAsDefined(text.substr(0, length));
}

TEST_P(EncodingTest, EveryByteAloneAndRepeated) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string one(1, static_cast<char>(byte));
    for (const char* after : {"", "a", " ", "▁", "Ġ"}) {
      expectAsDefined(repeated(one + after, 1));
      expectAsDefined(repeated(one + after, 40));
    }
  }
}

TEST_P(EncodingTest, RandomBytes) {
  for (uint32_t seed = 0; seed < 20; ++seed) expectAsDefined(randomBytes(3000, seed));
}

TEST_P(EncodingTest, CharactersThatSwallowAMarker) {
  // A lead byte takes the bytes behind it along, whatever they are.
  for (const char* lead : {"\xC3", "\xE2", "\xE2\x96", "\xF0", "\xF0\x9F", "\xF0\x9F\x99"}) {
    expectAsDefined(repeated(std::string(lead) + " the day", 3));
    expectAsDefined(repeated(std::string("the") + lead + "▁the", 3));
  }
}

TEST_P(EncodingTest, HostileTexts) {
  for (const char* unit : {"a", " ", "▁", "Ġ", "\n", "\r", "'", "1", "<|im_end|>", "<|im_en", "<|",
                           "kato", "…", "\xE2\x96"}) {
    expectAsDefined(repeated(unit, 300));
    expectAsDefined(repeated(unit, 33) + "day" + repeated(unit, 31));
  }
}

TEST_P(EncodingTest, PiecesAroundTheLengthWhereMergingChanges) {
  for (size_t length = 20; length < 40; ++length) {
    expectAsDefined(words(40, 9).substr(0, length) + std::string(length, 'k'));
    expectAsDefined(repeated("ka", length) + " " + repeated("語", length));
  }
}

TokenizerData lowerBlock(std::vector<std::string> merges) {
  TokenizerData data;
  data.tokens = {"a", "b", "▁", "▁b", "a▁b", "a▁", "ab", "é", "é▁", "▁▁", "▁▁b"};
  data.merges = std::move(merges);
  return data;
}

// Lines of words are merged word by word where no rule reaches across.
TEST(WordBorderTest, RulesThatReachAcrossAMarkerAreFollowed) {
  const std::vector<std::vector<std::string>> cases = {
      {"▁ b", "a ▁b"},        {"a ▁", "a▁ b"},   {"▁ b", "a b"},
      {"é ▁", "▁ b"},         {"▁ ▁", "▁▁ b"},   {"▁▁ b", "▁ ▁"},
      {"▁ b", "▁ ▁b", "a ▁"}, {"\xA9 ▁", "▁ b"}, {"a \xE2\x96", "▁ b"}};
  for (const auto& merges : cases) {
    const TokenizerData data = lowerBlock(merges);
    Tokenizer tokenizer;
    ASSERT_TRUE(tokenizer.load(data).ok());
    PlainEncoder plain(data);
    for (const char* text : {"a b", "a b a b", "é b", "a  b", " b", "a ", "a▁b", "  ", "a   b a"}) {
      std::vector<int32_t> ids;
      ASSERT_TRUE(tokenizer.encode(text, ids, true).ok());
      EXPECT_EQ(ids, plain.encode(text)) << merges[0] << ", \"" << text << '"';
    }
  }
}

TEST(PieceMemoTest, EmptyEntriesHoldNothing) {
  PieceMemo memo(0);
  EXPECT_FALSE(memo.entryOf("a").holds("a"));
  EXPECT_FALSE(memo.entryOf(std::string(1, '\0')).holds(std::string(1, '\0')));
}

TEST(PieceMemoTest, AnEntryHoldsItsPieceOnly) {
  const std::string text(PieceMemo::kLongestPiece, 'x');
  for (size_t length = 1; length <= text.size(); ++length) {
    PieceMemo memo(1000);
    const std::string_view piece = std::string_view(text).substr(0, length);
    memo.entryOf(piece) = {piece.data(), 0, static_cast<uint32_t>(length), 1};
    EXPECT_TRUE(memo.entryOf(std::string(piece)).holds(std::string(piece)));
    for (size_t at = 0; at < length; ++at) {
      std::string other(piece);
      other[at] = 'y';
      EXPECT_FALSE(memo.entryOf(other).holds(other));
      EXPECT_FALSE(memo.entryOf(piece).holds(other));
    }
    EXPECT_FALSE(memo.entryOf(piece).holds(piece.substr(1)));
  }
}

TEST(PieceMemoTest, DifferentPiecesMostlyHaveDifferentPlaces) {
  PieceMemo memo(size_t{1} << 20);
  size_t taken = 0;
  std::vector<std::string> pieces;
  for (int i = 0; i < 4000; ++i) pieces.push_back(std::to_string(i));
  for (const std::string& piece : pieces) {
    PieceMemo::Entry& entry = memo.entryOf(piece);
    if (entry.length != 0) ++taken;
    entry = {piece.data(), 0, static_cast<uint32_t>(piece.size()), 0};
  }
  EXPECT_LT(taken, 800U);  // 450 for a random function
}

}  // namespace
}  // namespace zemtest
