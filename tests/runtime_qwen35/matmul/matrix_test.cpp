// SPDX-License-Identifier: Apache-2.0
#include "matmul/matrix.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include "kiv/tensor.h"
#include "runtime_qwen35/random_matrix.h"
#include "support/container_builder.h"

namespace qwen35 {
namespace {

// A matrix view over bytes of the test's own.
struct OwnMatrix {
  OwnMatrix(DType type, size_t cols, size_t rows, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> range(-1, 1);
    values.resize(cols * rows);
    for (float& v : values) v = range(rng);
    bytes = zemtest::encodeRows(type, values, cols);
    view.dtype = type;
    view.shape = {cols, rows, 0, 0};
    view.ndim = 2;
    view.size = bytes.size();
    view.data = bytes.data();
  }

  // Row `r` by the library's block decoders.
  Floats row(size_t r) const {
    Floats out(view.shape[0]);
    rowToF32(&view, r, out.size(), out.data());
    return out;
  }

  Floats values;
  zemtest::Bytes bytes;
  TensorView view;
};

class EveryType : public testing::TestWithParam<DType> {};

TEST_P(EveryType, RowsWidenCloseToWhatWasStored) {
  const OwnMatrix W(GetParam(), 512, 3, 1);
  for (size_t r = 0; r < 3; ++r) {
    const Floats row = W.row(r);
    for (size_t c = 0; c < row.size(); ++c) EXPECT_NEAR(row[c], W.values[r * 512 + c], 0.08) << c;
  }
}

TEST_P(EveryType, RowsThatEndWithinABlockOverlap) {
  const OwnMatrix W(GetParam(), 512, 2, 2);
  const size_t block = kiv::dtypeBlockSize(GetParam());
  if (block == 1) return;
  // Row 1 of rows of 256 + 7 elements begins behind the whole blocks of the first 256.
  const Floats whole = W.row(0);
  Floats row(256 + 7);
  rowToF32(&W.view, 1, row.size(), row.data());
  EXPECT_TRUE(std::equal(row.begin(), row.begin() + 256, whole.begin() + 256));
}

INSTANTIATE_TEST_SUITE_P(Types, EveryType, testing::ValuesIn(kTypes),
                         [](const auto& type) { return kiv::dtypeName(type.param); });

TEST(RowToF32, TypesThatAreNotComputedLeaveTheOutputAlone) {
  OwnMatrix W(DType::F32, 32, 1, 4);
  for (const DType type : {DType::F16, DType::Q4_0, DType::Q8_K, DType::Q5_0, DType::Q5_1}) {
    W.view.dtype = type;
    Floats out(32, 7.0F);
    rowToF32(&W.view, 0, 32, out.data());
    EXPECT_EQ(out, Floats(32, 7.0F));
  }
}

TEST(MatrixRows, IsTheProductOfTheOuterExtents) {
  TensorView view;
  view.shape = {5, 3, 2, 7};
  for (const auto& [ndim, rows] : {std::pair{0, 1}, {1, 1}, {2, 3}, {3, 6}, {4, 42}}) {
    view.ndim = static_cast<uint16_t>(ndim);
    EXPECT_EQ(matrixRows(view), static_cast<size_t>(rows));
  }
}

TEST(FloatsOf, AlignedTensorsAreReadInPlace) {
  const Floats values = {1, 2, 3};
  TensorView view;
  view.data = values.data();
  Floats copy;
  EXPECT_EQ(floatsOf(&view, 3, copy), values.data());
  EXPECT_TRUE(copy.empty());
}

TEST(FloatsOf, OthersAreCopied) {
  const Floats values = {1, 2, 3};
  std::vector<uint8_t> bytes(1 + 3 * sizeof(float));
  std::memcpy(bytes.data() + 1, values.data(), 3 * sizeof(float));
  TensorView view;
  view.data = bytes.data() + 1;
  Floats copy;
  const float* floats = floatsOf(&view, 3, copy);
  EXPECT_EQ(floats, copy.data());
  EXPECT_EQ(copy, values);
}

}  // namespace
}  // namespace qwen35
