// SPDX-License-Identifier: Apache-2.0
// Products on the team and their way to the GPU.
#include "matmul/matmul.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "kernels/reference.h"
#include "runtime_qwen35/levels.h"
#include "runtime_qwen35/open_model.h"
#include "runtime_qwen35/random_matrix.h"

namespace qwen35 {
namespace {

class ProductsAtEveryLevel : public AtEveryLevel<Case> {};

INSTANTIATE_TEST_SUITE_P(Levels, ProductsAtEveryLevel, testing::ValuesIn(everyCase()), caseName);

TEST_P(ProductsAtEveryLevel, OneTokenOverwritesForAnyNumberOfThreads) {
  const size_t rows = 259;  // enough weights for a team, and odd
  const RandomMatrix W(GetParam().type, rows, 256, 11);
  const Floats x = randomVector(256, 12);
  const Floats want = plainSums(W, x);
  for (const int threads : {1, 2, 5}) {
    const ThreadCount guard(threads);
    Floats y = randomVector(rows, 13);
    matvec({}, W.view(), x.data(), y);
    EXPECT_TRUE(sameBits(y, want)) << threads;
  }
}

TEST_P(ProductsAtEveryLevel, FirstRowsAloneLeaveTheRestAlone) {
  const RandomMatrix W(GetParam().type, 200, 256, 14);
  const Floats x = randomVector(256, 15);
  const Floats want = plainSums(W, x);
  Floats y(200, 9.0F);
  matvec({}, W.view(), x.data(), {y.data(), 131});
  EXPECT_TRUE(std::equal(y.begin(), y.begin() + 131, want.begin()));
  EXPECT_TRUE(std::all_of(y.begin() + 131, y.end(), [](float v) { return v == 9.0F; }));
}

TEST_P(ProductsAtEveryLevel, ManyTokensAreOneByOneForAnyNumberOfThreads) {
  const size_t rows = 259;
  const size_t tokens = 13;
  const size_t stride = 300;  // of the tokens, farther apart than they are long
  const RandomMatrix W(GetParam().type, rows, 256, 10);
  const Floats x = randomVector(tokens * stride, 11);
  Floats want(tokens * rows);
  for (size_t t = 0; t < tokens; ++t) {
    matvec({}, W.view(), x.data() + t * stride, {want.data() + t * rows, rows});
  }
  for (const int threads : {1, 2, 5}) {
    const ThreadCount guard(threads);
    Floats y(tokens * rows, 5.0F);
    matmul({}, W.view(), PackedTokens(x.data(), stride, tokens, 256), y.data());
    EXPECT_TRUE(sameBits(y, want)) << threads;
  }
}

// Rows that end within a block share it with the next row. Their products are the sums over the
// widened row.
TEST(Matvec, RowsThatShareABlockAreComputedToo) {
  const size_t cols = 300;
  const RandomMatrix W(DType::Q4_K, 7, 512, 18);
  TensorView view = W.view();
  view.shape = {cols, 7, 0, 0};
  const Floats x = randomVector(cols, 19);
  Floats y(7, 5.0F);
  matvec({}, view, x.data(), y);
  for (size_t r = 0; r < 7; ++r) {
    Floats row(cols);
    rowToF32(&view, r, cols, row.data());
    EXPECT_EQ(y[r], reference::dotF32(row.data(), x.data(), cols));
  }
}

TEST(Matvec, TypesThatAreNotComputedGiveZeros) {
  const RandomMatrix bytes(DType::F32, 4, 64, 20);
  TensorView W = bytes.view();
  for (const DType type : {DType::F16, DType::Q4_0, DType::Q8_K, DType::Q5_0, DType::Q5_1}) {
    W.dtype = type;
    Floats y(4, 5.0F);
    matvec({}, W, Floats(64, 1.0F).data(), y);
    EXPECT_EQ(y, Floats(4, 0.0F)) << kiv::dtypeName(type);
  }
}

// Rows that end within a block have no fast way, and go token by token.
TEST(Matmul, RowsThatShareABlockAreComputedToo) {
  const RandomMatrix W(DType::Q8_0, 9, 64, 16);
  TensorView odd = W.view();
  odd.shape = {40, 9, 0, 0};
  const Floats x = randomVector(3 * 40, 17);
  Floats y(27, 5.0F);
  matmul({}, odd, PackedTokens(x.data(), 40, 3, 40), y.data());
  for (size_t t = 0; t < 3; ++t) {
    Floats want(9);
    matvec({}, odd, x.data() + t * 40, want);
    EXPECT_EQ(Floats(y.begin() + static_cast<ptrdiff_t>(9 * t),
                     y.begin() + static_cast<ptrdiff_t>(9 * t + 9)),
              want);
  }
}

TEST(Matmul, TypesThatAreNotComputedGiveZeros) {
  const RandomMatrix bytes(DType::F32, 4, 64, 18);
  TensorView W = bytes.view();
  W.dtype = DType::F16;
  const Floats x = randomVector(2 * 64, 19);
  Floats y(8, 5.0F);
  matmul({}, W, PackedTokens(x.data(), 64, 2, 64), y.data());
  EXPECT_EQ(y, Floats(8, 0.0F));
}

// A GPU that writes 100 * (its number of calls) into every row, and declines the
// calls that it is told to.
struct CountingGpu {
  int calls = 0;
  int declined = -1;

  GpuHook hook() { return {this, product}; }
  static bool product(void* self, const TensorView* W, const float* /*x*/, float* y) {
    auto& gpu = *static_cast<CountingGpu*>(self);
    if (gpu.calls++ == gpu.declined) return false;
    std::fill_n(y, matrixRows(*W), 100.0F * static_cast<float>(gpu.calls));
    return true;
  }
};

TEST(Matmul, TheGpuIsOfferedEveryToken) {
  const RandomMatrix W(DType::Q4_K, 2, 256, 20);
  const Floats x = randomVector(3 * 256, 21);
  CountingGpu gpu;
  Floats y(6);
  matmul(gpu.hook(), W.view(), PackedTokens(x.data(), 256, 3, 256), y.data());
  EXPECT_EQ(y, (Floats{100, 100, 200, 200, 300, 300}));
}

TEST(Matmul, ATokenThatTheGpuDeclinesIsTheCpus) {
  const RandomMatrix W(DType::Q4_K, 2, 256, 22);
  const Floats x = randomVector(3 * 256, 23);
  Floats want(6);
  matmul({}, W.view(), PackedTokens(x.data(), 256, 3, 256), want.data());
  CountingGpu gpu;
  gpu.declined = 1;
  Floats y(6);
  matmul(gpu.hook(), W.view(), PackedTokens(x.data(), 256, 3, 256), y.data());
  EXPECT_EQ(y, (Floats{100, 100, want[2], want[3], 300, 300}));
}

TEST(Matmul, AGpuThatDeclinesTheFirstTokenIsNotAskedAgain) {
  const RandomMatrix W(DType::Q4_K, 2, 256, 24);
  const Floats x = randomVector(3 * 256, 25);
  CountingGpu gpu;
  gpu.declined = 0;
  Floats y(6);
  matmul(gpu.hook(), W.view(), PackedTokens(x.data(), 256, 3, 256), y.data());
  EXPECT_EQ(gpu.calls, 1);
  Floats want(6);
  matmul({}, W.view(), PackedTokens(x.data(), 256, 3, 256), want.data());
  EXPECT_EQ(y, want);
}

// ---- products that share their tokens

// A GPU that writes 100 * (its number of calls) into every row of what it takes: the products
// whose bits are set in `takes`, counted among those offered.
struct GroupGpu {
  uint32_t takes = ~0U;
  std::vector<size_t> offers;  // products of each call

  GpuHook hook() { return {this, nullptr, products}; }
  static uint32_t products(void* self, const TensorView* const* W, float* const* y, size_t count,
                           const float* /*x*/) {
    auto& gpu = *static_cast<GroupGpu*>(self);
    gpu.offers.push_back(count);
    for (size_t i = 0; i < count; ++i) {
      if ((gpu.takes >> i & 1U) == 0) continue;
      std::fill_n(y[i], matrixRows(*W[i]), 100.0F * static_cast<float>(gpu.offers.size()));
    }
    return gpu.takes;
  }
};

class MatmulAll : public testing::Test {
 protected:
  // The three products of `tokens` tokens, one behind the other.
  Floats computed(const GpuHook& gpu, size_t tokens) const {
    const Floats x = randomVector(3 * 256, 31);
    const PackedTokens X(x.data(), 256, tokens, 256);
    const TensorView views[] = {q4_.view(), q8_.view(), q6_.view()};
    Floats y(5 * tokens, -1.0F);
    const Product products[] = {
        {&views[0], &y[0]}, {&views[1], &y[2 * tokens]}, {&views[2], &y[3 * tokens]}};
    matmulAll(gpu, products, X);
    return y;
  }

  const RandomMatrix q4_{DType::Q4_K, 2, 256, 26};
  const RandomMatrix q8_{DType::Q8_0, 1, 256, 27};
  const RandomMatrix q6_{DType::Q6_K, 2, 256, 28};
};

TEST_F(MatmulAll, WithoutAGroupHookIsOneByOne) {
  const Floats cpu = computed({}, 1);
  EXPECT_EQ(std::count(cpu.begin(), cpu.end(), -1.0F), 0);
  CountingGpu gpu;
  EXPECT_EQ(computed(gpu.hook(), 1), (Floats{100, 100, cpu[2], 200, 200}));
}

TEST_F(MatmulAll, OffersTheProductsOfATokenTogether) {
  const Floats cpu = computed({}, 3);
  GroupGpu gpu;
  EXPECT_EQ(computed(gpu.hook(), 3), (Floats{100, 100, 200, 200, 300, 300, cpu[6], cpu[7], cpu[8],
                                             100, 100, 200, 200, 300, 300}));
  EXPECT_EQ(gpu.offers, (std::vector<size_t>{2, 2, 2}));
}

TEST_F(MatmulAll, WhatTheGpuDeclinesIsTheCpusAndNotOfferedAgain) {
  const Floats cpu = computed({}, 3);
  GroupGpu gpu;
  gpu.takes = 0b10;  // of a later token, whose only offer is the first: declined, too
  Floats want = cpu;
  want[9] = want[10] = 100;
  EXPECT_EQ(computed(gpu.hook(), 3), want);
  EXPECT_EQ(gpu.offers, (std::vector<size_t>{2, 1, 1}));

  GroupGpu none;
  none.takes = 0;
  EXPECT_EQ(computed(none.hook(), 3), cpu);
  EXPECT_EQ(none.offers, (std::vector<size_t>{2}));
}

// A GPU hook that counts its calls and computes nothing.
struct CountingHook {
  size_t calls = 0;
  bool accept = false;

  static bool run(void* ctx, const TensorView* W, const float* /*x*/, float* y) {
    auto* self = static_cast<CountingHook*>(ctx);
    ++self->calls;
    if (self->accept) std::fill_n(y, matrixRows(*W), 42.0F);
    return self->accept;
  }
};

TEST(GpuHook, DecliningLeavesTheProductToTheCpu) {
  const RandomMatrix W(DType::Q4_K, 4, 256, 5);
  const Floats x(256, 1.0F);
  Floats want(4);
  matvec({}, W.view(), x.data(), want);
  CountingHook hook;
  Floats y(4);
  matvec({&hook, CountingHook::run}, W.view(), x.data(), y);
  EXPECT_EQ(hook.calls, 1U);
  EXPECT_EQ(y, want);
}

TEST(GpuHook, AcceptingReplacesTheProduct) {
  const RandomMatrix W(DType::Q6_K, 4, 256, 6);
  const Floats x(256, 1.0F);
  CountingHook hook;
  hook.accept = true;
  Floats y(4);
  matvec({&hook, CountingHook::run}, W.view(), x.data(), y);
  EXPECT_EQ(y, Floats(4, 42.0F));
}

TEST(GpuHook, IsOfferedKQuantsOnly) {
  CountingHook hook;
  const Floats x(256, 1.0F);
  Floats y(2);
  for (const DType type : {DType::F32, DType::BF16, DType::Q8_0}) {
    const RandomMatrix W(type, 2, 256, 7);
    matvec({&hook, CountingHook::run}, W.view(), x.data(), y);
  }
  EXPECT_EQ(hook.calls, 0U);
  const RandomMatrix W(DType::Q5_K, 2, 256, 8);
  matvec({nullptr, CountingHook::run}, W.view(), x.data(), y);
  EXPECT_EQ(hook.calls, 0U) << "both halves of the hook must be set";
}

}  // namespace
}  // namespace qwen35
