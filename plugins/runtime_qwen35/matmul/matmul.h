// SPDX-License-Identifier: Apache-2.0
// A stored matrix, in any supported encoding, times vectors: on the GPU where there is one that
// takes the product, else on the OpenMP team.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "kernels/kernel_table.h"
#include "matmul/matrix.h"

namespace qwen35 {

// Offered every product with K-quantised weights first; see Model::gpuGemvRow and
// gpuGemvGroup. All members null: no GPU.
struct GpuHook {
  void* ctx = nullptr;
  bool (*run)(void* ctx, const TensorView* W, const float* x, float* y) = nullptr;
  uint32_t (*runGroup)(void* ctx, const TensorView* const* W, float* const* y, size_t count,
                       const float* x) = nullptr;
};

// y = W x for the first y.size() rows of W (at most matrixRows); the hook computes all of them.
// Types that the decoder does not compute with give zeros.
void matvec(const GpuHook& gpu, const TensorView& W, const float* x, std::span<float> y);

// The vectors of one or more tokens as matmul reads them: `cols` floats each, `stride` floats
// apart at x. Keeps a reference to x and, for more than one token, a copy in the kernels' order.
class PackedTokens {
 public:
  PackedTokens(const float* x, size_t stride, size_t tokens, size_t cols);

  size_t tokens() const { return tokens_; }
  const float* token(size_t t) const { return x_ + t * stride_; }
  const KernelTable& kernels() const { return kernels_; }
  const float* packed() const { return packed_.data(); }

 private:
  const float* x_;
  size_t stride_;
  size_t tokens_;
  const KernelTable& kernels_;
  std::vector<float> packed_;
};

// Y = W X: matrixRows floats a token, one token after the other, each with the bits of matvec.
// The hook is offered the tokens one by one, and none after the first when it declines that.
void matmul(const GpuHook& gpu, const TensorView& W, const PackedTokens& X, float* y);

// The most products that a hook is offered together.
inline constexpr size_t kGpuGroup = 8;

// A matrix and where matmul puts its product.
struct Product {
  const TensorView* W = nullptr;
  float* y = nullptr;
};

// matmul for each of `products`, at most kGpuGroup. A hook for groups is offered each token's
// products together, and a product none of the tokens after the first when it declines that.
void matmulAll(const GpuHook& gpu, std::span<const Product> products, const PackedTokens& X);

}  // namespace qwen35
