// SPDX-License-Identifier: Apache-2.0
// std::fma of floats must round once, on every system and processor.
#include <immintrin.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>

#include "gtest/gtest.h"

namespace {

// The library's, whatever the compiler knows of the numbers.
float libraryFma(float x, float y, float z) {
  static float (*volatile function)(float, float, float) = fmaf;
  return function(x, y, z);
}

__attribute__((target("fma"))) float instructionFma(float x, float y, float z) {
  return _mm_cvtss_f32(_mm_fmadd_ss(_mm_set_ss(x), _mm_set_ss(y), _mm_set_ss(z)));
}

void expectSame(float x, float y, float z) {
  const float want = instructionFma(x, y, z);
  const float got = libraryFma(x, y, z);
  if (std::isnan(want) && std::isnan(got)) return;
  EXPECT_EQ(std::bit_cast<uint32_t>(got), std::bit_cast<uint32_t>(want))
      << x << " * " << y << " + " << z << " = " << want << ", not " << got;
}

TEST(FmafTest, OneRounding) {
  const float above = 1 + 0x1p-12F;
  EXPECT_EQ(libraryFma(above, above, -1 - 0x1p-11F), 0x1p-24F);
  // The product lies half way between two floats; the addend decides.
  EXPECT_EQ(libraryFma(above, above, 0x1p-60F), 1 + 0x1p-11F + 0x1p-23F);
  EXPECT_EQ(libraryFma(above, above, -0x1p-60F), 1 + 0x1p-11F);
  // Half way also for a double.
  EXPECT_EQ(libraryFma(1 + 0x1p-23F, 1 + 0x1p-23F, 0x1p-120F), 1 + 0x1p-22F);
}

TEST(FmafTest, EdgesAreTheInstructions) {
  if (__builtin_cpu_supports("fma") == 0) GTEST_SKIP() << "this processor has no FMA instruction";
  using Limits = std::numeric_limits<float>;
  const std::array<float, 22> values = {0.0F,
                                        -0.0F,
                                        1.0F,
                                        -1.0F,
                                        1 + 0x1p-23F,
                                        1 - 0x1p-24F,
                                        0x1p-12F,
                                        -0x1p-24F,
                                        0x1p24F,
                                        0x1p-60F,
                                        0x1p-100F,
                                        -0x1p-126F,
                                        Limits::min(),
                                        0x1.8p-127F,
                                        Limits::denorm_min(),
                                        -0x1p-149F,
                                        Limits::max(),
                                        -Limits::max(),
                                        0x1p127F,
                                        Limits::infinity(),
                                        -Limits::infinity(),
                                        Limits::quiet_NaN()};
  for (const float x : values) {
    for (const float y : values) {
      for (const float z : values) expectSame(x, y, z);
    }
  }
}

TEST(FmafTest, RandomBitsGiveTheInstructionsBits) {
  if (__builtin_cpu_supports("fma") == 0) GTEST_SKIP() << "this processor has no FMA instruction";
  std::mt19937 random(7);
  for (int i = 0; i < 300'000 && !HasFailure(); ++i) {
    expectSame(std::bit_cast<float>(static_cast<uint32_t>(random())),
               std::bit_cast<float>(static_cast<uint32_t>(random())),
               std::bit_cast<float>(static_cast<uint32_t>(random())));
  }
}

// Addends whose bits meet the product's, where a second rounding shows.
TEST(FmafTest, NearSumsGiveTheInstructionsBits) {
  if (__builtin_cpu_supports("fma") == 0) GTEST_SKIP() << "this processor has no FMA instruction";
  std::mt19937 random(8);
  std::uniform_real_distribution<float> fraction(1, 2);
  for (int i = 0; i < 300'000 && !HasFailure(); ++i) {
    const float x = fraction(random);
    const float y = -fraction(random);
    const int exponent = static_cast<int>(random() % 80) - 40;
    expectSame(x, y, std::ldexp(fraction(random), exponent));
    expectSame(x, y, -x * y);
    expectSame(std::ldexp(x, -70), std::ldexp(y, -70), std::ldexp(fraction(random), -140));
  }
}

}  // namespace
