// Every instruction set that this machine has against the plain loop over the
// widened row, bit for bit.
#include "kernels/row_dots.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "matmul/product.h"
#include "qwen35_cpu.h"
#include "runtime_qwen35/open_model.h"
#include "runtime_qwen35/random_matrix.h"

namespace qwen35 {
namespace {

class EveryLevelAndType : public testing::TestWithParam<Case> {
 protected:
  RowDots dotRows() const { return rowDotsOf(rowDotsTable(GetParam().level), GetParam().type); }
  DType type() const { return GetParam().type; }
  size_t block() const { return kiv::dtypeBlockSize(type()); }

  Floats sums(const RandomMatrix& W, const Floats& x) const {
    Floats out(matrixRows(W.view()) + 1, -7.0F);
    dotRows()(W.view().data, x.data(), out.size() - 1, x.size(), out.data());
    EXPECT_EQ(out.back(), -7.0F) << "wrote beyond the last row";
    out.pop_back();
    return out;
  }

  void expectPlainSums(const RandomMatrix& W, const Floats& x) const {
    EXPECT_TRUE(sameBits(sums(W, x), plainSums(W, x)));
  }
};

TEST_P(EveryLevelAndType, RowsAroundEveryNumberOfLanes) {
  const size_t cols = 2 * std::max<size_t>(block(), 32);
  const Floats x = randomVector(cols, 1);
  for (const size_t rows :
       {1, 2, 3, 4, 5, 7, 8, 9, 12, 15, 16, 17, 31, 32, 33, 48, 63, 64, 65, 97}) {
    SCOPED_TRACE(rows);
    expectPlainSums(RandomMatrix(type(), rows, cols, static_cast<uint32_t>(rows)), x);
  }
}

TEST_P(EveryLevelAndType, ColumnsOfEveryNumberOfBlocks) {
  for (size_t blocks = 1; blocks <= 9; ++blocks) {
    SCOPED_TRACE(blocks);
    const size_t cols = blocks * block();
    expectPlainSums(RandomMatrix(type(), 19, cols, 2), randomVector(cols, 3));
  }
}

TEST_P(EveryLevelAndType, LongRows) {
  const size_t cols = 2560;
  expectPlainSums(RandomMatrix(type(), 37, cols, 4), randomVector(cols, 5));
}

TEST_P(EveryLevelAndType, RandomShapes) {
  std::mt19937 rng(6);
  for (uint32_t round = 0; round < 40; ++round) {
    const size_t rows = 1 + rng() % 80;
    const size_t cols = block() * (1 + rng() % (block() == 1 ? 200 : 11));
    SCOPED_TRACE(testing::Message() << rows << " x " << cols);
    expectPlainSums(RandomMatrix(type(), rows, cols, round), randomVector(cols, round));
  }
}

TEST_P(EveryLevelAndType, WeightsAtAnyAddress) {
  const size_t cols = 3 * block();
  const Floats x = randomVector(cols, 7);
  for (size_t misalignment = 1; misalignment < 17; ++misalignment) {
    SCOPED_TRACE(misalignment);
    expectPlainSums(RandomMatrix(type(), 21, cols, 8, Scales::Small, misalignment), x);
  }
}

// Random exponents: infinities, NaNs, subnormal scales, and sums of one block
// that are far larger than those of the next.
TEST_P(EveryLevelAndType, AnyBytesAtAll) {
  for (uint32_t round = 0; round < 20; ++round) {
    const size_t cols = 3 * std::max<size_t>(block(), 32);
    expectPlainSums(RandomMatrix(type(), 40, cols, round, Scales::Any), randomVector(cols, round));
  }
}

TEST_P(EveryLevelAndType, AnyNumbersInTheVector) {
  const size_t cols = std::max<size_t>(block(), 64);
  const float inf = std::numeric_limits<float>::infinity();
  for (const float special :
       {inf, -inf, std::numeric_limits<float>::quiet_NaN(), -0.0F, 0.0F,
        std::numeric_limits<float>::denorm_min(), std::numeric_limits<float>::max()}) {
    SCOPED_TRACE(special);
    Floats x = randomVector(cols, 9);
    x[cols / 3] = special;
    expectPlainSums(RandomMatrix(type(), 33, cols, 10), x);
  }
}

TEST_P(EveryLevelAndType, NoColumnsGiveZeros) {
  Floats out(5, 3.0F);
  dotRows()(nullptr, nullptr, 5, 0, out.data());
  EXPECT_TRUE(sameBits(out, Floats(5, 0.0F)));
}

TEST_P(EveryLevelAndType, NoRowsWriteNothing) {
  float out = 3;
  dotRows()(nullptr, nullptr, 0, 256, &out);
  EXPECT_EQ(out, 3.0F);
}

TEST_P(EveryLevelAndType, ProductsAddToYForAnyNumberOfThreads) {
  const ForcedCpuLevel level(GetParam().level);
  const size_t rows = 259;  // enough weights for a team, and odd
  const RandomMatrix W(type(), rows, 256, 11);
  const Floats x = randomVector(256, 12);
  const Floats before = randomVector(rows, 13);
  Floats want = plainSums(W, x);
  for (size_t r = 0; r < rows; ++r) want[r] = before[r] + want[r];
  for (const int threads : {1, 2, 5}) {
    const ThreadCount guard(threads);
    Model m;
    Floats y = before;
    gemvRow(m, &W.view(), x.data(), y.data());
    EXPECT_TRUE(sameBits(y, want)) << threads;
  }
}

TEST_P(EveryLevelAndType, TheHeadOverwrites) {
  const ForcedCpuLevel level(GetParam().level);
  const RandomMatrix W(type(), 300, 256, 14);
  const Floats x = randomVector(256, 15);
  for (const int threads : {1, 2, 5}) {
    const ThreadCount guard(threads);
    Model m;
    m.emb = &W.view();
    m.nEmb = 256;
    m.nVocab = 300;
    Floats logits(300, 9.0F);
    headProduct(m, x.data(), logits.data());
    EXPECT_TRUE(sameBits(logits, plainSums(W, x))) << threads;
  }
}

INSTANTIATE_TEST_SUITE_P(RowDots, EveryLevelAndType, testing::ValuesIn(everyCase()), caseName);

class EveryLevel : public testing::TestWithParam<CpuLevel> {};

// Every half-precision number as a scale, all 65,536 of them.
TEST_P(EveryLevel, EveryHalfPrecisionScale) {
  const RowDots dotRows = rowDotsTable(GetParam()).q80;
  const size_t rows = 256;
  for (uint32_t upper = 0; upper < 256; ++upper) {
    RandomMatrix W(DType::Q8_0, rows, 32, upper, Scales::Any);
    for (uint32_t r = 0; r < rows; ++r) {
      const auto half = static_cast<uint16_t>(upper << 8 | r);
      std::memcpy(W.bytes() + 34 * r, &half, 2);
    }
    const Floats x = randomVector(32, upper);
    Floats got(rows);
    dotRows(W.view().data, x.data(), rows, 32, got.data());
    ASSERT_TRUE(sameBits(got, plainSums(W, x))) << upper;
  }
}

// Every pair of six-bit scale and minimum in every sub-block, every code.
TEST_P(EveryLevel, EverySixBitScaleAndMinimum) {
  const size_t rows = 64;
  for (uint32_t scale = 0; scale < 64; ++scale) {
    RandomMatrix W(DType::Q4_K, rows, 256, scale);
    for (uint32_t min = 0; min < rows; ++min) {
      uint8_t* block = W.bytes() + 144 * min;
      for (size_t j = 0; j < 4; ++j) {
        block[4 + j] = static_cast<uint8_t>(scale | (scale >> 4) << 6);
        block[8 + j] = static_cast<uint8_t>(min | (min >> 4) << 6);
        block[12 + j] = static_cast<uint8_t>((scale & 15) | (min & 15) << 4);
      }
      for (size_t i = 0; i < 128; ++i) block[16 + i] = static_cast<uint8_t>(i * 37 + scale);
    }
    const Floats x = randomVector(256, scale);
    Floats got(rows);
    rowDotsTable(GetParam()).q4k(W.view().data, x.data(), rows, 256, got.data());
    ASSERT_TRUE(sameBits(got, plainSums(W, x))) << scale;
  }
}

// One infinite scale among finite ones: the other rows of its lanes, and the
// blocks around it, keep their bits.
TEST_P(EveryLevel, AnInfiniteScaleStaysInItsRow) {
  for (const auto& [type, offset] : {std::pair{DType::Q6_K, size_t{208}},
                                     {DType::Q8_0, 0},
                                     {DType::Q4_K, 0},
                                     {DType::Q5_K, 2}}) {
    for (const uint16_t half : std::initializer_list<uint16_t>{0x7C00, 0xFC00, 0x7E01}) {
      const size_t cols = 1024;
      RandomMatrix W(type, 35, cols, 16);
      const size_t stride = kiv::dtypeBytes(type, cols);
      const size_t block = kiv::dtypeBytes(type, kiv::dtypeBlockSize(type));
      for (const size_t row : {3, 34}) {
        std::memcpy(W.bytes() + row * stride + block + offset, &half, 2);
      }
      const Floats x = randomVector(cols, 17);
      Floats got(35);
      rowDotsOf(rowDotsTable(GetParam()), type)(W.view().data, x.data(), 35, cols, got.data());
      const Floats want = plainSums(W, x);
      EXPECT_TRUE(sameBits(got, want)) << kiv::dtypeName(type) << " " << half;
      EXPECT_FALSE(std::isfinite(want[3]));
      EXPECT_EQ(std::count_if(want.begin(), want.end(), [](float v) { return !std::isfinite(v); }),
                2);
    }
  }
}

// With codes of one sign nothing cancels: the sum is an infinity and not NaN.
TEST_P(EveryLevel, AnInfiniteScaleGivesAnInfiniteSum) {
  const float inf = std::numeric_limits<float>::infinity();
  for (const auto& [type, offset] : {std::pair{DType::Q6_K, size_t{208}},
                                     {DType::Q8_0, 0},
                                     {DType::Q4_K, 0},
                                     {DType::Q5_K, 0}}) {
    for (const uint16_t half : std::initializer_list<uint16_t>{0x7C00, 0xFC00}) {
      RandomMatrix W(type, 20, 256, 20);
      const size_t stride = kiv::dtypeBytes(type, 256);
      const size_t block = kiv::dtypeBytes(type, kiv::dtypeBlockSize(type));
      std::memset(W.bytes(), 0x55, W.view().size);  // every field positive, no scale zero
      if (type == DType::Q6_K) {
        for (size_t r = 0; r < 20; ++r) std::memset(W.bytes() + r * stride + 128, 0xFF, 64);
      }
      std::memcpy(W.bytes() + 7 * stride + stride - block + offset, &half, 2);
      const Floats x(256, 0.25F);
      Floats got(20);
      rowDotsOf(rowDotsTable(GetParam()), type)(W.view().data, x.data(), 20, 256, got.data());
      EXPECT_TRUE(sameBits(got, plainSums(W, x))) << kiv::dtypeName(type);
      EXPECT_EQ(got[7], half == 0x7C00 ? inf : -inf) << kiv::dtypeName(type);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(RowDots, EveryLevel,
                         testing::ValuesIn(cpuLevels().begin(), cpuLevels().end()),
                         [](const auto& level) { return cpuLevelName(level.param); });

// Rows that end within a block overlap in the file; their products stay what
// they are for whole blocks, sums over the widened row.
TEST(RowsThatEndWithinABlock, AreSummedOverTheWidenedRow) {
  const size_t cols = 300;
  RandomMatrix W(DType::Q4_K, 7, 512, 18);
  TensorView view = W.view();
  view.shape = {cols, 7, 0, 0};
  const Floats x = randomVector(cols, 19);
  Model m;
  Floats y(7);
  gemvRow(m, &view, x.data(), y.data());
  for (size_t r = 0; r < 7; ++r) {
    Floats row(cols);
    rowToF32(&view, r, cols, row.data());
    EXPECT_EQ(y[r], reference::dotF32(row.data(), x.data(), cols));
  }
}

TEST(RowDotsOf, HasNothingForTypesThatAreNotComputed) {
  for (const DType type : {DType::F16, DType::Q4_0, DType::Q8_K, DType::Q5_0, DType::Q5_1}) {
    for (const CpuLevel level : cpuLevels()) {
      EXPECT_EQ(rowDotsOf(rowDotsTable(level), type), nullptr);
    }
  }
}

}  // namespace
}  // namespace qwen35
