// SPDX-License-Identifier: Apache-2.0
#include "kiv/math/exact_math.h"

#include <bit>
#include <cmath>
#include <limits>

#include "kiv/math/exact_math_inl.h"

namespace kiv::math {
namespace {

using inl::expm1Series14;
using inl::kLn2;
using inl::kLn2High;
using inl::kLn2Low;
using inl::kLog2E;
using inl::kRoundingShift;

constexpr double kTwoOverPi = 0x1.45f306dc9c883p-1;
// pi / 2 in three pieces, the first two of 33 bits each.
constexpr double kHalfPi1 = 0x1.921fb54400000p+0;
constexpr double kHalfPi2 = 0x1.0b4611a600000p-34;
constexpr double kHalfPi3 = 0x1.3198a2e037073p-69;

// 2^n for -1022 <= n <= 1023.
double powerOfTwo(int64_t n) {
  return std::bit_cast<double>(static_cast<uint64_t>(n + 1023) << 52);
}

// The integer that adding kRoundingShift left in the low bits of `shifted`.
int64_t roundedInteger(double shifted) {
  return static_cast<int64_t>(std::bit_cast<uint64_t>(shifted) -
                              std::bit_cast<uint64_t>(kRoundingShift));
}

// A positive normal double u = 2^k m in the terms of its logarithm: with
// f = (m - 1) / (m + 1), log m = 2 (f + f^3 / 3 + f^5 / 5 + ...).
struct LogTerms {
  explicit LogTerms(double u) {
    const auto bits = std::bit_cast<uint64_t>(u);
    // Counting the exponent from sqrt(1/2) keeps m within [0.707, 1.414).
    constexpr uint64_t kSqrtHalf = 0x3FE6A09E667F3BCD;
    const uint64_t offset = bits - kSqrtHalf;
    const int64_t exponent = static_cast<int64_t>(offset) >> 52;
    const double m = std::bit_cast<double>(bits - (static_cast<uint64_t>(exponent) << 52));
    k = static_cast<double>(exponent);
    f = (m - 1.0) / (m + 1.0);
  }

  double k;
  double f;
};

// log of a positive normal double, good to 1e-11 relative.
double logForFloat(double u) {
  const auto [k, f] = LogTerms(u);
  const double s = f * f;
  double p = 1.0 / 15;
  p = p * s + 1.0 / 13;
  p = p * s + 1.0 / 11;
  p = p * s + 1.0 / 9;
  p = p * s + 1.0 / 7;
  p = p * s + 1.0 / 5;
  p = p * s + 1.0 / 3;
  p = p * s + 1.0;
  return k * kLn2 + 2.0 * f * p;
}

// f^3 / 3 + f^5 / 5 + ..., the first term left out below 2^-60 of f.
double logSeries(double f) {
  const double s = f * f;
  double p = 1.0 / 23;
  p = p * s + 1.0 / 21;
  p = p * s + 1.0 / 19;
  p = p * s + 1.0 / 17;
  p = p * s + 1.0 / 15;
  p = p * s + 1.0 / 13;
  p = p * s + 1.0 / 11;
  p = p * s + 1.0 / 9;
  p = p * s + 1.0 / 7;
  p = p * s + 1.0 / 5;
  p = p * s + 1.0 / 3;
  return (f * s) * p;
}

double sinSeries(double r) {
  const double s = r * r;
  double p = -1.0 / 1307674368000.0;
  p = p * s + 1.0 / 6227020800.0;
  p = p * s - 1.0 / 39916800.0;
  p = p * s + 1.0 / 362880;
  p = p * s - 1.0 / 5040;
  p = p * s + 1.0 / 120;
  p = p * s - 1.0 / 6;
  return r + (r * s) * p;
}

double cosSeries(double r) {
  const double s = r * r;
  double p = 1.0 / 20922789888000.0;
  p = p * s - 1.0 / 87178291200.0;
  p = p * s + 1.0 / 479001600.0;
  p = p * s - 1.0 / 3628800.0;
  p = p * s + 1.0 / 40320;
  p = p * s - 1.0 / 720;
  p = p * s + 1.0 / 24;
  p = p * s - 0.5;
  return 1.0 + s * p;
}

}  // namespace

float expF32(float x) { return inl::expF32(x); }

float log1pF32(float x) {
  if (!(x > -1.0F)) {
    return x == -1.0F ? -std::numeric_limits<float>::infinity()
                      : std::numeric_limits<float>::quiet_NaN();
  }
  if (x == std::numeric_limits<float>::infinity()) return x;
  const double d = x;
  if (std::fabs(x) < 0x1p-26F) return static_cast<float>(d - 0.5 * d * d);
  return static_cast<float>(logForFloat(1.0 + d));
}

double expF64(double x) {
  if (x > 710.0) return std::numeric_limits<double>::infinity();
  if (x < -746.0) return 0.0;
  if (x != x) return x;
  const double shifted = x * kLog2E + kRoundingShift;
  const double n = shifted - kRoundingShift;
  const double r = (x - n * kLn2High) - n * kLn2Low;
  const double value = 1.0 + expm1Series14(r);
  // Two factors, since 2^1024 and results below 2^-1022 have no single one.
  const int64_t k = roundedInteger(shifted);
  const int64_t half = k / 2;
  return value * powerOfTwo(half) * powerOfTwo(k - half);
}

double logF64(double x) {
  if (!(x > 0.0)) {
    return x == 0.0 ? -std::numeric_limits<double>::infinity()
                    : std::numeric_limits<double>::quiet_NaN();
  }
  if (x > std::numeric_limits<double>::max()) return x;
  // Subnormal numbers lack the leading bit.
  const bool subnormal = x < std::numeric_limits<double>::min();
  const auto [exponent, f] = LogTerms(subnormal ? x * 0x1p54 : x);
  const double k = subnormal ? exponent - 54.0 : exponent;
  return k * kLn2High + (k * kLn2Low + (2.0 * f + 2.0 * logSeries(f)));
}

void sinCosF64(double angle, double& sine, double& cosine) {
  const double shifted = angle * kTwoOverPi + kRoundingShift;
  const double n = shifted - kRoundingShift;
  const double r = ((angle - n * kHalfPi1) - n * kHalfPi2) - n * kHalfPi3;
  const double s = sinSeries(r);
  const double c = cosSeries(r);
  switch (roundedInteger(shifted) & 3) {
    case 0:
      sine = s;
      cosine = c;
      break;
    case 1:
      sine = c;
      cosine = -s;
      break;
    case 2:
      sine = -s;
      cosine = -c;
      break;
    default:
      sine = -c;
      cosine = s;
  }
}

}  // namespace kiv::math
