// SPDX-License-Identifier: Apache-2.0
// Integer products against the plain loops, bit for bit, at every level; and the plain loops
// against exact arithmetic.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <random>
#include <vector>

#include "kiv/quant/row_codec.h"
#include "runtime_qwen35/integer_levels.h"

namespace qwen35 {
namespace {

class IntegerProducts : public IntegersAtEveryLevel {
 protected:
  Floats matvecProducts(const TensorView& W, const float* x) const {
    const size_t cols = matrixCols(W);
    std::vector<RoundedVector> rounded(roundedBlocks(cols));
    kernels().roundVector(x, cols, rounded.data());
    Floats out(matrixRows(W) + 1, -7.0F);
    kernels().matvec[type()](W.data, rounded.data(), out.size() - 1, cols, out.data());
    EXPECT_EQ(out.back(), -7.0F) << "wrote beyond the last row";
    out.pop_back();
    return out;
  }

  Floats matmulProducts(const TensorView& W, const Floats& x, size_t tokens) const {
    const size_t cols = matrixCols(W);
    const size_t rows = matrixRows(W);
    const size_t blocks = roundedBlocks(cols);
    std::vector<uint32_t> packed(tokens * blocks * kTokenWords);
    kernels().roundTokens(x.data(), cols, tokens, cols, 0, blocks, packed.data());
    Floats out(tokens * rows + 1, -7.0F);
    kernels().matmul[type()](W.data, packed.data(), tokens, rows, cols, out.data(), rows);
    EXPECT_EQ(out.back(), -7.0F) << "wrote beyond the last row";
    out.pop_back();
    return out;
  }

  void expectPlain(const TensorView& W, const Floats& x, size_t tokens = 1) const {
    const Floats want = plainIntegerProducts(W, x, tokens);
    EXPECT_TRUE(sameBits(matmulProducts(W, x, tokens), want)) << "matmul";
    if (tokens > 1) return;
    EXPECT_TRUE(sameBits(matvecProducts(W, x.data()), want)) << "matvec";
  }
};

TEST_P(IntegerProducts, RowsAroundEveryNumberOfLanes) {
  const size_t cols = std::max<size_t>(block(), 96);
  const Floats x = randomVector(cols, 1);
  for (const size_t rows : {1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 32, 33, 63, 64, 65, 97}) {
    SCOPED_TRACE(rows);
    expectPlain(RandomMatrix(type(), rows, cols, static_cast<uint32_t>(rows)).view(), x);
  }
}

TEST_P(IntegerProducts, ColumnsOfEveryNumberOfBlocks) {
  for (const size_t blocks : {1, 2, 3, 7, 8, 9, 10, 15, 16, 17, 23}) {
    SCOPED_TRACE(blocks);
    const size_t cols = blocks * block();
    expectPlain(RandomMatrix(type(), 35, cols, 2).view(), randomVector(cols, 3));
    expectPlain(RandomMatrix(type(), 19, cols, 4).view(), randomVector(14 * cols, 5), 14);
  }
}

TEST_P(IntegerProducts, AnyNumberOfTokens) {
  const size_t cols = std::max<size_t>(block(), 160);
  const RandomMatrix W(type(), 37, cols, 6);
  for (const size_t tokens :
       {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 23, 24, 25, 48, 95, 96, 97, 110, 193}) {
    SCOPED_TRACE(tokens);
    expectPlain(W.view(), randomVector(tokens * cols, static_cast<uint32_t>(tokens)), tokens);
  }
}

TEST_P(IntegerProducts, RandomShapes) {
  std::mt19937 rng(7);
  for (uint32_t round = 0; round < 12; ++round) {
    const size_t rows = 1 + rng() % 80;
    const size_t cols = block() * (1 + rng() % (block() == 32 ? 30 : 5));
    const size_t tokens = 1 + rng() % 40;
    SCOPED_TRACE(testing::Message() << rows << " x " << cols << ", " << tokens << " tokens");
    expectPlain(RandomMatrix(type(), rows, cols, round).view(), randomVector(tokens * cols, round),
                tokens);
  }
}

TEST_P(IntegerProducts, WeightsAtAnyAddress) {
  const size_t cols = 3 * block();
  const Floats x = randomVector(cols, 8);
  for (size_t misalignment = 1; misalignment < 17; misalignment += 3) {
    SCOPED_TRACE(misalignment);
    expectPlain(RandomMatrix(type(), 21, cols, 9, Scales::Small, misalignment).view(), x);
  }
}

// Scales that are infinite, NaN or subnormal.
TEST_P(IntegerProducts, AnyBytesAtAll) {
  for (uint32_t round = 0; round < 6; ++round) {
    const size_t cols = 5 * block();
    const RandomMatrix W(type(), 40, cols, round, Scales::Any);
    expectPlain(W.view(), randomVector(cols, round));
    expectPlain(W.view(), randomVector(13 * cols, round), 13);
  }
}

TEST_P(IntegerProducts, AnyActivationsAtAll) {
  const size_t cols = 3 * block();
  const RandomMatrix W(type(), 34, cols, 10);
  for (uint32_t round = 0; round < 4; ++round) {
    expectPlain(W.view(), hostileVector(cols, round));
    expectPlain(W.view(), anyFloats(9 * cols, round), 9);
  }
}

TEST_P(IntegerProducts, ATokenThatIsNotFiniteHasNanRowsAndNoOtherHas) {
  const size_t cols = 2 * std::max<size_t>(block(), 128);
  const RandomMatrix W(type(), 33, cols, 11);
  for (const float special : {std::numeric_limits<float>::infinity(), std::nanf("")}) {
    Floats x = randomVector(8 * cols, 12);
    x[3 * cols + cols / 3] = special;
    const Floats y = matmulProducts(W.view(), x, 8);
    for (size_t i = 0; i < y.size(); ++i) EXPECT_EQ(std::isnan(y[i]), i / 33 == 3);
    for (const float v : matvecProducts(W.view(), x.data() + 3 * cols)) EXPECT_TRUE(std::isnan(v));
  }
}

// Where codes and scales lie in a block, so that each can be put at its ends.
struct BlockLayout {
  std::vector<size_t> halves;  // half-precision numbers
  size_t scalesBegin, scalesEnd;
};

BlockLayout layoutOf(DType type) {
  switch (type) {
    case DType::Q8_0:
      return {{0}, 0, 0};
    case DType::Q6_K:
      return {{offsetof(kiv::quant::Q6KBlock, d)},
              offsetof(kiv::quant::Q6KBlock, scales),
              offsetof(kiv::quant::Q6KBlock, d)};
    default:
      return {{0, 2}, 4, 16};
  }
}

void fillBlocks(RandomMatrix& W, int codes, int scales) {
  const BlockLayout layout = layoutOf(W.view().dtype);
  const size_t bytes = kiv::dtypeBytes(W.view().dtype, kiv::dtypeBlockSize(W.view().dtype));
  for (size_t at = 0; at < W.view().size; at += bytes) {
    uint8_t* block = W.bytes() + at;
    std::memset(block, codes, bytes);
    std::memset(block + layout.scalesBegin, scales, layout.scalesEnd - layout.scalesBegin);
    for (const size_t half : layout.halves) {
      const uint16_t one = 0x3C00;
      std::memcpy(block + half, &one, sizeof(one));
    }
  }
}

// Every code and every scale at an end, with activations that all are 8191 or -8191: the sums come
// as near to 32 bits as they can.
TEST_P(IntegerProducts, ExtremesDoNotOverflow) {
  const size_t cols = 2 * kRoundedColumns;
  const Floats up(cols, 1.0F);
  const Floats down(cols, -1.0F);
  Floats alternating(cols);
  for (size_t c = 0; c < cols; ++c) alternating[c] = c % 2 == 0 ? 1.0F : -1.0F;
  Floats tokens;
  for (const Floats& x : {up, down, alternating}) tokens.insert(tokens.end(), x.begin(), x.end());
  RandomMatrix W(type(), 33, cols, 13);
  for (const int codes : {0x00, 0x0F, 0x7F, 0x80, 0xF0, 0xFF}) {
    for (const int scales : {0x00, 0x7F, 0x80, 0xFF}) {
      SCOPED_TRACE(testing::Message() << "codes " << codes << ", scales " << scales);
      fillBlocks(W, codes, scales);
      expectPlain(W.view(), up);
      expectPlain(W.view(), down);
      expectPlain(W.view(), alternating);
      expectPlain(W.view(), tokens, 3);
    }
  }
}

TEST_P(IntegerProducts, NoRowsAndNoColumns) {
  const RandomMatrix W(type(), 3, block(), 14);
  float y[3] = {5, 5, 5};
  kernels().matvec[type()](W.view().data, nullptr, 0, block(), y);
  EXPECT_EQ(y[0], 5.0F);
  kernels().matvec[type()](W.view().data, nullptr, 3, 0, y);
  EXPECT_EQ(y[2], 0.0F);
}

INSTANTIATE_TEST_SUITE_P(Levels, IntegerProducts, testing::ValuesIn(everyIntegerCase()),
                         integerCaseName);

TEST(IntegerLevels, OtherEncodingsHaveNoProducts) {
  for (const IntegerLevel& level : integerLevels()) {
    for (const DType type : {DType::F32, DType::F16, DType::BF16, DType::Q4_0, DType::Q8_K,
                             DType::Q5_0, DType::Q5_1}) {
      EXPECT_EQ(level.kernels->matvec[type], nullptr) << kiv::dtypeName(type);
      EXPECT_EQ(level.kernels->matmul[type], nullptr) << kiv::dtypeName(type);
    }
  }
}

TEST(IntegerLevels, TheTableInUseBelongsToTheLevelInUse) {
  for (const CpuLevel level : cpuLevels()) {
    const ForcedCpuLevel forced(level);
    const auto known =
        std::ranges::find(integerLevels(), &integerKernels(), &IntegerLevel::kernels);
    ASSERT_NE(known, integerLevels().end());
    EXPECT_TRUE(known->isSupported());
    EXPECT_LE(known->cpuLevel, level);
    if (level != CpuLevel::Avx512) {
      EXPECT_EQ(known->cpuLevel, level);
    }
  }
}

// The plain loops against sums in double of the widened weights.
class IntegerReference : public testing::TestWithParam<DType> {
 protected:
  // Weights as the encoder makes them of a bell curve.
  RandomMatrix encoded(size_t rows, size_t cols) const {
    RandomMatrix W(GetParam(), rows, cols, 15);
    const Floats weights = randomVector(rows * cols, 16);
    kiv::encodeRow(GetParam(), weights.data(), weights.size(), W.bytes());
    return W;
  }
};

double productInDouble(const Floats& row, const Floats& x) {
  double sum = 0;
  for (size_t c = 0; c < x.size(); ++c) sum += static_cast<double>(row[c]) * x[c];
  return sum;
}

TEST_P(IntegerReference, TheErrorIsWithinItsBound) {
  const size_t cols = 2048;
  const RandomMatrix W(GetParam(), 64, cols, 17);
  const Floats x = randomVector(cols, 18);
  const auto rounded = plainRounded(x.data(), cols);
  const Floats got = plainIntegerProducts(W.view(), x);
  for (size_t r = 0; r < got.size(); ++r) {
    const Floats row = W.row(r);
    double bound = 0;
    for (size_t c = 0; c < cols; ++c) {
      const double step = rounded[c / kRoundedColumns].scale;
      bound += 0.502 * step * std::fabs(row[c]) + 0x1p-19 * std::fabs(row[c] * x[c]);
    }
    EXPECT_LE(std::fabs(got[r] - productInDouble(row, x)), bound) << r;
  }
}

TEST_P(IntegerReference, TheRelativeRmsErrorIsBelowTwoTenThousandths) {
  const size_t cols = 2560;
  const RandomMatrix W = encoded(400, cols);
  const Floats x = randomVector(cols, 19);
  const Floats got = plainIntegerProducts(W.view(), x);
  const Floats exact = plainSums(W, x);
  double error = 0;
  double size = 0;
  for (size_t r = 0; r < got.size(); ++r) {
    error += std::pow(static_cast<double>(got[r]) - exact[r], 2);
    size += std::pow(static_cast<double>(exact[r]), 2);
  }
  RecordProperty("relative_rms", std::to_string(std::sqrt(error / size)));
  EXPECT_LE(std::sqrt(error / size), 2e-4);
  EXPECT_GT(error, 0) << "a test of nothing";
}

INSTANTIATE_TEST_SUITE_P(Types, IntegerReference, testing::ValuesIn(kIntegerTypes),
                         [](const auto& type) { return kiv::dtypeName(type.param); });

}  // namespace
}  // namespace qwen35
