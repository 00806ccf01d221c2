// SPDX-License-Identifier: Apache-2.0
// What can be known of the vector without the vocabulary that it belongs to.
#include "engine/text/published_vector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "engine/text/unicode/nfc.h"
#include "engine/text/unicode/utf8.h"

namespace zem::text {
namespace {

TEST(PublishedVectorTest, TextIsWellFormedAndNormalised) {
  const std::string text(publishedVector().text);
  EXPECT_EQ(wellFormedLength(text), text.size());
  EXPECT_EQ(unicode::toNfc(text), text);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 13);
}

TEST(PublishedVectorTest, IdsAreThoseOfPieces) {
  const auto ids = publishedVector().ids;
  EXPECT_EQ(ids.size(), 75U);
  for (const int32_t id : ids) EXPECT_TRUE(id >= 0 && id < 248044) << id;
}

// A digit is a token of its own, and the ten stand in a row.
TEST(PublishedVectorTest, DigitsStandOneByOne) {
  const int32_t zero = 15;
  const std::vector<int32_t> digits = {zero + 9, zero + 2, zero, zero, zero};
  const auto ids = publishedVector().ids;
  EXPECT_NE(std::search(ids.begin(), ids.end(), digits.begin(), digits.end()), ids.end());
  EXPECT_NE(publishedVector().text.find("92000"), std::string_view::npos);
}

}  // namespace
}  // namespace zem::text
