// SPDX-License-Identifier: Apache-2.0
#include "engine/text/unicode/utf8.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "engine/text/unicode/test_data.h"

namespace zem::text {
namespace {

using test::isSurrogate;
using test::textOfPoint;
using State = Utf8Start::State;

std::string wellFormed(std::string_view bytes) {
  std::string out;
  appendWellFormed(bytes, out);
  return out;
}

TEST(Utf8Test, EveryPointComesBack) {
  for (uint32_t point = 0; point < 0x110000; ++point) {
    if (isSurrogate(point)) continue;
    const std::string text = textOfPoint(point);
    const Utf8Start start = utf8Start(text);
    ASSERT_EQ(start.state, State::Whole) << point;
    ASSERT_EQ(start.length, text.size());
    ASSERT_EQ(start.point, point);
    size_t at = 0;
    ASSERT_EQ(nextPoint(text, at), point);
    ASSERT_EQ(at, text.size());
    for (size_t cut = 1; cut < text.size(); ++cut) {
      const Utf8Start part = utf8Start(std::string_view(text).substr(0, cut));
      ASSERT_EQ(part.state, State::Cut) << point;
      ASSERT_EQ(part.length, cut);
    }
  }
}

// The table of the standard's chapter 3.9, "U+FFFD substitution of maximal subparts".
TEST(Utf8Test, BrokenBytesBecomeReplacementsAsTheStandardRecommends) {
  const std::string r(kReplacement);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", ""},
      {"\xC0\xAF\xE0\x80\xBF\xF0\x81\x82\x41", r + r + r + r + r + r + r + r + "A"},
      {"\xED\xA0\x80\xED\xBF\xBF\xED\xAF\x41", r + r + r + r + r + r + r + r + "A"},
      {"\xF4\x91\x92\x93\xFF\x41\x80\xBF\x42", r + r + r + r + r + "A" + r + r + "B"},
      {"\xE1\x80\xE2\xF0\x91\x92\xF1\xBF\x41", r + r + r + r + "A"},
      {"\x80", r},
      {"a\xC3", "a" + r},
      {"\xF0\x9F\x98", r},
      {"\xF0\x9F\x98z", r + "z"},
      {"\xC3\xA4\xFFok", "\xC3\xA4" + r + "ok"},
      {"\xF5\x80\x80\x80", r + r + r + r},
  };
  for (const auto& [bytes, expected] : cases) EXPECT_EQ(wellFormed(bytes), expected);
}

TEST(Utf8Test, WellFormedLengthStopsAtTheFirstBrokenByte) {
  EXPECT_EQ(wellFormedLength(""), 0U);
  const std::string good = "sixteen ascii by\xC3\xA4\xF0\x9F\x98\x80";
  EXPECT_EQ(wellFormedLength(good), good.size());
  for (size_t at = 0; at <= 16; ++at) {
    std::string bad = good;
    bad.insert(at, "\xFF");
    EXPECT_EQ(wellFormedLength(bad), at);
  }
}

}  // namespace
}  // namespace zem::text
