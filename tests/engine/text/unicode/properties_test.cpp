// SPDX-License-Identifier: Apache-2.0
// The classes of all points against the published ones, Unicode 16.0.
#include "engine/text/unicode/properties.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "engine/text/unicode/test_data.h"

namespace zem::text::unicode {
namespace {

using test::hexNumber;
using test::linesOf;

const std::map<std::string, Kind> kLetters = {
    {"L", Kind::Letter}, {"M", Kind::Mark}, {"N", Kind::Number}, {"Z", Kind::Space}};

TEST(PropertiesTest, EveryPointHasItsPublishedClass) {
  std::vector<Kind> expected(kPoints, Kind::Other);
  for (const std::string& line : linesOf("classes.txt")) {
    std::istringstream in(line);
    std::string kind;
    std::string first;
    std::string last;
    in >> kind >> first >> last;
    for (uint32_t point = hexNumber(first); point <= hexNumber(last); ++point) {
      ASSERT_EQ(expected[point], Kind::Other) << line;
      expected[point] = kLetters.at(kind);
    }
  }
  uint32_t wrong = 0;
  for (uint32_t point = 0; point < kPoints; ++point) {
    if (kindOf(point) == expected[point]) continue;
    if (++wrong <= 10) ADD_FAILURE() << "U+" << std::hex << point;
  }
  EXPECT_EQ(wrong, 0);
}

// As the standard's own summary of version 16.0 counts them.
TEST(PropertiesTest, ClassesHaveAsManyPointsAndRangesAsPublished) {
  std::map<Kind, int> points;
  std::map<Kind, int> ranges;
  Kind before = Kind::Other;
  for (uint32_t point = 0; point < kPoints; ++point) {
    const Kind kind = kindOf(point);
    ++points[kind];
    if (kind != before) ++ranges[kind];
    before = kind;
  }
  EXPECT_EQ(points[Kind::Letter], 141028);
  EXPECT_EQ(points[Kind::Mark], 2501);
  EXPECT_EQ(points[Kind::Number], 1911);
  EXPECT_EQ(points[Kind::Space], 25);
  EXPECT_EQ(ranges[Kind::Letter], 677);
  EXPECT_EQ(ranges[Kind::Mark], 321);
  EXPECT_EQ(ranges[Kind::Number], 144);
  EXPECT_EQ(ranges[Kind::Space], 10);
}

TEST(PropertiesTest, CharactersOfTheLatestVersionsAreClassified) {
  EXPECT_EQ(kindOf(0x1C89), Kind::Letter);   // Cyrillic capital Tje, 16.0
  EXPECT_EQ(kindOf(0x105C9), Kind::Letter);  // Todhri, 16.0
  EXPECT_EQ(kindOf(0x10D40), Kind::Number);  // Garay digit zero, 16.0
  EXPECT_EQ(kindOf(0x0897), Kind::Mark);     // Arabic pepet, 16.0
  EXPECT_EQ(kindOf(0x1CC00), Kind::Other);   // up-pointing go-kart, 16.0
}

TEST(PropertiesTest, WhatMayChangeIsKnown) {
  EXPECT_TRUE(Properties('e').startsAfresh());
  EXPECT_TRUE(Properties(0xE9).startsAfresh());
  EXPECT_FALSE(Properties(0x301).startsAfresh());
  EXPECT_TRUE(Properties(0x301).hasCombiningClass());
  EXPECT_TRUE(Properties(0x301).mayChangeInNfc());
  EXPECT_TRUE(Properties(0x305).hasCombiningClass());
  EXPECT_FALSE(Properties(0x305).mayChangeInNfc());
  EXPECT_TRUE(Properties(0x212B).mayChangeInNfc());
  EXPECT_TRUE(Properties(0x1161).mayChangeInNfc());
  EXPECT_FALSE(Properties(0x11A7).mayChangeInNfc());
  EXPECT_TRUE(Properties(0x0897).startsAfresh());  // assigned after 9.0: inert
  EXPECT_TRUE(Properties(0x10FFFF).startsAfresh());
}

}  // namespace
}  // namespace zem::text::unicode
