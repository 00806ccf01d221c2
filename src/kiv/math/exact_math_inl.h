// SPDX-License-Identifier: Apache-2.0
// Bodies of the elementary functions for loops that a compiler turns into vectors:
// no branches, no calls, and the steps of the functions in exact_math.h one by one,
// so that every lane has their bits.
#pragma once

#include <bit>
#include <cstdint>

namespace kiv::math::inl {

// Adding and subtracting 1.5 * 2^52 rounds a double to the nearest integer,
// ties to even, and leaves that integer in the low bits of the sum.
inline constexpr double kRoundingShift = 0x1.8p52;

inline constexpr double kLn2 = 0x1.62e42fefa39efp-1;
inline constexpr double kLog2E = 0x1.71547652b82fep+0;
// ln 2 in two pieces; the high one has 32 bits, so that its product with an
// exponent is exact.
inline constexpr double kLn2High = 0x1.62e42fee00000p-1;
inline constexpr double kLn2Low = 0x1.a39ef35793c76p-33;

// The Taylor series of e^r by Horner's rule, from the coefficient of r^9, which
// `p` holds, down to that of r^2.
[[gnu::always_inline]] inline double expSeriesTail(double p, double r) {
  p = p * r + 1.0 / 40320;
  p = p * r + 1.0 / 5040;
  p = p * r + 1.0 / 720;
  p = p * r + 1.0 / 120;
  p = p * r + 1.0 / 24;
  p = p * r + 1.0 / 6;
  return p * r + 0.5;
}

// e^r - 1 for |r| <= ln(2) / 2 to the full width of a double.
[[gnu::always_inline]] inline double expm1Series14(double r) {
  double p = 1.0 / 87178291200.0;
  p = p * r + 1.0 / 6227020800.0;
  p = p * r + 1.0 / 479001600.0;
  p = p * r + 1.0 / 39916800.0;
  p = p * r + 1.0 / 3628800.0;
  p = p * r + 1.0 / 362880;
  return r + (r * r) * expSeriesTail(p, r);
}

// e^r for |r| <= ln(2) / 2: the first term left out is below 7e-12, far under
// half a float's last place.
[[gnu::always_inline]] inline double expSeries9(double r) {
  double p = expSeriesTail(1.0 / 362880, r);
  p = p * r + 1.0;
  return p * r + 1.0;
}

// As kiv::math::expF32.
[[gnu::always_inline]] inline float expF32(float x) {
  // Beyond these the result is infinity or zero; the comparisons let NaN through.
  double clamped = x;
  clamped = clamped > 89.0 ? 89.0 : clamped;
  clamped = clamped < -104.0 ? -104.0 : clamped;
  const double shifted = clamped * kLog2E + kRoundingShift;
  const double n = shifted - kRoundingShift;
  const double r = clamped - n * kLn2;
  // Shifting the integer into the exponent field drops the bits above it.
  const auto exponent = (std::bit_cast<uint64_t>(shifted) + 1023) << 52;
  return static_cast<float>(expSeries9(r) * std::bit_cast<double>(exponent));
}

// expF64(x) for x <= 0, negative infinity included.
[[gnu::always_inline]] inline double expF64OfNegative(double x) {
  const double clamped = x < -746.0 ? -746.0 : x;
  const double shifted = clamped * kLog2E + kRoundingShift;
  const double n = shifted - kRoundingShift;
  const double r = (clamped - n * kLn2High) - n * kLn2Low;
  const double value = 1.0 + expm1Series14(r);
  // -n and its halves; shifts of unsigned numbers are what every vector unit has.
  const uint64_t k = std::bit_cast<uint64_t>(kRoundingShift) - std::bit_cast<uint64_t>(shifted);
  const uint64_t half = k >> 1;
  const auto first = std::bit_cast<double>((1023 - half) << 52);
  const auto second = std::bit_cast<double>((1023 - (k - half)) << 52);
  return x < -746.0 ? 0.0 : value * first * second;
}

}  // namespace kiv::math::inl
