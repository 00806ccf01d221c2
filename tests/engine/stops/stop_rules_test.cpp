// SPDX-License-Identifier: Apache-2.0
#include "engine/stops/stop_rules.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "engine/text/unicode/utf8.h"
#include "support/status_matchers.h"

namespace zemtest {

using namespace zem;

namespace {

constexpr uint32_t kEnd = 900;
constexpr uint32_t kOtherEnd = 901;
constexpr uint32_t kWord = 1;

StopOptions withTexts(std::vector<std::string> texts) {
  StopOptions options;
  options.endTokens = {kEnd, kOtherEnd};
  options.stopTexts = std::move(texts);
  return options;
}

struct Reply {
  std::string text;
  std::optional<EndReason> reason;
  bool operator==(const Reply&) const = default;
};

// Tokens of these bytes, and the end token `last` behind them.
Reply replyOf(const StopOptions& options, const std::vector<std::string_view>& tokens,
              uint32_t last = kEnd) {
  StopRules rules(options);
  Reply reply;
  for (const std::string_view token : tokens) reply.text += rules.push(kWord, token);
  reply.text += rules.push(last, "<|end|>");
  reply.reason = rules.reason();
  return reply;
}

TEST(StopRules, BothEndTokensEndTheReplyAndAreNoText) {
  EXPECT_EQ(replyOf(withTexts({}), {"Hi", " there"}, kEnd), (Reply{"Hi there", EndReason::Stop}));
  EXPECT_EQ(replyOf(withTexts({}), {}, kOtherEnd), (Reply{"", EndReason::Stop}));
}

TEST(StopRules, WithoutEndTokensTheyAreText) {
  EXPECT_EQ(replyOf({}, {"Hi"}), (Reply{"Hi<|end|>", std::nullopt}));
}

TEST(StopRules, NothingComesAfterTheEnd) {
  StopRules rules(withTexts({"x"}));
  EXPECT_EQ(rules.push(kEnd, ""), "");
  EXPECT_EQ(rules.push(kWord, "more"), "");
  EXPECT_EQ(rules.end(EndReason::Cancelled), "");
  EXPECT_EQ(rules.reason(), EndReason::Stop);
  EXPECT_EQ(rules.tokens(), 1U);
}

TEST(StopRules, AStopTextIsFoundAcrossTokensAndNeverLeaks) {
  StopRules rules(withTexts({"none", "\n\nUser:"}));
  EXPECT_EQ(rules.push(kWord, "Yes.\n"), "Yes.");
  EXPECT_EQ(rules.push(kWord, "\nUs"), "");
  EXPECT_EQ(rules.push(kWord, "er: and"), "");
  EXPECT_EQ(rules.reason(), EndReason::StopText);
  EXPECT_EQ(rules.stopText(), 1U);
}

TEST(StopRules, WhatWasHeldBackGoesOutWithAnEndToken) {
  EXPECT_EQ(replyOf(withTexts({"END"}), {"the EN"}), (Reply{"the EN", EndReason::Stop}));
}

TEST(StopRules, TheTokenThatReachesTheLimitStillCounts) {
  StopOptions options = withTexts({"END"});
  options.maxTokens = 2;
  StopRules rules(options);
  EXPECT_EQ(rules.push(kWord, "a"), "a");
  EXPECT_EQ(rules.reason(), std::nullopt);
  EXPECT_EQ(rules.push(kWord, "b E"), "b E");
  EXPECT_EQ(rules.reason(), EndReason::Length);
  EXPECT_EQ(rules.push(kWord, "c"), "");
  EXPECT_EQ(rules.tokens(), 2U);
}

TEST(StopRules, AtTheLimitAnEndTokenOrAStopTextIsTheReason) {
  StopOptions options = withTexts({"b"});
  options.maxTokens = 2;
  options.contextTokens = 2;
  EXPECT_EQ(replyOf(options, {"a"}), (Reply{"a", EndReason::Stop}));
  EXPECT_EQ(replyOf(options, {"a", "b"}), (Reply{"a", EndReason::StopText}));
  EXPECT_EQ(replyOf(options, {"a", "c"}), (Reply{"ac", EndReason::Length}));
  options.maxTokens = 3;
  EXPECT_EQ(replyOf(options, {"a", "c"}), (Reply{"ac", EndReason::Context}));
}

TEST(StopRules, AReplyOfNoTokensHasEndedFromTheStart) {
  StopOptions options;
  options.maxTokens = 0;
  EXPECT_EQ(StopRules(options).reason(), EndReason::Length);
  options.maxTokens = 1;
  options.contextTokens = 0;
  EXPECT_EQ(StopRules(options).reason(), EndReason::Context);
}

TEST(StopRules, CancellingKeepsTheTextSoFar) {
  StopRules rules(withTexts({"END"}));
  EXPECT_EQ(rules.push(kWord, "so far E"), "so far ");
  EXPECT_EQ(rules.end(EndReason::Cancelled), "E");
  EXPECT_EQ(rules.reason(), EndReason::Cancelled);
}

TEST(StopRules, ACharacterGoesOutWhole) {
  StopRules rules(withTexts({}));
  EXPECT_EQ(rules.push(kWord, "a\xF0\x9F"), "a");
  EXPECT_EQ(rules.push(kWord, "\x98"), "");
  EXPECT_EQ(rules.push(kWord,
                       "\x80"
                       "b"),
            "\xF0\x9F\x98\x80"
            "b");
}

TEST(StopRules, ACutCharacterEndsAsAReplacement) {
  StopOptions options = withTexts({});
  EXPECT_EQ(replyOf(options, {"a\xF0\x9F\x98"}), (Reply{"a\xEF\xBF\xBD", EndReason::Stop}));
  options.maxTokens = 1;
  EXPECT_EQ(replyOf(options, {"a\xC3"}), (Reply{"a\xEF\xBF\xBD", EndReason::Length}));
}

TEST(StopRules, AReplacementMayCompleteAStopText) {
  const StopOptions options = withTexts({"a\xEF\xBF\xBD"});
  EXPECT_EQ(replyOf(options, {"xa", "\xC3"}), (Reply{"x", EndReason::StopText}));
  EXPECT_EQ(replyOf(options, {"xa", "\xC3", "b"}), (Reply{"x", EndReason::StopText}));
}

TEST(StopRules, TokensWithoutBytesChangeNothing) {
  EXPECT_EQ(replyOf(withTexts({"ab"}), {"", "a", "", "", "b"}), (Reply{"", EndReason::StopText}));
}

// What goes out for a whole reply: well-formed, up to the stop text that ends first.
Reply wholeReply(const std::vector<std::string>& stops, const std::string& bytes) {
  std::string text;
  text::appendWellFormed(bytes, text);
  for (size_t end = 1; end <= text.size(); ++end) {
    size_t longest = 0;
    for (const std::string& stop : stops) {
      if (text.substr(0, end).ends_with(stop)) longest = std::max(longest, stop.size());
    }
    if (longest > 0) return {text.substr(0, end - longest), EndReason::StopText};
  }
  return {text, EndReason::Stop};
}

// The tokens that a bit for each border between two bytes cuts `bytes` into.
std::vector<std::string_view> split(const std::string& bytes, uint64_t borders) {
  std::vector<std::string_view> tokens;
  size_t begin = 0;
  for (size_t i = 1; i <= bytes.size(); ++i) {
    if (i < bytes.size() && (borders >> (i - 1) & 1U) == 0) continue;
    tokens.push_back(std::string_view(bytes).substr(begin, i - begin));
    begin = i;
  }
  return tokens;
}

TEST(StopRules, EverySplitIntoTokensGivesTheSame) {
  const std::vector<std::string> stops = {"STOP", "\n\n", "\xC3\xA9t\xC3\xA9", "TOT",
                                          "oo\xE2\x82\xAC"};
  const std::vector<std::string> texts = {"a STOP b",
                                          "SSTOSTOP",
                                          "STOTOP",
                                          "x\n y\n\nz",
                                          "\xC3\xA9t\xC3\xA9s",
                                          "\xC3\xA8t\xC3\xA9",
                                          "foo\xE2\x82\xACSTO",
                                          "\xE2\x82STOP",
                                          "\xF0\x9F\x98\x80\n\n",
                                          "STO",
                                          "\xFF\xC3\xA9t\xC3",
                                          "",
                                          "S",
                                          "\xED\xA0\x80STOP"};
  for (const std::string& text : texts) {
    ASSERT_LE(text.size(), 13U);
    const Reply expected = wholeReply(stops, text);
    const uint32_t splits = text.size() < 2 ? 1 : 1U << (text.size() - 1);
    for (uint32_t borders = 0; borders < splits; ++borders) {
      ASSERT_EQ(replyOf(withTexts(stops), split(text, borders)), expected)
          << text << " split by " << borders;
    }
  }
}

TEST(StopRules, RandomBytesInRandomTokensGiveTheTextOfTheWhole) {
  const std::string_view pieces[] = {
      "a",    "b",    "ab", "\xC3\xA9", "\xC3", "\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80",
      "\x80", "\xFF", "\n"};
  for (uint32_t seed = 0; seed < 2000; ++seed) {
    std::mt19937 random(seed);
    std::mt19937_64 borders(seed);
    const auto words = [&](size_t count) {
      std::string text;
      for (size_t i = 0; i < count; ++i) text += pieces[random() % std::size(pieces)];
      return text;
    };
    std::vector<std::string> stops;
    for (size_t i = 0; i < random() % 3; ++i) {
      std::string stop;
      text::appendWellFormed(words(1 + random() % 3), stop);
      stops.push_back(stop);
    }
    const std::string bytes = words(random() % 12);
    ASSERT_LE(bytes.size(), 64U);
    const Reply expected = wholeReply(stops, bytes);
    for (int i = 0; i < 8; ++i) {
      ASSERT_EQ(replyOf(withTexts(stops), split(bytes, borders())), expected) << seed;
    }
  }
}

TEST(EndReason, HasANameEach) {
  EXPECT_EQ(nameOf(EndReason::Stop), "stop");
  EXPECT_EQ(nameOf(EndReason::StopText), "stop_text");
  EXPECT_EQ(nameOf(EndReason::Length), "length");
  EXPECT_EQ(nameOf(EndReason::Context), "context");
  EXPECT_EQ(nameOf(EndReason::Cancelled), "cancelled");
  EXPECT_EQ(nameOf(EndReason::Error), "error");
}

TEST(StopOptions, GoodTextsPass) {
  EXPECT_THAT(validate(withTexts({})), IsOk());
  EXPECT_THAT(validate(withTexts({"\xC3\xA9", std::string(4096, 'x')})), IsOk());
  EXPECT_THAT(validate(withTexts(std::vector<std::string>(64, "x"))), IsOk());
}

TEST(StopOptions, BadTextsAreRefusedByNumber) {
  EXPECT_THAT(validate(withTexts({"a", ""})),
              IsInvalidFormat("stop text 2: found an empty text, needed a character or more"));
  EXPECT_THAT(validate(withTexts({std::string(4097, 'x')})),
              IsInvalidFormat("stop text 1: found 4097 bytes, needed at most 4096"));
  EXPECT_THAT(
      validate(withTexts({"ab\xC3"})),
      IsInvalidFormat("stop text 1: found bytes that are no UTF-8 at offset 2, needed UTF-8"));
  EXPECT_THAT(validate(withTexts(std::vector<std::string>(65, "x"))),
              IsInvalidFormat("stop texts: found 65, needed at most 64"));
}

}  // namespace
}  // namespace zemtest
