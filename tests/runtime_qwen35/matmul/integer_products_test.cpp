// SPDX-License-Identifier: Apache-2.0
// Integer products on the team.
#include "matmul/integer_products.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "runtime_qwen35/integer_levels.h"
#include "runtime_qwen35/open_model.h"

namespace qwen35 {
namespace {

class IntegerProductsOnATeam : public IntegersAtEveryLevel {};

INSTANTIATE_TEST_SUITE_P(Levels, IntegerProductsOnATeam, testing::ValuesIn(everyIntegerCase()),
                         integerCaseName);

TEST_P(IntegerProductsOnATeam, AnyNumberOfThreadsGivesThePlainLoops) {
  const size_t rows = 259;  // enough weights for a team, and odd
  const size_t cols = 512;
  const RandomMatrix W(type(), rows, cols, 1);
  for (const size_t tokens : {1, 2, 13}) {
    const Floats x = randomVector(tokens * cols, 2);
    const Floats want = plainIntegerProducts(W.view(), x, tokens);
    for (const int threads : {1, 2, 5}) {
      const ThreadCount guard(threads);
      const RoundedActivations X(x.data(), cols, tokens, cols, kernels());
      Floats y(tokens * rows, 5.0F);
      integerMatmul(W.view(), X, y.data());
      EXPECT_TRUE(sameBits(y, want)) << tokens << " tokens, " << threads << " threads";
    }
  }
}

// Enough columns that the team shares the rounding, and a last block that is not whole.
TEST_P(IntegerProductsOnATeam, TheTeamSharesTheRoundingOfLongVectors) {
  const size_t cols = type() == DType::Q8_0 ? 4096 + 64 : 4096 + 256;
  const RandomMatrix W(type(), 3, cols, 3);
  for (const size_t tokens : {1, 3}) {
    const size_t stride = cols + 7;
    const Floats spread = randomVector(tokens * stride, 4);
    Floats x;
    for (size_t t = 0; t < tokens; ++t) {
      x.insert(x.end(), spread.begin() + static_cast<ptrdiff_t>(t * stride),
               spread.begin() + static_cast<ptrdiff_t>(t * stride + cols));
    }
    const ThreadCount guard(3);
    const RoundedActivations X(spread.data(), stride, tokens, cols, kernels());
    Floats y(tokens * 3);
    integerMatmul(W.view(), X, y.data());
    EXPECT_TRUE(sameBits(y, plainIntegerProducts(W.view(), x, tokens))) << tokens;
  }
}

TEST_P(IntegerProductsOnATeam, ATokenHasTheSameBitsInEveryBatch) {
  const size_t cols = 768;
  const size_t rows = 70;
  const RandomMatrix W(type(), rows, cols, 5);
  const Floats x = randomVector(30 * cols, 6);
  const RoundedActivations all(x.data(), cols, 30, cols, kernels());
  Floats together(30 * rows);
  integerMatmul(W.view(), all, together.data());
  for (size_t t = 0; t < 30; ++t) {
    const RoundedActivations alone(x.data() + t * cols, cols, 1, cols, kernels());
    Floats y(rows);
    integerMatmul(W.view(), alone, y.data());
    const auto at = together.begin() + static_cast<ptrdiff_t>(t * rows);
    EXPECT_TRUE(sameBits(y, Floats(at, at + static_cast<ptrdiff_t>(rows)))) << t;
  }
}

TEST(IntegerMatmul, OneRoundingServesMatricesOfEveryType) {
  const size_t cols = 1024;
  const Floats x = randomVector(5 * cols, 7);
  const RoundedActivations X(x.data(), cols, 5, cols);
  for (const DType type : kIntegerTypes) {
    const RandomMatrix W(type, 40, cols, 8);
    Floats y(5 * 40);
    integerMatmul(W.view(), X, y.data());
    EXPECT_TRUE(sameBits(y, plainIntegerProducts(W.view(), x, 5))) << kiv::dtypeName(type);
  }
}

TEST(HasIntegerProducts, KTypesAndQ80Have) {
  for (const DType type : kIntegerTypes) {
    EXPECT_TRUE(hasIntegerProducts(RandomMatrix(type, 2, 512, 9).view())) << kiv::dtypeName(type);
  }
}

TEST(HasIntegerProducts, OtherTypesTakeTheExactPath) {
  TensorView W = RandomMatrix(DType::F32, 2, 256, 10).view();
  for (const DType type :
       {DType::F32, DType::F16, DType::BF16, DType::Q4_0, DType::Q8_K, DType::Q5_0, DType::Q5_1}) {
    W.dtype = type;
    EXPECT_FALSE(hasIntegerProducts(W)) << kiv::dtypeName(type);
  }
}

TEST(HasIntegerProducts, RowsThatShareABlockTakeTheExactPath) {
  TensorView W = RandomMatrix(DType::Q4_K, 2, 512, 11).view();
  W.shape[0] = 300;
  EXPECT_FALSE(hasIntegerProducts(W));
  TensorView Q8 = RandomMatrix(DType::Q8_0, 2, 64, 12).view();
  Q8.shape[0] = 40;
  EXPECT_FALSE(hasIntegerProducts(Q8));
}

TEST(IntegerMatmul, NoTokensWriteNothing) {
  const RandomMatrix W(DType::Q4_K, 4, 256, 13);
  const RoundedActivations X(nullptr, 256, 0, 256);
  float y = 5;
  integerMatmul(W.view(), X, &y);
  EXPECT_EQ(y, 5.0F);
}

}  // namespace
}  // namespace qwen35
