// SPDX-License-Identifier: Apache-2.0
// Activations as integers of 14 bits: the definition, and the layouts of every level.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "runtime_qwen35/integer_levels.h"

namespace qwen35 {
namespace {

using reference::roundBlock;
using reference::RoundedBlock;

constexpr float kInfinity = std::numeric_limits<float>::infinity();

TEST(RoundBlock, TheLargestMagnitudeBecomes8191) {
  const Floats x = {0.5F, -2.0F, 1.0F};
  const RoundedBlock block = roundBlock(x.data(), x.size());
  EXPECT_EQ(block.scale, 2.0F / 8191.0F);
  EXPECT_EQ(block.q[0], 2048);
  EXPECT_EQ(block.q[1], -8191);
  EXPECT_EQ(block.q[2], 4096);  // 4095.5: ties go to the even neighbour
  EXPECT_EQ(block.q[3], 0) << "behind the last column";
}

TEST(RoundBlock, TiesGoToTheEvenNeighbour) {
  const Floats x = {8191, 0.5F, 1.5F, 2.5F, -0.5F, -1.5F, -2.5F};
  const RoundedBlock block = roundBlock(x.data(), x.size());
  EXPECT_EQ(std::vector<int>(block.q + 1, block.q + 7), (std::vector<int>{0, 2, 2, 0, -2, -2}));
}

TEST(RoundBlock, NumbersOfAnySizeAreWithinTheBound) {
  for (const float size : {0x1p-100F, 1e-30F, 1.0F, 1e20F, 8e37F}) {
    SCOPED_TRACE(size);
    Floats x = randomVector(kRoundedColumns, 1);
    for (float& v : x) v *= size;
    const RoundedBlock block = roundBlock(x.data(), x.size());
    int largest = 0;
    for (size_t c = 0; c < x.size(); ++c) {
      EXPECT_LE(std::fabs(x[c] - static_cast<double>(block.scale) * block.q[c]),
                0.502 * block.scale);
      largest = std::max(largest, std::abs(block.q[c]));
    }
    EXPECT_EQ(largest, 8191);
  }
}

TEST(RoundBlock, TheLargestFloatKeepsWithinItsIntegers) {
  const float largest = std::numeric_limits<float>::max();
  const Floats x = {largest, -largest};
  const RoundedBlock block = roundBlock(x.data(), x.size());
  EXPECT_TRUE(std::isfinite(block.scale));
  EXPECT_EQ(block.q[0], 8191);
  EXPECT_EQ(block.q[1], -8191);
}

TEST(RoundBlock, BlocksWithoutAMagnitudeAreZeros) {
  const float small = std::nextafter(0x1p-100F, 0.0F);
  for (const Floats& x : {Floats{}, Floats{0.0F, -0.0F}, Floats{small, -small},
                          Floats{std::numeric_limits<float>::denorm_min()}}) {
    const RoundedBlock block = roundBlock(x.data(), x.size());
    EXPECT_EQ(block.scale, 0.0F);
    for (const int q : block.q) EXPECT_EQ(q, 0);
  }
}

TEST(RoundBlock, OneColumnThatIsNotFiniteMakesTheScaleNan) {
  for (const float special : {kInfinity, -kInfinity, std::nanf("")}) {
    Floats x = randomVector(40, 2);
    x[17] = special;
    const RoundedBlock block = roundBlock(x.data(), x.size());
    EXPECT_TRUE(std::isnan(block.scale));
    for (const int q : block.q) EXPECT_EQ(q, 0);
  }
}

class RoundingAtEveryLevel : public testing::TestWithParam<const IntegerLevel*> {
 protected:
  void SetUp() override {
    if (!GetParam()->isSupported()) {
      GTEST_SKIP() << "this processor has no level " << GetParam()->name;
    }
  }
};

int lowHalf(uint32_t word) { return static_cast<int16_t>(word & 0xFFFF); }
int highHalf(uint32_t word) { return static_cast<int16_t>(word >> 16); }
int sumOfHalves(uint32_t word) { return lowHalf(word) + 256 * highHalf(word); }

int sumOf(const RoundedBlock& block, size_t begin, size_t count) {
  int sum = 0;
  for (size_t c = begin; c < begin + count; ++c) sum += block.q[c];
  return sum;
}

void expectScale(float got, const RoundedBlock& want) {
  if (std::isnan(want.scale)) {
    EXPECT_TRUE(std::isnan(got));
  } else {
    EXPECT_EQ(got, want.scale);
  }
}

// Token t of a group of `count`, one block.
void expectToken(const uint32_t* block, size_t count, size_t t, const RoundedBlock& want) {
  for (size_t w = 0; w < kRoundedColumns / 4; ++w) {
    const uint32_t even = block[(kSumRows + 2 * w) * count + t];
    const uint32_t odd = block[(kSumRows + 2 * w + 1) * count + t];
    EXPECT_EQ(lowHalf(even), want.q[4 * w]);
    EXPECT_EQ(lowHalf(odd), want.q[4 * w + 1]);
    EXPECT_EQ(highHalf(even), want.q[4 * w + 2]);
    EXPECT_EQ(highHalf(odd), want.q[4 * w + 3]);
  }
  for (size_t i = 0; i < kSumRows; ++i) {
    EXPECT_EQ(sumOfHalves(block[i * count + t]), sumOf(want, 32 * i, 32));
  }
  expectScale(std::bit_cast<float>(block[(kPairRows + kSumRows) * count + t]), want);
}

// Columns of every size, and one vector that has it all.
std::vector<Floats> vectorsToRound(size_t cols) {
  Floats mixed = anyFloats(cols, 3);
  for (float& v : mixed) v = std::isfinite(v) ? v : 1.0F;
  return {randomVector(cols, 4), hostileVector(cols, 5), mixed, Floats(cols, -1.0F),
          Floats(cols, 0.0F)};
}

TEST_P(RoundingAtEveryLevel, AVectorHasTheSumsAndScalesOfThePlainLoop) {
  for (const size_t cols : {32, 224, 256, 288, 1024}) {
    for (const Floats& x : vectorsToRound(cols)) {
      const auto want = plainRounded(x.data(), cols);
      std::vector<RoundedVector> got(roundedBlocks(cols));
      GetParam()->kernels->roundVector(x.data(), cols, got.data());
      ASSERT_EQ(got.size(), want.size());
      for (size_t b = 0; b < got.size(); ++b) {
        for (size_t i = 0; i < 8; ++i) {
          EXPECT_EQ(sumOfHalves(got[b].sums[i]), sumOf(want[b], 32 * i, 32));
          EXPECT_EQ(got[b].minus128Sums[i], -128 * sumOf(want[b], 32 * i, 32));
        }
        for (size_t i = 0; i < 16; ++i) {
          EXPECT_EQ(sumOfHalves(got[b].minus32Sums[i]), -32 * sumOf(want[b], 16 * i, 16));
        }
        expectScale(got[b].scale, want[b]);
      }
    }
  }
}

TEST_P(RoundingAtEveryLevel, TokensHaveTheIntegersOfThePlainLoop) {
  const IntegerKernels& kernels = *GetParam()->kernels;
  for (const size_t tokens : {1, 2, 6, 11, 12, 13, 25}) {
    const size_t cols = 256 + 32;
    const size_t stride = cols + 3;
    const size_t blocks = roundedBlocks(cols);
    const Floats x = hostileVector(tokens * stride, static_cast<uint32_t>(tokens));
    std::vector<uint32_t> packed(tokens * blocks * kTokenWords, 77);
    // In two parts, as threads do it.
    kernels.roundTokens(x.data(), stride, tokens, cols, 0, 1, packed.data());
    kernels.roundTokens(x.data(), stride, tokens, cols, 1, 2, packed.data());
    for (size_t t = 0; t < tokens; ++t) {
      const size_t first = t / kernels.groupTokens * kernels.groupTokens;
      const size_t count = std::min(kernels.groupTokens, tokens - first);
      const auto want = plainRounded(x.data() + t * stride, cols);
      for (size_t b = 0; b < blocks; ++b) {
        expectToken(packed.data() + (first * blocks + b * count) * kTokenWords, count, t - first,
                    want[b]);
      }
    }
  }
}

std::vector<const IntegerLevel*> everyIntegerLevel() {
  std::vector<const IntegerLevel*> all;
  for (const IntegerLevel& level : integerLevels()) all.push_back(&level);
  return all;
}

INSTANTIATE_TEST_SUITE_P(Levels, RoundingAtEveryLevel, testing::ValuesIn(everyIntegerLevel()),
                         [](const auto& level) { return std::string(level.param->name); });

}  // namespace
}  // namespace qwen35
