// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint/number.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>

#include "engine/text/constraint.h"
#include "engine/text/constraint_replies.h"

namespace zem::text {
namespace {

using test::ConstraintPtr;

// Whether `text` is taken, and whether each of its beginnings is.
struct Taken {
  bool whole;
  bool beginnings;
};

Taken taken(const ConstraintPtr& constraint, const std::string& text) {
  ConstraintState state = Constraint::begin(constraint);
  if (!state.advance(text)) return {false, false};
  return {state.complete(), true};
}

ConstraintPtr compiledNumber(const Json& schema) {
  ConstraintPtr constraint;
  const kiv::Status status = Constraint::compile(schema, {}, constraint);
  EXPECT_TRUE(status.ok()) << status.message() << schema;
  return constraint;
}

TEST(ConstraintNumber, IntegersAreTakenExactlyWithinTheirBounds) {
  std::mt19937 random(1);
  const auto bound = [&] { return static_cast<int>(random() % 400) - 200; };
  for (int round = 0; round < 60; ++round) {
    const int a = bound();
    const int b = bound();
    const int least = std::min(a, b);
    const int most = std::max(a, b);
    const auto constraint =
        compiledNumber({{"type", "integer"}, {"minimum", least}, {"maximum", most}});
    for (int value = -2100; value <= 2100; ++value) {
      const bool inside = value >= least && value <= most;
      ASSERT_EQ(taken(constraint, std::to_string(value)).whole, inside)
          << least << " " << most << " " << value;
    }
  }
}

std::string decimal(int hundredths) {
  const std::string digits = std::to_string(std::abs(hundredths) % 100 + 100).substr(1);
  return (hundredths < 0 ? "-" : "") + std::to_string(std::abs(hundredths) / 100) + "." + digits;
}

// A beginning is taken exactly when some number with two digits behind the point goes on
// from it, for bounds that have two.
TEST(ConstraintNumber, DecimalsAreTakenExactlyWithinTheirBounds) {
  std::mt19937 random(2);
  const auto bound = [&] { return static_cast<int>(random() % 3000) - 1500; };
  for (int round = 0; round < 40; ++round) {
    const int a = bound();
    const int b = bound();
    const int least = std::min(a, b);
    const int most = std::max(a, b);
    const auto constraint = compiledNumber({{"type", "number"},
                                            {"minimum", Json::parse(decimal(least))},
                                            {"maximum", Json::parse(decimal(most))}});
    for (int value = -1700; value <= 1700; ++value) {
      const bool inside = value >= least && value <= most;
      const std::string text = decimal(value);
      ASSERT_EQ(taken(constraint, text).whole, inside) << least << " " << most << " " << text;
      if (!inside) continue;
      for (size_t length = 1; length <= text.size(); ++length) {
        ASSERT_TRUE(taken(constraint, text.substr(0, length)).beginnings) << text;
      }
    }
  }
}

TEST(ConstraintNumber, ExclusiveBoundsAreOutside) {
  const auto constraint =
      compiledNumber({{"type", "number"}, {"exclusiveMinimum", 0}, {"exclusiveMaximum", 0.5}});
  EXPECT_FALSE(taken(constraint, "0").whole);
  EXPECT_FALSE(taken(constraint, "0.0").whole);
  EXPECT_FALSE(taken(constraint, "0.5").beginnings);
  EXPECT_FALSE(taken(constraint, "-").beginnings);
  EXPECT_TRUE(taken(constraint, "0.000000000000000001").whole);
  EXPECT_FALSE(taken(constraint, "0.000000000000000000").beginnings);
  EXPECT_TRUE(taken(constraint, "0.499999999999999999").whole);
}

TEST(ConstraintNumber, BoundsOfAllSizes) {
  const auto inside = [](const char* keyword, const char* bound, const char* text) {
    return taken(compiledNumber({{"type", "number"}, {keyword, Json::parse(bound)}}), text).whole;
  };
  EXPECT_TRUE(inside("maximum", "1e300", "999999999999999999"));
  EXPECT_TRUE(inside("minimum", "-1e300", "-999999999999999999"));
  EXPECT_TRUE(inside("maximum", "18446744073709551615", "123456789012345678"));
  EXPECT_TRUE(inside("minimum", "-9223372036854775808", "-123456789012345678"));
  EXPECT_TRUE(inside("minimum", "999999999999999999", "999999999999999999.5"));
  EXPECT_FALSE(inside("minimum", "999999999999999999", "999999999999999998.5"));
  // Bounds that lie between two numbers of 18 digits behind the point.
  EXPECT_TRUE(inside("minimum", "1e-20", "0.000000000000000001"));
  EXPECT_FALSE(inside("minimum", "1e-20", "0"));
  EXPECT_TRUE(inside("maximum", "1e-20", "0"));
  EXPECT_FALSE(inside("maximum", "1e-20", "0.000000000000000001"));
  EXPECT_TRUE(inside("maximum", "-1e-20", "-0.000000000000000001"));
  EXPECT_FALSE(inside("maximum", "-1e-20", "-0"));
  EXPECT_TRUE(inside("minimum", "-1e-20", "-0"));
  EXPECT_TRUE(inside("minimum", "5e-324", "1"));
  EXPECT_TRUE(inside("minimum", "0.1", "0.1"));
  EXPECT_FALSE(inside("minimum", "0.1", "0.099999999999999999"));
}

TEST(ConstraintNumber, DigitsEndSomewhere) {
  const auto plain = compiledNumber({{"type", "number"}});
  EXPECT_TRUE(taken(plain, std::string(40, '1') + "." + std::string(40, '2') + "e-99").whole);
  EXPECT_FALSE(taken(plain, std::string(41, '1')).beginnings);
  EXPECT_FALSE(taken(plain, "0." + std::string(41, '1')).beginnings);
  EXPECT_FALSE(taken(plain, "1e100").beginnings);
  const auto bounded = compiledNumber({{"type", "number"}, {"minimum", 0}});
  EXPECT_TRUE(taken(bounded, std::string(18, '9') + "." + std::string(18, '9')).whole);
  EXPECT_FALSE(taken(bounded, std::string(19, '9')).beginnings);
  EXPECT_FALSE(taken(bounded, "1." + std::string(19, '9')).beginnings);
}

}  // namespace
}  // namespace zem::text
