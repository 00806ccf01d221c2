// SPDX-License-Identifier: Apache-2.0
// RMSNorm, Softmax and ArgmaxPartial against plain loops.
#include <algorithm>

#include "float_testing.h"

namespace zemtest {

using namespace kiv;

namespace {

using vulkan::ShaderId;

constexpr size_t kWidths[] = {4, 7, 255, 256, 257, 1000, 2560};

// A sum over a row: each invocation its share, then eight halvings.
double sumError(size_t width) { return (static_cast<double>(ceilDiv(width, 256)) + 8) * kUlp; }

using ReductionShader = ShaderTest;

std::vector<Expected> expectedRmsNorm(const std::vector<float>& x, const std::vector<float>& weight,
                                      double eps) {
  const size_t width = weight.size();
  std::vector<Expected> expected;
  for (size_t start = 0; start < x.size(); start += width) {
    double squares = 0;
    for (size_t c = 0; c < width; ++c) squares += static_cast<double>(x[start + c]) * x[start + c];
    const double root = std::sqrt(squares / static_cast<double>(width) + eps);
    for (size_t c = 0; c < width; ++c) {
      const double y = x[start + c] * static_cast<double>(weight[c]) / root;
      expected.push_back({y, std::abs(y) * (sumError(width) + 10 * kUlp)});
    }
  }
  return expected;
}

TEST_F(ReductionShader, RMSNormDividesRowsByTheirRootMeanSquare) {
  for (const size_t width : kWidths) {
    for (const size_t rows : {1, 5}) {
      SCOPED_TRACE(width);
      const std::vector<float> x = randomFloats(1, width * rows, -2, 2);
      const std::vector<float> weight = randomFloats(2, width, 0.5F, 1.5F);
      std::vector<BufferBytes> buffers = {guarded(x), guarded(weight), room(x.size())};
      run(ShaderId::RMSNorm, buffers, {static_cast<uint32_t>(width), pushFloat(1e-6F)},
          {static_cast<uint32_t>(rows)});
      expectResults(buffers[2], expectedRmsNorm(x, weight, 1e-6F));
    }
  }
}

TEST_F(ReductionShader, RMSNormOfZerosIsZero) {
  std::vector<BufferBytes> buffers = {guarded(std::vector<float>(300)),
                                      guarded(std::vector<float>(300, 1)), room(300)};
  run(ShaderId::RMSNorm, buffers, {300, pushFloat(1e-6F)}, {});
  expectResults(buffers[2], std::vector<Expected>(300));
}

TEST_F(ReductionShader, RMSNormOfTinyNumbersIsRuledByEpsilon) {
  const std::vector<float> x = randomFloats(3, 300, -1e-5F, 1e-5F);
  const std::vector<float> weight(300, 1);
  std::vector<BufferBytes> buffers = {guarded(x), guarded(weight), room(300)};
  run(ShaderId::RMSNorm, buffers, {300, pushFloat(0.25F)}, {});
  expectResults(buffers[2], expectedRmsNorm(x, weight, 0.25));
}

TEST_F(ReductionShader, RMSNormLeavesRowsBeyondTheBufferAlone) {
  const std::vector<float> x = randomFloats(4, 35, -2, 2);
  const std::vector<float> weight(5, 1);
  std::vector<BufferBytes> buffers = {guarded(x), guarded(weight), room(35)};
  run(ShaderId::RMSNorm, buffers, {5, pushFloat(0)}, {3, 4});
  expectResults(buffers[2], expectedRmsNorm(x, weight, 0));
}

std::vector<Expected> expectedSoftmax(const std::vector<float>& x, size_t width) {
  std::vector<Expected> expected;
  for (size_t start = 0; start < x.size(); start += width) {
    const auto row = x.begin() + static_cast<std::ptrdiff_t>(start);
    const double largest = *std::max_element(row, row + static_cast<std::ptrdiff_t>(width));
    double sum = 0;
    for (size_t c = 0; c < width; ++c) sum += std::exp(x[start + c] - largest);
    for (size_t c = 0; c < width; ++c) {
      const double y = std::exp(x[start + c] - largest) / sum;
      // Exponentials (of differences that are rounded) in the result, in the sum, and
      // in each step to a larger element.
      const double range = std::min(largest - x[start + c], 1e3);
      const double error = 4 * sumError(width) + (4 * range + 20) * kUlp;
      expected.push_back({y, y * error + 0x1p-126});
    }
  }
  return expected;
}

TEST_F(ReductionShader, SoftmaxOfRowsSumsToOne) {
  for (const size_t width : kWidths) {
    for (const size_t rows : {1, 5}) {
      SCOPED_TRACE(width);
      const std::vector<float> x = randomFloats(5, width * rows, -8, 8);
      std::vector<BufferBytes> buffers = {guarded(x), room(x.size())};
      run(ShaderId::Softmax, buffers, {static_cast<uint32_t>(width)},
          {static_cast<uint32_t>(rows)});
      expectResults(buffers[1], expectedSoftmax(x, width));
    }
  }
}

TEST_F(ReductionShader, SoftmaxOfRisingAndFallingRowsIsRight) {
  std::vector<float> x(1400);
  for (size_t i = 0; i < 700; ++i) {
    x[i] = 0.1F * static_cast<float>(i);
    x[1399 - i] = x[i];
  }
  std::vector<BufferBytes> buffers = {guarded(x), room(x.size())};
  run(ShaderId::Softmax, buffers, {700}, {2});
  expectResults(buffers[1], expectedSoftmax(x, 700));
}

TEST_F(ReductionShader, SoftmaxOfHugeValuesDoesNotOverflow) {
  const std::vector<float> x = {3e38F, 3e38F, -3e38F, 0, 1e38F, -1e38F, 3e38F, 3e38F};
  std::vector<BufferBytes> buffers = {guarded(x), room(x.size())};
  run(ShaderId::Softmax, buffers, {8}, {});
  expectResults(buffers[1], {{0.25}, {0.25}, {0}, {0}, {0}, {0}, {0.25}, {0.25}});
}

TEST_F(ReductionShader, SoftmaxGivesEqualValuesEqualShares) {
  for (const float value : {-77.25F, 0.0F, 3e38F, -3e38F, std::numeric_limits<float>::lowest()}) {
    std::vector<BufferBytes> buffers = {guarded(std::vector<float>(512, value)), room(512)};
    run(ShaderId::Softmax, buffers, {512}, {});
    expectResults(buffers[1], std::vector<Expected>(512, {1.0 / 512}));
  }
}

TEST_F(ReductionShader, SoftmaxOfOneValueIsOne) {
  std::vector<BufferBytes> buffers = {bytesOf<float>({-5, 0, 9}), bytesOf<float>({7, 7, 7})};
  run(ShaderId::Softmax, buffers, {1}, {3});
  EXPECT_EQ(valuesOf<float>(buffers[1]), (std::vector<float>{1, 1, 1}));
}

TEST_F(ReductionShader, SoftmaxGivesMaskedValuesNothing) {
  std::vector<float> x = randomFloats(6, 900, -3, 3);
  for (size_t i = 0; i < x.size(); ++i) {
    if (i % 3 != 1) x[i] = -kInf;
  }
  std::vector<BufferBytes> buffers = {guarded(x), room(x.size())};
  run(ShaderId::Softmax, buffers, {900}, {});
  expectResults(buffers[1], expectedSoftmax(x, 900));
}

TEST_F(ReductionShader, SoftmaxOfARowThatIsAllMaskedIsZero) {
  const std::vector<float> x(300, -kInf);
  std::vector<BufferBytes> buffers = {guarded(x), room(x.size())};
  run(ShaderId::Softmax, buffers, {300}, {});
  expectResults(buffers[1], std::vector<Expected>(300));
}

TEST_F(ReductionShader, SoftmaxLeavesRowsBeyondTheBufferAlone) {
  const std::vector<float> x = randomFloats(7, 7 * 4, -4, 4);
  std::vector<BufferBytes> buffers = {guarded(x), room(x.size())};
  run(ShaderId::Softmax, buffers, {4}, {3, 4});
  expectResults(buffers[1], expectedSoftmax(x, 4));
}

struct Winner {
  float value;
  uint32_t index;
};

bool operator==(const Winner& a, const Winner& b) {
  return a.value == b.value && a.index == b.index;
}

std::ostream& operator<<(std::ostream& out, const Winner& w) {
  return out << w.value << " at " << w.index;
}

class ArgmaxShader : public ShaderTest {
 protected:
  static constexpr size_t kPart = 4096;

  // The winner of each part of `x`, of which only `count` elements count.
  std::vector<Winner> winners(const std::vector<float>& x, size_t count, Workgroups groups) {
    const size_t parts = ceilDiv(count, kPart);
    std::vector<BufferBytes> buffers = {bytesOf(x), room(2 * parts)};
    run(ShaderId::ArgmaxPartial, buffers, {static_cast<uint32_t>(count)}, groups);
    const std::vector<float> partial = valuesOf<float>(buffers[1]);
    std::vector<Winner> all;
    for (size_t i = 0; i < parts; ++i) {
      all.push_back({partial[2 * i], std::bit_cast<uint32_t>(partial[2 * i + 1])});
    }
    for (size_t i = 2 * parts; i < partial.size(); ++i) EXPECT_EQ(partial[i], kUntouched);
    return all;
  }

  Winner winner(const std::vector<float>& x) { return winners(x, x.size(), {}).at(0); }
};

TEST_F(ArgmaxShader, FindsTheLargestOfEachPart) {
  for (const size_t count : {1, 2, 255, 257, 4095, 4096, 4097, 10000, 20481}) {
    SCOPED_TRACE(count);
    std::vector<float> x = randomFloats(8, count, -5, 5);
    x.resize(count + 10, kInf);
    std::vector<Winner> expected;
    for (size_t first = 0; first < count; first += kPart) {
      const auto begin = x.begin() + static_cast<std::ptrdiff_t>(first);
      const auto end = x.begin() + static_cast<std::ptrdiff_t>(std::min(count, first + kPart));
      const auto best = std::max_element(begin, end);
      expected.push_back({*best, static_cast<uint32_t>(best - x.begin())});
    }
    EXPECT_EQ(winners(x, count, {ceilDiv(count, kPart)}), expected);
    EXPECT_EQ(winners(x, count, {2, ceilDiv(count, 2 * kPart) + 1}), expected);
  }
}

TEST_F(ArgmaxShader, FindsTheLargestWhereverItStands) {
  for (const size_t at : {0, 1, 127, 128, 255, 256, 2048, 4094, 4095}) {
    std::vector<float> x(kPart, -1);
    x[at] = -0.5F;
    EXPECT_EQ(winner(x), (Winner{-0.5F, static_cast<uint32_t>(at)}));
  }
}

TEST_F(ArgmaxShader, TakesTheLowestIndexOfEquals) {
  std::vector<float> x(kPart, 1);
  EXPECT_EQ(winner(x), (Winner{1, 0}));
  for (const size_t at : {3000, 2999, 700, 261, 260, 5}) {
    x[at] = 2;
    EXPECT_EQ(winner(x), (Winner{2, static_cast<uint32_t>(at)}));
  }
}

TEST_F(ArgmaxShader, NeverPicksNaN) {
  std::vector<float> x(1000, kNan);
  x[700] = -3;
  x[10] = -4;
  EXPECT_EQ(winner(x), (Winner{-3, 700}));
  x[0] = -kInf;
  EXPECT_EQ(winner(x), (Winner{-3, 700}));
}

TEST_F(ArgmaxShader, PrefersMinusInfinityToNaN) {
  std::vector<float> x(1000, kNan);
  x[700] = -kInf;
  x[900] = -kInf;
  EXPECT_EQ(winner(x), (Winner{-kInf, 700}));
}

TEST_F(ArgmaxShader, GivesThePartsFirstIndexWhenAllIsNaN) {
  const std::vector<float> x(kPart + 20, kNan);
  EXPECT_EQ(winners(x, x.size(), {2}),
            (std::vector<Winner>{{-kInf, 0}, {-kInf, static_cast<uint32_t>(kPart)}}));
}

TEST_F(ArgmaxShader, OfNothingIsNothing) { EXPECT_TRUE(winners({kNan}, 0, {2}).empty()); }

}  // namespace
}  // namespace zemtest
