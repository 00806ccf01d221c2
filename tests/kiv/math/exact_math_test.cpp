// SPDX-License-Identifier: Apache-2.0
#include "kiv/math/exact_math.h"
#include "support/float_values.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>

namespace zemtest {

using namespace kiv;
using namespace kiv::math;

namespace {

// Distance of `got` from the exact `want`, in units of the last place of the
// float nearest to `want`.
long double ulpsF32(float got, long double want) {
  const auto nearest = static_cast<float>(want);
  const float next = std::nextafter(std::fabs(nearest), kInf);
  const long double unit = static_cast<long double>(next) - std::fabs(nearest);
  return std::fabs(got - want) / unit;
}

TEST(ExpF32, IsWithinHalfAUnitAndAHundredth) {
  std::mt19937 rng(1);
  std::uniform_real_distribution<float> range(-87.0F, 88.7F);
  for (int i = 0; i < 400000; ++i) {
    const float x = i % 2 == 0 ? range(rng) : range(rng) / 64;
    ASSERT_LE(ulpsF32(expF32(x), std::exp(static_cast<long double>(x))), 0.51L) << x;
  }
}

TEST(ExpF32, KnownValuesAndLimits) {
  EXPECT_EQ(expF32(0.0F), 1.0F);
  EXPECT_EQ(expF32(-0.0F), 1.0F);
  EXPECT_EQ(expF32(1.0F), 2.7182817F);
  EXPECT_EQ(expF32(kInf), kInf);
  EXPECT_EQ(expF32(-kInf), 0.0F);
  EXPECT_EQ(expF32(88.73F), kInf);
  EXPECT_EQ(expF32(std::numeric_limits<float>::max()), kInf);
  EXPECT_EQ(expF32(-104.0F), 0.0F);
  EXPECT_TRUE(std::isnan(expF32(kNan)));
}

TEST(ExpF32, LargestFiniteResultIsFinite) {
  EXPECT_LT(expF32(88.72283F), kInf);
  EXPECT_GT(expF32(88.72283F), 3.4e38F);
}

TEST(ExpF32, UnderflowsGradually) {
  for (float x = -103.9F; x < -87.0F; x += 0.01F) {
    const auto want = static_cast<float>(std::exp(static_cast<long double>(x)));
    ASSERT_NEAR(expF32(x), want, std::numeric_limits<float>::denorm_min()) << x;
  }
  EXPECT_GT(expF32(-103.0F), 0.0F);
}

TEST(Log1pF32, IsWithinHalfAUnitAndAHundredth) {
  std::mt19937 rng(2);
  std::uniform_real_distribution<float> exponent(-40.0F, 32.0F);
  for (int i = 0; i < 400000; ++i) {
    const float x = std::exp2(exponent(rng));
    ASSERT_LE(ulpsF32(log1pF32(x), std::log1p(static_cast<long double>(x))), 0.51L) << x;
  }
}

TEST(Log1pF32, KnownValuesAndLimits) {
  EXPECT_EQ(log1pF32(0.0F), 0.0F);
  EXPECT_EQ(log1pF32(1.0F), 0.6931472F);
  EXPECT_EQ(log1pF32(1e-30F), 1e-30F);
  EXPECT_EQ(log1pF32(kInf), kInf);
  EXPECT_EQ(log1pF32(-1.0F), -kInf);
  EXPECT_TRUE(std::isnan(log1pF32(-1.5F)));
  EXPECT_TRUE(std::isnan(log1pF32(kNan)));
  EXPECT_EQ(log1pF32(std::numeric_limits<float>::max()), 88.72284F);
}

TEST(ExpF64, IsWithinOneUnit) {
  std::mt19937_64 rng(3);
  std::uniform_real_distribution<double> range(-700.0, 700.0);
  for (int i = 0; i < 400000; ++i) {
    const double x = i % 2 == 0 ? range(rng) : range(rng) / 512;
    const long double want = std::exp(static_cast<long double>(x));
    const auto nearest = static_cast<double>(want);
    const double unit = std::nextafter(nearest, std::numeric_limits<double>::infinity()) - nearest;
    ASSERT_LE(std::fabs(static_cast<long double>(expF64(x)) - want) / unit, 1.0L) << x;
  }
}

TEST(ExpF64, LimitsAreReached) {
  const double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(expF64(0.0), 1.0);
  EXPECT_EQ(expF64(-inf), 0.0);
  EXPECT_EQ(expF64(inf), inf);
  EXPECT_EQ(expF64(709.9), inf);
  EXPECT_LT(expF64(709.78), inf);
  EXPECT_GT(expF64(-745.0), 0.0);
  EXPECT_EQ(expF64(-746.5), 0.0);
  EXPECT_TRUE(std::isnan(expF64(std::numeric_limits<double>::quiet_NaN())));
}

TEST(LogF64, IsWithinTwoUnits) {
  std::mt19937_64 rng(5);
  std::uniform_real_distribution<double> exponent(-1070.0, 1023.0);
  std::uniform_real_distribution<double> nearOne(-0.4, 0.4);
  for (int i = 0; i < 400000; ++i) {
    const double x = i % 2 == 0 ? std::exp2(exponent(rng)) : 1.0 + nearOne(rng);
    const long double want = std::log(static_cast<long double>(x));
    const auto nearest = std::fabs(static_cast<double>(want));
    const double unit = std::nextafter(nearest, std::numeric_limits<double>::infinity()) - nearest;
    ASSERT_LE(std::fabs(static_cast<long double>(logF64(x)) - want) / unit, 2.0L) << x;
  }
}

TEST(LogF64, KnownValuesAndLimits) {
  const double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(logF64(1.0), 0.0);
  EXPECT_EQ(logF64(2.0), 0x1.62e42fefa39efp-1);
  EXPECT_EQ(logF64(0.0), -inf);
  EXPECT_EQ(logF64(-0.0), -inf);
  EXPECT_EQ(logF64(inf), inf);
  EXPECT_TRUE(std::isnan(logF64(-1e-300)));
  EXPECT_TRUE(std::isnan(logF64(-inf)));
  EXPECT_TRUE(std::isnan(logF64(std::numeric_limits<double>::quiet_NaN())));
  EXPECT_NEAR(logF64(std::numeric_limits<double>::denorm_min()), -744.4400719213812, 1e-12);
  EXPECT_NEAR(logF64(std::numeric_limits<double>::max()), 709.782712893384, 1e-12);
}

struct SinCos {
  long double sin;
  long double cos;
};

// For |x| up to 2^20. Some C libraries leave a long double to the x87 instructions,
// which reduce arguments with a pi of 66 bits; those of a quarter turn they get right.
SinCos exactSinCos(long double x) {
  // Pi / 2 in parts of 33 bits, so that a multiple of 20 bits is exact.
  constexpr long double kHalfPi[] = {0x1.921FB544p0L, 0x42D18469p-64L, 0x898CC517p-96L};
  const long double turns = std::nearbyint(x / kHalfPi[0]);
  for (const long double part : kHalfPi) x -= turns * part;
  const long double s = std::sin(x);
  const long double c = std::cos(x);
  switch (static_cast<int64_t>(turns) & 3) {
    case 0:
      return {s, c};
    case 1:
      return {c, -s};
    case 2:
      return {-s, -c};
    default:
      return {-c, s};
  }
}

TEST(SinCosF64, ErrorStaysBelowOneInAQuadrillion) {
  std::mt19937_64 rng(4);
  std::uniform_real_distribution<double> range(-0x1p20, 0x1p20);
  for (int i = 0; i < 400000; ++i) {
    const double x = i % 2 == 0 ? range(rng) : range(rng) / 0x1p18;
    double s = 0;
    double c = 0;
    sinCosF64(x, s, c);
    const SinCos want = exactSinCos(x);
    ASSERT_NEAR(s, static_cast<double>(want.sin), 1e-15) << x;
    ASSERT_NEAR(c, static_cast<double>(want.cos), 1e-15) << x;
  }
}

TEST(SinCosF64, ZeroIsExact) {
  double s = 1;
  double c = 0;
  sinCosF64(0.0, s, c);
  EXPECT_EQ(s, 0.0);
  EXPECT_EQ(c, 1.0);
}

// The promise is one result on every machine, so the bits themselves are
// recorded: a hash over many arguments of each function.
class Hash {
 public:
  void add(uint64_t bits) { hash_ = (hash_ ^ bits) * 0x100000001b3; }
  uint64_t value() const { return hash_; }

 private:
  uint64_t hash_ = 0xcbf29ce484222325;
};

TEST(ExactMath, BitsAreTheRecordedOnes) {
  Hash exp32;
  Hash log32;
  Hash exp64;
  Hash trig;
  for (int i = -100000; i <= 100000; ++i) {
    const float x = static_cast<float>(i) * 0.00107F;
    exp32.add(std::bit_cast<uint32_t>(expF32(x)));
    log32.add(std::bit_cast<uint32_t>(log1pF32(std::fabs(x) * 37.0F)));
    exp64.add(std::bit_cast<uint64_t>(expF64(static_cast<double>(i) * 0.0069)));
    double s = 0;
    double c = 0;
    sinCosF64(static_cast<double>(i) * 0.083, s, c);
    trig.add(std::bit_cast<uint64_t>(s));
    trig.add(std::bit_cast<uint64_t>(c));
  }
  EXPECT_EQ(exp32.value(), 16386759592227246165U);
  EXPECT_EQ(log32.value(), 18072537162085562247U);
  EXPECT_EQ(exp64.value(), 10223727383733426665U);
  EXPECT_EQ(trig.value(), 7604393581395656557U);
}

}  // namespace
}  // namespace zemtest
