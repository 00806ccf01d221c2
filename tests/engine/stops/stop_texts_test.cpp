// SPDX-License-Identifier: Apache-2.0
#include "engine/stops/stop_texts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace zemtest {

using namespace zem;

namespace {

using Texts = std::vector<std::string>;

struct Found {
  std::string out;
  std::optional<size_t> index;
  bool operator==(const Found&) const = default;
};

// Byte by byte, looking back at everything.
Found plainSearch(const Texts& stops, const std::string& stream) {
  for (size_t end = 1; end <= stream.size(); ++end) {
    const std::string so = stream.substr(0, end);
    std::optional<size_t> best;
    for (size_t i = 0; i < stops.size(); ++i) {
      if (so.ends_with(stops[i]) && (!best || stops[i].size() > stops[*best].size())) best = i;
    }
    if (best) return {so.substr(0, end - stops[*best].size()), best};
  }
  return {stream, std::nullopt};
}

// The longest end of `stream` that a stop text begins with.
size_t plainHeld(const Texts& stops, const std::string& stream) {
  size_t held = 0;
  for (const std::string& stop : stops) {
    for (size_t length = 1; length <= std::min(stop.size(), stream.size()); ++length) {
      if (stream.ends_with(stop.substr(0, length))) held = std::max(held, length);
    }
  }
  return held;
}

TEST(StopTexts, NoTextsLetEverythingPass) {
  StopTexts none({});
  std::string out;
  EXPECT_EQ(none.push("abc", out), std::nullopt);
  EXPECT_EQ(out, "abc");
  none.finish(out);
  EXPECT_EQ(out, "abc");
}

TEST(StopTexts, ABeginningIsHeldBackUntilItIsCertain) {
  StopTexts stops({"END"});
  std::string out;
  EXPECT_EQ(stops.push("the E", out), std::nullopt);
  EXPECT_EQ(out, "the ");
  EXPECT_EQ(stops.push("N", out), std::nullopt);
  EXPECT_EQ(out, "the ");
  EXPECT_EQ(stops.push("E", out), std::nullopt);
  EXPECT_EQ(out, "the EN");
  EXPECT_EQ(stops.push("ND of it", out), 0U);
  EXPECT_EQ(out, "the EN");
}

TEST(StopTexts, FinishGivesWhatWasHeldBack) {
  StopTexts stops({"END"});
  std::string out;
  stops.push("EN", out);
  stops.finish(out);
  EXPECT_EQ(out, "EN");
  EXPECT_EQ(stops.push("D", out), std::nullopt);
  EXPECT_EQ(out, "END");
}

TEST(StopTexts, TheOneThatEndsFirstCounts) {
  StopTexts stops({"abcd", "bc"});
  std::string out;
  EXPECT_EQ(stops.push("abcd", out), 1U);
  EXPECT_EQ(out, "a");
}

TEST(StopTexts, OfThoseThatEndTogetherTheLongestCounts) {
  StopTexts stops({"c", "abc", "bc"});
  std::string out;
  EXPECT_EQ(stops.push("xabc", out), 1U);
  EXPECT_EQ(out, "x");
}

TEST(StopTexts, BeginsAnewBehindAStopText) {
  StopTexts stops({"aa"});
  std::string out;
  EXPECT_EQ(stops.push("aa", out), 0U);
  EXPECT_EQ(stops.push("a", out), std::nullopt);
  EXPECT_EQ(out, "");
}

// Small alphabets, so that stop texts overlap each other and themselves.
TEST(StopTexts, FindWhatAPlainSearchFindsInEverySplit) {
  for (uint32_t seed = 0; seed < 3000; ++seed) {
    std::mt19937 random(seed);
    const auto word = [&](size_t length) {
      std::string text;
      for (size_t i = 0; i < length; ++i) text += static_cast<char>('a' + random() % 2);
      return text;
    };
    Texts texts;
    for (size_t i = 0; i < 1 + seed % 3; ++i) texts.push_back(word(2 + random() % 5));
    const std::string stream = word(random() % 30);
    const Found expected = plainSearch(texts, stream);

    StopTexts stops(texts);
    Found found;
    for (size_t at = 0; at < stream.size() && !found.index;) {
      const size_t count = 1 + random() % 4;
      found.index = stops.push(std::string_view(stream).substr(at, count), found.out);
      at = std::min(at + count, stream.size());
      if (found.index) break;
      ASSERT_EQ(found.out, stream.substr(0, at - plainHeld(texts, stream.substr(0, at)))) << seed;
    }
    if (!found.index) stops.finish(found.out);
    ASSERT_EQ(found, expected) << "seed " << seed << " in " << stream;
  }
}

}  // namespace
}  // namespace zemtest
