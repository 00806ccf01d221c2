// SPDX-License-Identifier: Apache-2.0
// A matrix times a vector against the plain loop over the widened row, bit for bit, at every
// level.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "kernels/kernel_table.h"
#include "runtime_qwen35/levels.h"
#include "runtime_qwen35/random_matrix.h"

namespace qwen35 {
namespace {

class MatvecAtEveryLevel : public AtEveryLevel<Case> {
 protected:
  Matvec kernel() const { return kernelTable(GetParam().level).matvec[type()]; }
  DType type() const { return GetParam().type; }
  size_t block() const { return kiv::dtypeBlockSize(type()); }

  Floats sums(const RandomMatrix& W, const Floats& x) const {
    Floats out(matrixRows(W.view()) + 1, -7.0F);
    kernel()(W.view().data, x.data(), out.size() - 1, x.size(), out.data());
    EXPECT_EQ(out.back(), -7.0F) << "wrote beyond the last row";
    out.pop_back();
    return out;
  }

  void expectPlainSums(const RandomMatrix& W, const Floats& x) const {
    EXPECT_TRUE(sameBits(sums(W, x), plainSums(W, x)));
  }
};

TEST_P(MatvecAtEveryLevel, RowsAroundEveryNumberOfLanes) {
  const size_t cols = 2 * std::max<size_t>(block(), 32);
  const Floats x = randomVector(cols, 1);
  for (const size_t rows :
       {1, 2, 3, 4, 5, 7, 8, 9, 12, 15, 16, 17, 31, 32, 33, 48, 63, 64, 65, 97}) {
    SCOPED_TRACE(rows);
    expectPlainSums(RandomMatrix(type(), rows, cols, static_cast<uint32_t>(rows)), x);
  }
}

TEST_P(MatvecAtEveryLevel, ColumnsOfEveryNumberOfBlocks) {
  for (size_t blocks = 1; blocks <= 9; ++blocks) {
    SCOPED_TRACE(blocks);
    const size_t cols = blocks * block();
    expectPlainSums(RandomMatrix(type(), 19, cols, 2), randomVector(cols, 3));
  }
}

TEST_P(MatvecAtEveryLevel, LongRows) {
  const size_t cols = 2560;
  expectPlainSums(RandomMatrix(type(), 37, cols, 4), randomVector(cols, 5));
}

TEST_P(MatvecAtEveryLevel, RandomShapes) {
  std::mt19937 rng(6);
  for (uint32_t round = 0; round < 40; ++round) {
    const size_t rows = 1 + rng() % 80;
    const size_t cols = block() * (1 + rng() % (block() == 1 ? 200 : 11));
    SCOPED_TRACE(testing::Message() << rows << " x " << cols);
    expectPlainSums(RandomMatrix(type(), rows, cols, round), randomVector(cols, round));
  }
}

TEST_P(MatvecAtEveryLevel, WeightsAtAnyAddress) {
  const size_t cols = 3 * block();
  const Floats x = randomVector(cols, 7);
  for (size_t misalignment = 1; misalignment < 17; ++misalignment) {
    SCOPED_TRACE(misalignment);
    expectPlainSums(RandomMatrix(type(), 21, cols, 8, Scales::Small, misalignment), x);
  }
}

// Random exponents: infinities, NaNs, subnormal scales, and sums of one block
// that are far larger than those of the next.
TEST_P(MatvecAtEveryLevel, AnyBytesAtAll) {
  for (uint32_t round = 0; round < 20; ++round) {
    const size_t cols = 3 * std::max<size_t>(block(), 32);
    expectPlainSums(RandomMatrix(type(), 40, cols, round, Scales::Any), randomVector(cols, round));
  }
}

TEST_P(MatvecAtEveryLevel, AnyNumbersInTheVector) {
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

TEST_P(MatvecAtEveryLevel, NoColumnsGiveZeros) {
  Floats out(5, 3.0F);
  kernel()(nullptr, nullptr, 5, 0, out.data());
  EXPECT_TRUE(sameBits(out, Floats(5, 0.0F)));
}

TEST_P(MatvecAtEveryLevel, NoRowsWriteNothing) {
  float out = 3;
  kernel()(nullptr, nullptr, 0, 256, &out);
  EXPECT_EQ(out, 3.0F);
}

INSTANTIATE_TEST_SUITE_P(Levels, MatvecAtEveryLevel, testing::ValuesIn(everyCase()), caseName);

class ScalesAtEveryLevel : public AtEveryLevel<CpuLevel> {};

// Every half-precision number as a scale, all 65,536 of them.
TEST_P(ScalesAtEveryLevel, EveryHalfPrecisionScale) {
  const Matvec kernel = kernelTable(GetParam()).matvec[DType::Q8_0];
  const size_t rows = 256;
  for (uint32_t upper = 0; upper < 256; ++upper) {
    RandomMatrix W(DType::Q8_0, rows, 32, upper, Scales::Any);
    for (uint32_t r = 0; r < rows; ++r) {
      const auto half = static_cast<uint16_t>(upper << 8 | r);
      std::memcpy(W.bytes() + 34 * r, &half, 2);
    }
    const Floats x = randomVector(32, upper);
    Floats got(rows);
    kernel(W.view().data, x.data(), rows, 32, got.data());
    ASSERT_TRUE(sameBits(got, plainSums(W, x))) << upper;
  }
}

// The numbers of docs/kernels.md.
TEST_P(ScalesAtEveryLevel, WorkedExample) {
  std::vector<uint8_t> block(144);
  const uint16_t d = 0x3400;     // 0.25
  const uint16_t dmin = 0x3000;  // 0.125
  std::memcpy(block.data(), &d, 2);
  std::memcpy(block.data() + 2, &dmin, 2);
  for (size_t j = 0; j < 4; ++j) {
    block[4 + j] = 5;
    block[8 + j] = 3;
    block[12 + j] = 5 | 3 << 4;
  }
  block[16] = 0x2B;
  block[17] = 0x70;
  Floats x(256);
  Floats sums;
  for (const auto& [column, value] : {std::pair{0, 2.0F}, {1, 1.0F}, {32, 4.0F}, {33, -2.0F}}) {
    x[static_cast<size_t>(column)] = value;
    float sum = 0;
    kernelTable(GetParam()).matvec[DType::Q4_K](block.data(), x.data(), 1, 256, &sum);
    sums.push_back(sum);
  }
  EXPECT_EQ(sums, (Floats{26.75F, 26.375F, 34.875F, 18.125F}));
}

// Every pair of six-bit scale and minimum in every sub-block, every code.
TEST_P(ScalesAtEveryLevel, EverySixBitScaleAndMinimum) {
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
    kernelTable(GetParam()).matvec[DType::Q4_K](W.view().data, x.data(), rows, 256, got.data());
    ASSERT_TRUE(sameBits(got, plainSums(W, x))) << scale;
  }
}

// One infinite scale among finite ones: the other rows of its lanes, and the
// blocks around it, keep their bits.
TEST_P(ScalesAtEveryLevel, AnInfiniteScaleStaysInItsRow) {
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
      kernelTable(GetParam()).matvec[type](W.view().data, x.data(), 35, cols, got.data());
      const Floats want = plainSums(W, x);
      EXPECT_TRUE(sameBits(got, want)) << kiv::dtypeName(type) << " " << half;
      EXPECT_FALSE(std::isfinite(want[3]));
      EXPECT_EQ(std::count_if(want.begin(), want.end(), [](float v) { return !std::isfinite(v); }),
                2);
    }
  }
}

// With codes of one sign nothing cancels: the sum is an infinity and not NaN.
TEST_P(ScalesAtEveryLevel, AnInfiniteScaleGivesAnInfiniteSum) {
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
      kernelTable(GetParam()).matvec[type](W.view().data, x.data(), 20, 256, got.data());
      EXPECT_TRUE(sameBits(got, plainSums(W, x))) << kiv::dtypeName(type);
      EXPECT_EQ(got[7], half == 0x7C00 ? inf : -inf) << kiv::dtypeName(type);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, ScalesAtEveryLevel, testing::ValuesIn(kEveryLevel), levelName);

// A processor has every level's table, whether or not it can run it.
TEST(KernelTables, HaveNoProductsForTypesThatAreNotComputed) {
  for (const DType type : {DType::F16, DType::Q4_0, DType::Q8_K, DType::Q5_0, DType::Q5_1,
                           static_cast<DType>(11), static_cast<DType>(0xFFFF)}) {
    for (const CpuLevel level : kEveryLevel) {
      EXPECT_EQ(kernelTable(level).matvec[type], nullptr);
      EXPECT_EQ(kernelTable(level).matmul[type], nullptr);
    }
  }
}

TEST(KernelTables, HaveAProductForEveryTypeThatIsComputed) {
  for (const DType type : kTypes) {
    for (const CpuLevel level : kEveryLevel) {
      EXPECT_NE(kernelTable(level).matvec[type], nullptr);
      EXPECT_NE(kernelTable(level).matmul[type], nullptr);
    }
  }
}

TEST(KernelTables, AreOneForEachLevel) {
  EXPECT_NE(&kernelTable(CpuLevel::Avx512), &kernelTable(CpuLevel::Avx2));
  EXPECT_NE(&kernelTable(CpuLevel::Avx2), &kernelTable(CpuLevel::Baseline));
  EXPECT_NE(&kernelTable(CpuLevel::Avx512), &kernelTable(CpuLevel::Baseline));
}

}  // namespace
}  // namespace qwen35
