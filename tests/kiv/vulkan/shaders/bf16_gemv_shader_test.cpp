// SPDX-License-Identifier: Apache-2.0
// The matrix-vector product of BF16 weights against plain loops.
#include <gtest/gtest.h>

#include "kiv/vulkan/shaders/quantised_matrix.h"

namespace zemtest {

using namespace kiv;

namespace {

using vulkan::ShaderId;

constexpr float kProjScale = 0.75F;

class Bf16GemvShader : public ShaderTest {
 protected:
  // n rows of k weights, `gap` bytes apart; what lies between and behind them is NaN.
  struct Matrix {
    uint32_t n;
    uint32_t k;
    uint32_t rowBytes;
    BufferBytes bytes;

    std::vector<float> row(uint32_t r) const {
      std::vector<float> weights;
      for (uint32_t c = 0; c < k; ++c) {
        const uint32_t bits = halfAt(bytes.data() + size_t{r} * rowBytes + 2 * c);
        weights.push_back(std::bit_cast<float>(bits << 16));
      }
      return weights;
    }
  };

  static Matrix matrixOf(uint32_t n, uint32_t k, uint32_t gap = 0, size_t behind = 64) {
    Matrix matrix = {n, k, 2 * k + gap, {}};
    const size_t used = size_t{n} * matrix.rowBytes;
    matrix.bytes.assign((used + behind + 3) / 4 * 4, 0xFF);
    const std::vector<float> weights = randomFloats(n + k, size_t{n} * k);
    for (size_t i = 0; i < weights.size(); ++i) {
      putHalf(matrix.bytes.data() + i / k * matrix.rowBytes + 2 * (i % k),
              static_cast<uint16_t>(std::bit_cast<uint32_t>(weights[i]) >> 16));
    }
    return matrix;
  }

  static std::vector<float> inputs(uint32_t k) { return randomFloats(k, k, -2, 2); }

  // What y should be when the first `columns` of each row count.
  static std::vector<Expected> expected(const Matrix& matrix, const std::vector<float>& x,
                                        uint32_t columns) {
    std::vector<Expected> all;
    for (uint32_t r = 0; r < matrix.n; ++r) {
      std::vector<float> weights = matrix.row(r);
      weights.resize(columns);
      Expected one = product(weights, x.data());
      one.value *= kProjScale;
      one.tolerance *= kProjScale;
      all.push_back(one);
    }
    return all;
  }
  static std::vector<Expected> expected(const Matrix& matrix, const std::vector<float>& x) {
    return expected(matrix, x, matrix.k);
  }

  BufferBytes multiply(const Matrix& matrix, const std::vector<float>& x, uint32_t wordsPerRow,
                       Workgroups groups) {
    std::vector<BufferBytes> buffers = {matrix.bytes, guarded(x), room(matrix.n)};
    run(ShaderId::Bf16GemvV1, buffers,
        {matrix.n, matrix.k, wordsPerRow, matrix.rowBytes, pushFloat(kProjScale)}, groups);
    return buffers[2];
  }
  BufferBytes multiply(const Matrix& matrix, const std::vector<float>& x) {
    return multiply(matrix, x, (matrix.k + 1) / 2, {matrix.n});
  }
};

// Odd k: every other row begins inside a word.
TEST_F(Bf16GemvShader, MultipliesRowsThatFollowEachOther) {
  for (const uint32_t n : {1U, 3U, 130U}) {
    for (const uint32_t k : {1U, 2U, 3U, 255U, 256U, 257U, 1000U, 4097U}) {
      SCOPED_TRACE(::testing::PrintToString(std::vector{n, k}));
      const Matrix matrix = matrixOf(n, k);
      const std::vector<float> x = inputs(k);
      ASSERT_NO_FATAL_FAILURE(expectResults(multiply(matrix, x), expected(matrix, x)));
    }
  }
}

TEST_F(Bf16GemvShader, SkipsWhatLiesBetweenRows) {
  for (const uint32_t gap : {2U, 4U, 30U}) {
    SCOPED_TRACE(gap);
    const Matrix matrix = matrixOf(5, 301, gap);
    const std::vector<float> x = inputs(301);
    ASSERT_NO_FATAL_FAILURE(expectResults(multiply(matrix, x), expected(matrix, x)));
  }
}

TEST_F(Bf16GemvShader, NeedsNothingBehindTheLastWeight) {
  for (const uint32_t n : {1U, 2U, 3U, 4U}) {
    SCOPED_TRACE(n);
    const Matrix matrix = matrixOf(n, 7, /*gap=*/0, /*behind=*/0);
    const std::vector<float> x = inputs(7);
    ASSERT_NO_FATAL_FAILURE(expectResults(multiply(matrix, x), expected(matrix, x)));
  }
}

TEST_F(Bf16GemvShader, StopsAfterThePairsItIsTold) {
  const Matrix matrix = matrixOf(4, 600);
  const std::vector<float> x = inputs(600);
  expectResults(multiply(matrix, x, /*wordsPerRow=*/150, {4}), expected(matrix, x, 300));
  expectResults(multiply(matrix, x, /*wordsPerRow=*/0, {4}), expected(matrix, x, 0));
}

TEST_F(Bf16GemvShader, PairsBeyondTheRowCountAsNothing) {
  const Matrix matrix = matrixOf(4, 31);
  const std::vector<float> x = inputs(31);
  expectResults(multiply(matrix, x, /*wordsPerRow=*/40, {4}), expected(matrix, x));
}

TEST_F(Bf16GemvShader, ReachesRowsBeyond65535) {
  const Matrix matrix = matrixOf(66000, 3);
  const std::vector<float> x = inputs(3);
  expectResults(multiply(matrix, x, 2, {257, ceilDiv(66000, 257)}), expected(matrix, x));
}

TEST_F(Bf16GemvShader, KeepsInfinitiesAndNaN) {
  Matrix matrix = matrixOf(4, 64);
  const std::vector<float> x(64, 1.0F);
  const std::vector<Expected> finite = expected(matrix, x);
  putHalf(matrix.bytes.data() + 10, 0x7F80);
  putHalf(matrix.bytes.data() + matrix.rowBytes + 12, 0xFF80);
  putHalf(matrix.bytes.data() + 2 * matrix.rowBytes + 126, 0x7FC0);
  const std::vector<float> y = valuesOf<float>(multiply(matrix, x));
  EXPECT_EQ(y[0], std::numeric_limits<float>::infinity());
  EXPECT_EQ(y[1], -std::numeric_limits<float>::infinity());
  EXPECT_TRUE(std::isnan(y[2]));
  EXPECT_NEAR(y[3], finite[3].value, finite[3].tolerance);
}

}  // namespace
}  // namespace zemtest
