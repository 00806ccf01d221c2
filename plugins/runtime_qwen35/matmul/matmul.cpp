// SPDX-License-Identifier: Apache-2.0
#include "matmul/matmul.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "kernels/packing.h"
#include "kernels/reference.h"
#include "kiv/quant/row_codec.h"
#include "matmul/team.h"

namespace qwen35 {
namespace {

bool offer(const GpuHook& gpu, const TensorView& W, const float* x, float* y) {
  return gpu.run != nullptr && gpu.ctx != nullptr && kiv::isKQuant(W.dtype) &&
         gpu.run(gpu.ctx, &W, x, y);
}

// A bit for each of `products` that the GPU computed for token t, of those in `wanted`.
uint32_t offerGroup(const GpuHook& gpu, std::span<const Product> products, const PackedTokens& X,
                    size_t t, uint32_t wanted) {
  std::array<const TensorView*, kGpuGroup> W{};
  std::array<float*, kGpuGroup> y{};
  std::array<size_t, kGpuGroup> place{};
  size_t count = 0;
  for (size_t i = 0; i < products.size(); ++i) {
    const TensorView& matrix = *products[i].W;
    if ((wanted >> i & 1U) == 0 || !kiv::isKQuant(matrix.dtype)) continue;
    W[count] = &matrix;
    y[count] = products[i].y + t * matrixRows(matrix);
    place[count++] = i;
  }
  if (count == 0) return 0;
  const uint32_t done = gpu.runGroup(gpu.ctx, W.data(), y.data(), count, X.token(t));
  uint32_t computed = 0;
  for (size_t i = 0; i < count; ++i) computed |= (done >> i & 1U) << place[i];
  return computed;
}

bool hasWholeBlocks(const TensorView& W) {
  return matrixCols(W) % kiv::dtypeBlockSize(W.dtype) == 0;
}

// Rows that end within a block go through the plain loop. The format allows them, converters do
// not write them.
void matvecOfWidenedRows(const TensorView& W, const float* x, std::span<float> y) {
  const size_t cols = matrixCols(W);
  std::vector<float> scratch(teamSize() * cols);
  forEachRowRange(y.size(), cols, [&](size_t thread, size_t begin, size_t end) {
    float* row = scratch.data() + thread * cols;
    for (size_t r = begin; r < end; ++r) {
      rowToF32(&W, r, cols, row);
      y[r] = reference::dotF32(row, x, cols);
    }
  });
}

void matmulOfTiles(const TensorView& W, const PackedTokens& X, float* y) {
  const KernelTable& kernels = X.kernels();
  const size_t cols = matrixCols(W);
  const size_t rows = matrixRows(W);
  const size_t tiles = (rows + kernels.tileRows - 1) / kernels.tileRows;
  forEachShare(tiles, rows * cols * X.tokens() >= kTeamWeights,
               [&](size_t /*thread*/, size_t begin, size_t end) {
                 const size_t first = begin * kernels.tileRows;
                 const size_t last = std::min(end * kernels.tileRows, rows);
                 kernels.matmul[W.dtype](rowAt(W, first), X.packed(), X.tokens(), last - first,
                                         cols, y + first, rows);
               });
}

}  // namespace

void matvec(const GpuHook& gpu, const TensorView& W, const float* x, std::span<float> y) {
  if (offer(gpu, W, x, y.data())) return;
  const Matvec kernel = kernelTable().matvec[W.dtype];
  if (kernel == nullptr) {
    std::ranges::fill(y, 0.0F);
  } else if (hasWholeBlocks(W)) {
    const size_t cols = matrixCols(W);
    forEachRowRange(y.size(), cols, [&](size_t /*thread*/, size_t begin, size_t end) {
      kernel(rowAt(W, begin), x, end - begin, cols, y.data() + begin);
    });
  } else {
    matvecOfWidenedRows(W, x, y);
  }
}

PackedTokens::PackedTokens(const float* x, size_t stride, size_t tokens, size_t cols)
    : x_(x), stride_(stride), tokens_(tokens), kernels_(kernelTable()) {
  if (tokens == 1) return;
  packed_.resize(tokens * cols);
  forEachShare(
      cols, packed_.size() >= kTeamWeights, [&](size_t /*thread*/, size_t begin, size_t end) {
        packTokens(x, stride, tokens, cols, kernels_.groupTokens, begin, end, packed_.data());
      });
}

void matmul(const GpuHook& gpu, const TensorView& W, const PackedTokens& X, float* y) {
  const size_t rows = matrixRows(W);
  const bool fast = X.kernels().matmul[W.dtype] != nullptr && hasWholeBlocks(W);
  const bool together = X.tokens() > 1 && fast;
  if (together && !offer(gpu, W, X.token(0), y)) return matmulOfTiles(W, X, y);
  // When the GPU took the first token, the others follow one by one.
  for (size_t t = together ? 1 : 0; t < X.tokens(); ++t) {
    matvec(gpu, W, X.token(t), {y + t * rows, rows});
  }
}

void matmulAll(const GpuHook& gpu, std::span<const Product> products, const PackedTokens& X) {
  if (gpu.runGroup == nullptr || gpu.ctx == nullptr || products.size() > kGpuGroup) {
    for (const Product& product : products) matmul(gpu, *product.W, X, product.y);
    return;
  }
  const GpuHook none;
  const uint32_t taken = offerGroup(gpu, products, X, 0, ~0U);
  for (size_t i = 0; i < products.size(); ++i) {
    if ((taken >> i & 1U) == 0) matmul(none, *products[i].W, X, products[i].y);
  }
  for (size_t t = 1; t < X.tokens() && taken != 0; ++t) {
    const uint32_t left = taken & ~offerGroup(gpu, products, X, t, taken);
    for (size_t i = 0; i < products.size(); ++i) {
      if ((left >> i & 1U) == 0) continue;
      const size_t rows = matrixRows(*products[i].W);
      matvec(none, *products[i].W, X.token(t), {products[i].y + t * rows, rows});
    }
  }
}

}  // namespace qwen35
