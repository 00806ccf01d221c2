// SPDX-License-Identifier: Apache-2.0
// The shaders that measure reading: that they read what they should, all of it, and
// nothing else.
#include <cmath>
#include <limits>
#include <random>

#include "float_testing.h"
#include "kiv/quant_testing.h"
#include "support/shader_runner.h"

namespace zemtest {

using namespace kiv;

namespace {

using vulkan::ShaderId;

constexpr double kRounding = 0x1p-24;

struct Rows {
  uint32_t n = 1;
  uint32_t k = 256;
  uint32_t gapWords = 0;
  Workgroups groups;
};

uint32_t wordsOf(const Rows& rows) { return (rows.k + 255) / 256 * 36; }

// Sums of the halves of words that are all ones between the rows and behind them.
class ProbeRowShader : public ShaderTest {
 protected:
  void expectSums(const Rows& rows) {
    const uint32_t stride = wordsOf(rows) + rows.gapWords;
    std::vector<uint32_t> w(size_t{stride} * rows.n + 36, 0xFFFFFFFFU);
    std::vector<double> sums(rows.n);
    std::mt19937 random(rows.k);
    for (uint32_t r = 0; r < rows.n; ++r) {
      for (uint32_t i = 0; i < wordsOf(rows); ++i) {
        const auto word = static_cast<uint32_t>(random());
        w[size_t{r} * stride + i] = word;
        sums[r] += (word & 0xFFFFU) + (word >> 16);
      }
    }
    std::vector<BufferBytes> buffers = {bytesOf(w),
                                        bytesOf(std::vector<float>(rows.n + 3, kUntouched))};
    run(ShaderId::ProbeRow, buffers, {rows.n, rows.k, rows.k / 256, 4 * stride}, rows.groups);
    const auto y = valuesOf<float>(buffers[1]);
    // One addition of two halves is exact; then one a word of an invocation, and seven.
    const double roundings = wordsOf(rows) / 128 + 1 + 7;
    for (uint32_t r = 0; r < rows.n; ++r) {
      EXPECT_NEAR(y[r], sums[r], roundings * kRounding * sums[r]) << "row " << r;
    }
    for (size_t i = rows.n; i < y.size(); ++i) EXPECT_EQ(y[i], kUntouched) << "behind y: " << i;
  }
};

TEST_F(ProbeRowShader, AddsTheHalvesOfEveryWordOfItsRow) {
  expectSums({.n = 1, .k = 256, .groups = {1}});
  expectSums({.n = 3, .k = 512, .groups = {3}});
  expectSums({.n = 130, .k = 2560, .groups = {130}});
  expectSums({.n = 7, .k = 9216, .groups = {7}});
}

TEST_F(ProbeRowShader, APartialLastBlockIsReadWhole) {
  expectSums({.n = 2, .k = 1, .groups = {2}});
  expectSums({.n = 2, .k = 300, .groups = {2}});
}

TEST_F(ProbeRowShader, LeavesOutWhatLiesBetweenRows) {
  expectSums({.n = 5, .k = 512, .gapWords = 3, .groups = {5}});
}

TEST_F(ProbeRowShader, TakesAGridAndIgnoresWorkgroupsThatAreTooMany) {
  expectSums({.n = 7, .k = 256, .groups = {3, 3}});
  expectSums({.n = 7, .k = 256, .groups = {1, 9}});
}

// A change of any bit changes the sum: each word alone, all others zero.
TEST_F(ProbeRowShader, EveryBitCounts) {
  for (uint32_t bit = 0; bit < 32; ++bit) {
    std::vector<uint32_t> w(36);
    w[bit] = 1U << bit;
    std::vector<BufferBytes> buffers = {bytesOf(w), bytesOf(std::vector<float>(1, kUntouched))};
    run(ShaderId::ProbeRow, buffers, {1, 256, 1, 144}, {});
    EXPECT_EQ(valuesOf<float>(buffers[1])[0], std::ldexp(1.0F, static_cast<int>(bit % 16)));
  }
}

struct Pattern {
  uint32_t count = 0;
  uint32_t lines = 1;
  uint32_t lineStride = 128;
  uint32_t groupStride = 128;
  Workgroups groups;
};

// Each vector that a workgroup should read, counted as often as it should be.
std::vector<size_t> vectorsOf(const Pattern& pattern, uint32_t group) {
  std::vector<size_t> vectors;
  for (uint32_t line = 0; line < pattern.lines; ++line) {
    for (uint32_t i = 0; i < 128; ++i) {
      const size_t at = size_t{group} * pattern.groupStride + line * pattern.lineStride + i;
      if (at < pattern.count) vectors.push_back(at);
    }
  }
  return vectors;
}

// Sums of vectors, with NaN behind the last.
class ProbeFlatShader : public ShaderTest {
 protected:
  void expectSums(const Pattern& pattern) {
    std::vector<float> x = randomFloats(pattern.count, 4 * pattern.count, -3, 5);
    x.resize(x.size() + 4 * 256, kNan);
    const uint32_t groups = pattern.groups.x * pattern.groups.y;
    std::vector<BufferBytes> buffers = {bytesOf(x),
                                        bytesOf(std::vector<float>(groups + 3, kUntouched))};
    run(ShaderId::ProbeFlat, buffers,
        {pattern.count, pattern.lines, pattern.lineStride, pattern.groupStride}, pattern.groups);
    const auto y = valuesOf<float>(buffers[1]);
    for (uint32_t group = 0; group < groups; ++group) {
      double sum = 0;
      double magnitude = 0;
      for (const size_t at : vectorsOf(pattern, group)) {
        for (size_t i = 4 * at; i < 4 * at + 4; ++i) {
          sum += double{x[i]};
          magnitude += std::fabs(double{x[i]});
        }
      }
      // One addition a line, two over the components, seven over the workgroup.
      EXPECT_NEAR(y[group], sum, (pattern.lines + 9) * kRounding * magnitude) << "group " << group;
    }
    for (size_t i = groups; i < y.size(); ++i) EXPECT_EQ(y[i], kUntouched) << "behind y: " << i;
  }
};

TEST_F(ProbeFlatShader, AddsAStretchAWorkgroup) {
  expectSums({.count = 1, .groups = {1}});
  expectSums({.count = 127, .groups = {1}});
  expectSums({.count = 5 * 384, .lines = 3, .groupStride = 384, .groups = {5}});
}

TEST_F(ProbeFlatShader, WorkgroupsMayMarchTogether) {
  expectSums({.count = 5 * 384, .lines = 3, .lineStride = 5 * 128, .groups = {5}});
}

TEST_F(ProbeFlatShader, LeavesOutWhatLiesBehindTheCount) {
  expectSums({.count = 1000, .lines = 3, .groupStride = 384, .groups = {4}});
  expectSums({.count = 1000, .lines = 3, .lineStride = 4 * 128, .groups = {4}});
  expectSums({.count = 300, .lines = 1, .groups = {9}});
}

TEST_F(ProbeFlatShader, LinesMayOverlapAndLeaveGaps) {
  expectSums({.count = 2000, .lines = 4, .lineStride = 7, .groupStride = 300, .groups = {5}});
  expectSums({.count = 500, .lines = 6, .lineStride = 0, .groupStride = 0, .groups = {2}});
}

TEST_F(ProbeFlatShader, TakesAGrid) { expectSums({.count = 11 * 128, .groups = {4, 3}}); }

TEST_F(ProbeFlatShader, NoLinesAndNoVectorsGiveZero) {
  expectSums({.count = 10, .lines = 0, .groups = {2}});
  expectSums({.count = 0, .lines = 2, .groups = {2}});
}

}  // namespace
}  // namespace zemtest
