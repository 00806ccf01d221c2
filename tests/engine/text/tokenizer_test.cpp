// SPDX-License-Identifier: Apache-2.0
// Encoding: against encoding as it is defined, and what only this library promises.
#include "engine/text/tokenizer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "engine/text/byte_vocabulary.h"
#include "engine/text/plain_tokenizer.h"
#include "engine/text/unicode/nfc.h"
#include "engine/text/unicode/utf8.h"
#include "support/status_matchers.h"
#include "support/trained_vocabulary.h"

namespace zem::text {
namespace {

using test::ByteVocabulary;
using test::PlainTokenizer;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using zemtest::IsFailure;
using zemtest::IsOk;
using Ids = std::vector<int32_t>;

constexpr char kText[] =
    "It was a bright cold day, and the clocks weren't striking: they'd stopped at 12345.\n"
    "The river's bank (the old one) had been \"closed\"  for repair; nobody'd ask "
    "why\xE2\x80\xA6\n\n"
    "for (int i = 0; i < count; ++i) {\n\t\tsum += values[i] * 0.125f;  // \xC3\xBC"
    "ber die Gr\xC3\xB6\xC3\x9F"
    "e\n}\n"
    "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE3\x81\xAE\xE3\x83\x86\xE3\x82\xAD\xE3\x82\xB9\xE3\x83"
    "\x88, "
    "na\xC3\xAFve caf\xC3\xA9 \xE2\x80\x94 \xF0\x9F\x99\x82\xF0\x9F\x99\x83, 1,000,000 times ___ "
    "--->\r\n";

std::string words(size_t count, uint32_t seed) {
  const std::vector<std::string> syllables = {"ka",  "to",       "mi", "ren", "s",  "ing",
                                              "ver", "\xC3\xA4", "on", "pl",  "er", "\xE8\xAA\x9E",
                                              "qu",  "est",      "al", "d'"};
  std::mt19937 random(seed);
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    std::mt19937 word(static_cast<uint32_t>(random() % (1 + random() % 3000)));
    for (size_t n = 1 + word() % 4; n > 0; --n) text += syllables[word() % syllables.size()];
    text += i % 11 == 10 ? ".\n" : (i % 7 == 6 ? ", " : " ");
  }
  return text;
}

// A learnt vocabulary with added tokens, and encoding with it as it is defined.
struct Learnt {
  Learnt()
      : vocabulary(ByteVocabulary::fromLearnt(zemtest::trainVocabulary(
            kText + words(3000, 1), 3000, zemtest::SpaceMarker::ByteLevel))) {
    start = vocabulary.add("<|im_start|>", true);
    end = vocabulary.add("<|im_end|>", true);
    think = vocabulary.add("<think>", false);
    longer = vocabulary.add("<think>!", true);
    plain.emplace(vocabulary.root());
    status = tokenizer.loadJson(vocabulary.text());
  }

  ByteVocabulary vocabulary;
  int32_t start = -1;
  int32_t end = -1;
  int32_t think = -1;
  int32_t longer = -1;
  std::optional<PlainTokenizer> plain;
  Tokenizer tokenizer;
  kiv::Status status;
};

const Learnt& learnt() {
  static const Learnt kLearnt;
  return kLearnt;
}

Ids encoded(const std::string& text, AddedTokens added = AddedTokens::Recognised) {
  Ids ids = {-7};
  EXPECT_THAT(learnt().tokenizer.encode(text, added, ids), IsOk());
  return ids;
}

Ids encodedParts(const std::vector<TextPart>& parts) {
  Ids ids;
  EXPECT_THAT(learnt().tokenizer.encode(parts, ids), IsOk());
  return ids;
}

void expectAsDefined(const std::string& text) {
  EXPECT_THAT(encoded(text), ElementsAreArray(learnt().plain->encode(text))) << text;
  EXPECT_THAT(encoded(text, AddedTokens::AsText),
              ElementsAreArray(learnt().plain->encode(text, false)))
      << text;
  EXPECT_EQ(learnt().tokenizer.decode(encoded(text, AddedTokens::AsText)), unicode::toNfc(text));
}

TEST(TokenizerTest, TextsAreEncodedAsDefined) {
  ASSERT_THAT(learnt().status, IsOk());
  for (const std::string& text :
       {std::string(), std::string(" "), std::string("a"), std::string(kText), words(300, 1),
        words(300, 2), std::string(400, 'a'), std::string(70, ' '), std::string(70, '\n'),
        std::string(1, '\0'), std::string("cafe\xCC\x81 e\xCC\x81s'\xC5\xBF ")}) {
    expectAsDefined(text);
  }
}

TEST(TokenizerTest, RandomTextsAreEncodedAsDefined) {
  std::mt19937 random(3);
  const std::string source =
      kText + words(200, 5) + "<|im_start|><|im_end|><think><think>!\xCC\x81\xCC\xA3";
  for (int round = 0; round < 300; ++round) {
    std::string text;
    for (size_t n = random() % 8; n > 0; --n) {
      text += source.substr(random() % source.size(), random() % 30);
    }
    std::string whole;
    appendWellFormed(text, whole);
    expectAsDefined(whole);
  }
}

// The heap of long pieces and the search of short ones meet here.
TEST(TokenizerTest, PiecesOfEveryLengthAreEncodedAsDefined) {
  const std::string letters = "katomirensingverqualonester";
  std::string piece;
  for (size_t length = 1; length <= 80; ++length) {
    piece += letters[length * 7 % letters.size()];
    expectAsDefined(piece);
  }
}

TEST(TokenizerTest, EqualPiecesGiveEqualIds) {
  const std::string text = words(2000, 9) + "end.\n";
  Ids ids = encoded(text);
  const Ids once = ids;
  ids.insert(ids.end(), once.begin(), once.end());
  EXPECT_EQ(encoded(text + text), ids);
}

TEST(TokenizerTest, BetterRulesComeFirstAndLeftOnesBeforeRight) {
  ByteVocabulary vocabulary({{"b", "c"}, {"a", "b"}, {"a", "bc"}, {"a", "a"}});
  Tokenizer tokenizer;
  ASSERT_THAT(tokenizer.loadJson(vocabulary.text()), IsOk());
  Ids ids;
  ASSERT_THAT(tokenizer.encode("abcab", AddedTokens::AsText, ids), IsOk());
  EXPECT_THAT(ids, ElementsAre(vocabulary.idOf("abc"), vocabulary.idOf("ab")));
  ASSERT_THAT(tokenizer.encode("aaa", AddedTokens::AsText, ids), IsOk());
  EXPECT_THAT(ids, ElementsAre(vocabulary.idOf("aa"), 'a'));
}

// As in the reference, in which a later entry of a table replaces an earlier one.
TEST(TokenizerTest, OfEqualRulesTheLastCounts) {
  ByteVocabulary vocabulary({{"a", "b"}, {"b", "c"}, {"a", "b"}});
  Tokenizer tokenizer;
  ASSERT_THAT(tokenizer.loadJson(vocabulary.text()), IsOk());
  Ids ids;
  ASSERT_THAT(tokenizer.encode("abc", AddedTokens::AsText, ids), IsOk());
  EXPECT_THAT(ids, ElementsAre('a', vocabulary.idOf("bc")));
}

TEST(TokenizerTest, LongestAddedTokenAtTheLeftmostPlaceCounts) {
  const Learnt& all = learnt();
  EXPECT_THAT(encoded("<|im_start|><think>!<think>"),
              ElementsAre(all.start, all.longer, all.think));
  EXPECT_THAT(encoded("<|im_end|><|im_end|>"), ElementsAre(all.end, all.end));
  EXPECT_THAT(encoded("<|im_end|").size(), ::testing::Gt(1U));
}

TEST(TokenizerTest, AddedTokensAreFoundBeforeTextIsNormalised) {
  // The accent stands behind the token, not on its last character.
  EXPECT_THAT(encoded("<think>\xCC\x81"), ElementsAre(learnt().think, 0xCC, 0x81));
}

TEST(TokenizerTest, PlainTextNeverBecomesAnAddedToken) {
  const std::string text = "a<|im_start|>b<think>c";
  for (const int32_t id : encoded(text, AddedTokens::AsText)) {
    EXPECT_FALSE(learnt().tokenizer.isAdded(id));
  }
  EXPECT_EQ(learnt().tokenizer.decode(encoded(text, AddedTokens::AsText)), text);
}

TEST(TokenizerTest, SpecialTokensAloneCanBePlainText) {
  const Ids ids = encoded("<|im_start|><think><think>!", AddedTokens::SpecialAsText);
  EXPECT_EQ(std::count(ids.begin(), ids.end(), learnt().think), 1);
  for (const int32_t id : ids) EXPECT_FALSE(learnt().tokenizer.isSpecial(id));
}

TEST(TokenizerTest, SegmentsReadAsOneText) {
  const std::vector<std::string> texts = {
      "<|im_start|>user\n", "\n\n  What's \xE8\xAA", "", "e", "\xCC\x81t", "<|im_", "end|>\n"};
  std::vector<TextPart> parts;
  std::string joined;
  for (const std::string& text :
       {texts[0], std::string("\n\n  What's "), texts[2], texts[3], texts[4], texts[5], texts[6]}) {
    joined += text;
  }
  const std::string middle = "\n\n  What's ";
  parts = {{texts[0]}, {middle}, {texts[2]}, {texts[3]}, {texts[4]}, {texts[5]}, {texts[6]}};
  EXPECT_EQ(encodedParts(parts), encoded(joined));
}

TEST(TokenizerTest, PiecesFormAcrossSegmentsOfDifferentKinds) {
  const std::vector<TextPart> parts = {
      {"<|im_start|>user\n"}, {"\n\nHel", AddedTokens::AsText}, {"lo<|im_end|>\n"}};
  EXPECT_EQ(encodedParts(parts), encoded("<|im_start|>user\n\n\nHello<|im_end|>\n"));
}

TEST(TokenizerTest, AddedTokensAreNotFoundAcrossSegmentsOfDifferentKinds) {
  const std::vector<TextPart> parts = {{"<|im_"}, {"end|>", AddedTokens::AsText}};
  EXPECT_EQ(encodedParts(parts), encoded("<|im_end|>", AddedTokens::AsText));
  const std::vector<TextPart> alike = {{"<|im_"}, {"end|>"}};
  EXPECT_THAT(encodedParts(alike), ElementsAre(learnt().end));
}

TEST(TokenizerTest, NoSegmentsGiveNoIds) {
  EXPECT_THAT(encodedParts({}), IsEmpty());
  EXPECT_THAT(encodedParts({{""}, {"", AddedTokens::AsText}}), IsEmpty());
}

TEST(TokenizerTest, TextsBeyondAGibibyteAreRefused) {
  const std::string mebibyte(size_t{1} << 20U, 'a');
  const std::vector<TextPart> parts(1025, {mebibyte});
  Ids ids;
  EXPECT_THAT(learnt().tokenizer.encode(parts, ids),
              IsFailure(kiv::StatusCode::Unsupported, "tokenizer: a text of more than 1 GiB"));
}

TEST(TokenizerTest, BrokenBytesCountAsReplacementCharacters) {
  EXPECT_EQ(encoded("a\xFFz\xF0\x9F\x98"), encoded("a\xEF\xBF\xBDz\xEF\xBF\xBD"));
  // A character cut by the end of a part is not healed by the next one.
  EXPECT_EQ(encodedParts({{"\xC3"}, {"\xA4"}}), encoded("\xEF\xBF\xBD\xEF\xBF\xBD"));
}

TEST(TokenizerTest, NormalisedAddedTokensAreFoundInNormalisedText) {
  ByteVocabulary vocabulary;
  const int32_t id = vocabulary.add("caf\xC3\xA9", false, true);
  const int32_t raw = vocabulary.add("<x>", true, false);
  Tokenizer tokenizer;
  ASSERT_THAT(tokenizer.loadJson(vocabulary.text()), IsOk());
  Ids ids;
  ASSERT_THAT(tokenizer.encode("<x>cafe\xCC\x81<x>", AddedTokens::Recognised, ids), IsOk());
  EXPECT_THAT(ids, ElementsAre(raw, id, raw));
  const std::vector<TextPart> parts = {
      {"e\xCC\x81"}, {"cafe\xCC\x81", AddedTokens::AsText}, {"caf\xC3\xA9"}};
  ASSERT_THAT(tokenizer.encode(parts, ids), IsOk());
  EXPECT_THAT(ids, ElementsAre(0xC3, 0xA9, 'c', 'a', 'f', 0xC3, 0xA9, id));
}

TEST(TokenizerTest, OlderAndGpt2PatternsAreUsed) {
  for (const std::string_view regex : {test::kOlderRegex, test::kGpt2Regex}) {
    ByteVocabulary vocabulary(
        {{"'", "S"}, {"1", "2"}, {"\xCC", "\x81"}, {"a", "\xCC\x81"}, {".", "\n"}});
    nlohmann::json& json = vocabulary.root();
    json["normalizer"] = nullptr;
    json["pre_tokenizer"]["pretokenizers"][0]["pattern"]["Regex"] = regex;
    Tokenizer tokenizer;
    ASSERT_THAT(tokenizer.loadJson(vocabulary.text()), IsOk());
    for (const std::string text : {"it'S 12 a\xCC\x81.\n", "'S.\n\n12'S"}) {
      Ids ids;
      ASSERT_THAT(tokenizer.encode(text, AddedTokens::Recognised, ids), IsOk());
      EXPECT_THAT(ids, ElementsAreArray(PlainTokenizer(json).encode(text))) << text;
    }
  }
}

// Minutes, were the cost quadratic.
TEST(TokenizerTest, HostileTextsTakeTimeInProportion) {
  constexpr size_t kCount = 400000;
  std::string marks;
  std::string nearly;
  std::string random;
  std::mt19937 generator(1);
  for (size_t i = 0; i < kCount; ++i) {
    marks += i % 2 == 0 ? "\xCC\x80" : "\xCC\xA3";
    nearly += "<|im_en";
    random += static_cast<char>('a' + generator() % 26);
  }
  for (const std::string& text :
       {std::string(kCount, 'a'), std::string(kCount, ' '), std::string(kCount, '\n'),
        std::string(kCount, '\''), std::string(kCount, '\xFF'), std::string(kCount, '\xF0'), marks,
        nearly, random}) {
    const Ids ids = encoded(text);
    std::string whole;
    appendWellFormed(text, whole);
    EXPECT_EQ(learnt().tokenizer.decode(ids), unicode::toNfc(whole));
  }
}

TEST(TokenizerTest, ThreadsEncodeAtOnce) {
  const std::string text = words(3000, 4);
  const Ids expected = encoded(text);
  std::vector<Ids> results(4);
  std::vector<std::thread> threads;
  for (Ids& ids : results) {
    threads.emplace_back(
        [&ids, &text] { (void)learnt().tokenizer.encode(text, AddedTokens::Recognised, ids); });
  }
  for (std::thread& thread : threads) thread.join();
  for (const Ids& ids : results) EXPECT_EQ(ids, expected);
}

TEST(TokenizerTest, NothingIsEncodedUnlessLoaded) {
  const Tokenizer tokenizer;
  Ids ids = {1};
  EXPECT_FALSE(tokenizer.valid());
  EXPECT_THAT(tokenizer.encode("a", AddedTokens::Recognised, ids),
              IsFailure(kiv::StatusCode::InvalidFormat, "tokenizer: not loaded"));
  EXPECT_THAT(ids, IsEmpty());
  EXPECT_EQ(tokenizer.size(), 0U);
  EXPECT_EQ(tokenizer.decode(std::vector<int32_t>{1}), "");
  EXPECT_EQ(tokenizer.addedToken("a"), std::nullopt);
}

}  // namespace
}  // namespace zem::text
