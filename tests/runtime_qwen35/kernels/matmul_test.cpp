// SPDX-License-Identifier: Apache-2.0
// A matrix times many tokens against the plain loop over the widened row for each of them, bit for
// bit, at every level.
#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <limits>
#include <random>
#include <vector>

#include "kernels/kernel_table.h"
#include "kernels/packing.h"
#include "runtime_qwen35/levels.h"
#include "runtime_qwen35/random_matrix.h"

namespace qwen35 {
namespace {

Floats packed(const Floats& x, size_t tokens, size_t groupTokens) {
  Floats out(x.size());
  const size_t cols = x.size() / tokens;
  packTokens(x.data(), cols, tokens, cols, groupTokens, 0, cols, out.data());
  return out;
}

// One token's plain sums after the other.
Floats plainSumsOfTokens(const RandomMatrix& W, const Floats& x, size_t tokens) {
  const size_t cols = x.size() / tokens;
  Floats all;
  for (size_t t = 0; t < tokens; ++t) {
    const auto begin = x.begin() + static_cast<ptrdiff_t>(t * cols);
    const Floats sums = plainSums(W, Floats(begin, begin + static_cast<ptrdiff_t>(cols)));
    all.insert(all.end(), sums.begin(), sums.end());
  }
  return all;
}

class MatmulAtEveryLevel : public AtEveryLevel<Case> {
 protected:
  const KernelTable& table() const { return kernelTable(GetParam().level); }
  DType type() const { return GetParam().type; }
  size_t block() const { return kiv::dtypeBlockSize(type()); }

  void expectPlainSums(const RandomMatrix& W, const Floats& x, size_t tokens) const {
    const size_t rows = matrixRows(W.view());
    const size_t cols = x.size() / tokens;
    const Floats in = packed(x, tokens, table().groupTokens);
    Floats out(tokens * rows + 1, -7.0F);
    table().matmul[type()](W.view().data, in.data(), tokens, rows, cols, out.data(), rows);
    EXPECT_EQ(out.back(), -7.0F) << "wrote beyond the last row";
    out.pop_back();
    EXPECT_TRUE(sameBits(out, plainSumsOfTokens(W, x, tokens)));
  }
};

TEST_P(MatmulAtEveryLevel, AnyNumberOfTokens) {
  const size_t cols = 2 * std::max<size_t>(block(), 80);
  const RandomMatrix W(type(), 37, cols / block() * block(), 1);
  const size_t wholeCols = W.view().shape[0];
  for (const size_t tokens : {1, 2, 3, 5, 6, 7, 8, 9, 12, 15, 16, 17, 24, 47, 48, 49, 97}) {
    SCOPED_TRACE(tokens);
    expectPlainSums(W, randomVector(tokens * wholeCols, static_cast<uint32_t>(tokens)), tokens);
  }
}

TEST_P(MatmulAtEveryLevel, RowsAroundEveryNumberOfLanes) {
  const size_t cols = std::max<size_t>(block(), 32);
  const Floats x = randomVector(9 * cols, 2);
  for (const size_t rows : {1, 2, 7, 8, 9, 15, 16, 17, 31, 32, 33, 63, 64, 65, 97}) {
    SCOPED_TRACE(rows);
    expectPlainSums(RandomMatrix(type(), rows, cols, static_cast<uint32_t>(rows)), x, 9);
  }
}

// Of whole panels, of parts of one, and of plain numbers that fill neither a
// panel nor a vector.
TEST_P(MatmulAtEveryLevel, ColumnsOfEveryNumberOfBlocks) {
  std::vector<size_t> counts = {1, 2, 3, 4, 5, 7, 8, 9, 11, 12};
  if (block() == 1) counts = {1, 2, 15, 16, 17, 31, 32, 33, 100, 127, 128, 129, 160, 255, 256, 300};
  for (const size_t blocks : counts) {
    SCOPED_TRACE(blocks);
    const size_t cols = blocks * block();
    expectPlainSums(RandomMatrix(type(), 19, cols, 3), randomVector(10 * cols, 4), 10);
  }
}

TEST_P(MatmulAtEveryLevel, RandomShapes) {
  std::mt19937 rng(5);
  for (uint32_t round = 0; round < 20; ++round) {
    const size_t rows = 1 + rng() % 80;
    const size_t cols = block() * (1 + rng() % (block() == 1 ? 400 : 11));
    const size_t tokens = 1 + rng() % 60;
    SCOPED_TRACE(testing::Message() << rows << " x " << cols << ", " << tokens << " tokens");
    expectPlainSums(RandomMatrix(type(), rows, cols, round), randomVector(tokens * cols, round),
                    tokens);
  }
}

TEST_P(MatmulAtEveryLevel, WeightsAtAnyAddress) {
  const size_t cols = 3 * block();
  const Floats x = randomVector(7 * cols, 6);
  for (size_t misalignment = 1; misalignment < 17; misalignment += 3) {
    SCOPED_TRACE(misalignment);
    expectPlainSums(RandomMatrix(type(), 21, cols, 7, Scales::Small, misalignment), x, 7);
  }
}

// Infinities, NaNs, subnormal scales.
TEST_P(MatmulAtEveryLevel, AnyBytesAtAll) {
  for (uint32_t round = 0; round < 10; ++round) {
    const size_t cols = 5 * std::max<size_t>(block(), 32);
    expectPlainSums(RandomMatrix(type(), 40, cols, round, Scales::Any),
                    randomVector(11 * cols, round), 11);
  }
}

TEST_P(MatmulAtEveryLevel, ASpecialNumberStaysInItsToken) {
  const size_t cols = std::max<size_t>(block(), 64);
  const float inf = std::numeric_limits<float>::infinity();
  for (const float special : {inf, std::numeric_limits<float>::quiet_NaN(), -0.0F,
                              std::numeric_limits<float>::denorm_min()}) {
    SCOPED_TRACE(special);
    Floats x = randomVector(8 * cols, 8);
    x[3 * cols + cols / 3] = special;
    expectPlainSums(RandomMatrix(type(), 33, cols, 9), x, 8);
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, MatmulAtEveryLevel, testing::ValuesIn(everyCase()), caseName);

class ColumnsAtEveryLevel : public AtEveryLevel<CpuLevel> {};

TEST_P(ColumnsAtEveryLevel, FloatsSideBySideAreAddedInOrder) {
  const KernelTable& table = kernelTable(GetParam());
  const size_t rows = 3 * table.tileRows;
  const size_t stride = rows + 5;
  for (size_t tokens = 1; tokens <= table.groupTokens; ++tokens) {
    for (const size_t count : {0, 1, 2, 31, 32, 33, 200}) {
      const Floats columns = randomVector(count * stride + rows, 12);
      const Floats x = randomVector(count * tokens, 13);
      Floats sums = randomVector(tokens * (rows + 2), 14);
      Floats want = sums;
      for (size_t t = 0; t < tokens; ++t) {
        for (size_t r = 0; r < rows; ++r) {
          for (size_t c = 0; c < count; ++c) {
            want[t * (rows + 2) + r] += columns[c * stride + r] * x[c * tokens + t];
          }
        }
      }
      table.addColumns(columns.data(), stride, x.data(), tokens, count, rows, sums.data(),
                       rows + 2);
      EXPECT_TRUE(sameBits(sums, want)) << tokens << " tokens, " << count << " columns";
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, ColumnsAtEveryLevel, testing::ValuesIn(kEveryLevel), levelName);

TEST(PackTokens, PutsTheTokensOfAGroupSideBySide) {
  // Three tokens of two columns, in groups of two: 0 1 | 10 11 | 20 21.
  const Floats x = {0, 1, -1, 10, 11, -1, 20, 21, -1};
  Floats out(6);
  packTokens(x.data(), 3, 3, 2, 2, 0, 2, out.data());
  EXPECT_EQ(out, (Floats{0, 10, 1, 11, 20, 21}));
}

TEST(PackTokens, PartsOfTheColumnsMakeTheWhole) {
  const Floats x = randomVector(7 * 50, 15);
  Floats parts(x.size());
  packTokens(x.data(), 50, 7, 50, 6, 0, 20, parts.data());
  packTokens(x.data(), 50, 7, 50, 6, 20, 20, parts.data());
  packTokens(x.data(), 50, 7, 50, 6, 20, 50, parts.data());
  EXPECT_EQ(parts, packed(x, 7, 6));
}

}  // namespace
}  // namespace qwen35
