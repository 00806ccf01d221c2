// SPDX-License-Identifier: Apache-2.0
// The matrix-vector products of Q6_K weights, in all their partitions, against plain
// loops.
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "kiv/vulkan/shaders/quantised_matrix.h"

namespace zemtest {

using namespace kiv;

namespace {

using vulkan::ShaderId;

struct Gemv {
  std::string name;
  ShaderId id;
  uint32_t rowsPerGroup;
  bool native = false;  // reads the weights through two narrow views
};

void PrintTo(const Gemv& gemv, std::ostream* out) { *out << gemv.name; }

const Gemv kV1 = {"V1", ShaderId::Q6KGemvV1, 1};
const Gemv kV2 = {"V2", ShaderId::Q6KGemvV2, 4};
const Gemv kNative = {"Native", ShaderId::Q6KGemvNative, 2, /*native=*/true};

class Q6KGemvShader : public ShaderTest, public ::testing::WithParamInterface<Gemv> {
 protected:
  void SetUp() override {
    ShaderTest::SetUp();
    if (IsSkipped() || !GetParam().native) return;
    ZEM_NEEDS_NATIVE_STORAGE();
  }

  // y in a buffer from room(). `groupsAcross`: width of the grid, 0 for one row of
  // workgroups.
  BufferBytes multiply(const QuantisedMatrix& matrix, std::vector<float> x, uint32_t blocks,
                       uint32_t groupsAcross = 0) {
    x.resize(x.size() + 1);  // with the guard, whole vectors of four
    x.back() = std::numeric_limits<float>::quiet_NaN();
    std::vector<BufferBytes> buffers = {guarded(x), matrix.bytes()};
    if (GetParam().native) buffers.push_back(matrix.bytes());
    buffers.push_back(room(matrix.n()));
    const uint32_t groups = ceilDiv(matrix.n(), GetParam().rowsPerGroup);
    const Workgroups grid = groupsAcross == 0
                                ? Workgroups{groups}
                                : Workgroups{groupsAcross, ceilDiv(groups, groupsAcross)};
    run(GetParam().id, buffers, {matrix.n(), matrix.k(), blocks, matrix.rowBytes()}, grid);
    return buffers.back();
  }
  BufferBytes multiply(const QuantisedMatrix& matrix, const std::vector<float>& x) {
    return multiply(matrix, x, matrix.wholeBlocks());
  }

  static std::vector<float> inputs(uint32_t k) { return randomFloats(k, k, -2, 2); }
};

// The variants that need no whole last block.
using Q6KGemvOfAnyWidth = Q6KGemvShader;

struct GemvShape {
  uint32_t n;
  uint32_t k;
};

// One row, odd numbers, several workgroups; one block, fewer and more than are read at
// once, the longest rows of the models.
constexpr GemvShape kGemvShapes[] = {{1, 256},  {2, 512},   {3, 768},  {5, 2560}, {33, 1024},
                                     {64, 256}, {130, 512}, {7, 2048}, {10, 9216}};

TEST_P(Q6KGemvShader, MultipliesQuantisedWeights) {
  for (const GemvShape& shape : kGemvShapes) {
    SCOPED_TRACE(::testing::PrintToString(std::vector{shape.n, shape.k}));
    const auto matrix = QuantisedMatrix::ofWeights(q6kFormat(), shape.n, shape.k);
    const std::vector<float> x = inputs(shape.k);
    ASSERT_NO_FATAL_FAILURE(expectResults(multiply(matrix, x), products(matrix, x)));
  }
}

TEST_P(Q6KGemvShader, MultipliesRandomBlocks) {
  for (const GemvShape& shape : kGemvShapes) {
    SCOPED_TRACE(::testing::PrintToString(std::vector{shape.n, shape.k}));
    const auto matrix = QuantisedMatrix::ofRandomBytes(q6kFormat(), shape.n, shape.k);
    const std::vector<float> x = inputs(shape.k);
    ASSERT_NO_FATAL_FAILURE(expectResults(multiply(matrix, x), products(matrix, x)));
  }
}

TEST_P(Q6KGemvOfAnyWidth, CountsALastBlockThatIsNotWhole) {
  for (const uint32_t k : {1U, 2U, 31U, 255U, 257U, 700U, 2049U}) {
    SCOPED_TRACE(k);
    const auto matrix = QuantisedMatrix::ofRandomBytes(q6kFormat(), 6, k);
    const std::vector<float> x = inputs(k);
    const std::vector<Expected> expected = products(matrix, x);
    ASSERT_NO_FATAL_FAILURE(expectResults(multiply(matrix, x, matrix.wholeBlocks()), expected));
    ASSERT_NO_FATAL_FAILURE(expectResults(multiply(matrix, x, matrix.blocks()), expected));
  }
}

TEST_P(Q6KGemvShader, SkipsWhatLiesBetweenRows) {
  const auto matrix = QuantisedMatrix::ofRandomBytes(q6kFormat(), 11, 1280, /*gap=*/6);
  const std::vector<float> x = inputs(1280);
  expectResults(multiply(matrix, x), products(matrix, x));
}

// As most scales of real weights are.
TEST_P(Q6KGemvShader, MultipliesWeightsTooSmallForNormalHalves) {
  for (const float reach : {2e-2F, 2e-3F, 2e-4F}) {
    const auto matrix = QuantisedMatrix::ofWeights(q6kFormat(), 10, 2560, reach);
    const std::vector<float> x = inputs(2560);
    ASSERT_NO_FATAL_FAILURE(expectResults(multiply(matrix, x), products(matrix, x)));
  }
}

TEST_P(Q6KGemvShader, ReachesRowsThroughAGridLargerThanNeeded) {
  const auto matrix = QuantisedMatrix::ofWeights(q6kFormat(), 71, 256);
  const std::vector<float> x = inputs(256);
  expectResults(multiply(matrix, x, matrix.wholeBlocks(), /*groupsAcross=*/7), products(matrix, x));
}

TEST_P(Q6KGemvShader, ReachesRowsBeyond65535) {
  constexpr uint32_t kRows = 66001;
  const auto few = QuantisedMatrix::ofWeights(q6kFormat(), 5, 256);
  const auto matrix = QuantisedMatrix::repeating(few, kRows);
  const std::vector<float> x = inputs(256);
  const std::vector<Expected> one = products(few, x);
  std::vector<Expected> expected;
  for (uint32_t r = 0; r < kRows; ++r) expected.push_back(one[r % few.n()]);
  expectResults(multiply(matrix, x, matrix.wholeBlocks(), /*groupsAcross=*/300), expected);
}

TEST_P(Q6KGemvShader, NaNStaysInItsRow) {
  auto matrix = QuantisedMatrix::ofWeights(q6kFormat(), 9, 512);
  const std::vector<float> x = inputs(512);
  std::vector<Expected> expected = products(matrix, x);
  putHalf(matrix.row(5) + 208, 0x7E00);
  const std::vector<float> y = valuesOf<float>(multiply(matrix, x));
  for (uint32_t r = 0; r < matrix.n(); ++r) {
    if (r == 5) {
      EXPECT_TRUE(std::isnan(y[r]));
    } else {
      EXPECT_NEAR(y[r], expected[r].value, expected[r].tolerance) << r;
    }
  }
}

std::string gemvName(const ::testing::TestParamInfo<Gemv>& gemv) { return gemv.param.name; }

INSTANTIATE_TEST_SUITE_P(Modules, Q6KGemvShader, ::testing::Values(kV1, kV2, kNative), gemvName);
INSTANTIATE_TEST_SUITE_P(Modules, Q6KGemvOfAnyWidth, ::testing::Values(kV1, kV2), gemvName);

}  // namespace
}  // namespace zemtest
