// SPDX-License-Identifier: Apache-2.0
#include "matmul/integer_products.h"

#include <algorithm>

#include "matmul/team.h"

namespace qwen35 {
bool hasIntegerProducts(const TensorView& W) {
  return integerKernels().matvec[W.dtype] != nullptr &&
         matrixCols(W) % kiv::dtypeBlockSize(W.dtype) == 0;
}

RoundedActivations::RoundedActivations(const float* x, size_t stride, size_t tokens, size_t cols,
                                       const IntegerKernels& kernels)
    : tokens_(tokens), cols_(cols), kernels_(kernels) {
  const size_t blocks = roundedBlocks(cols);
  const bool worthwhile = tokens * cols >= kTeamElements;
  if (tokens == 1) {
    vector_.resize(blocks);
    forEachShare(blocks, worthwhile, [&](size_t /*thread*/, size_t begin, size_t end) {
      const size_t first = begin * kRoundedColumns;
      const size_t last = std::min(end * kRoundedColumns, cols);
      kernels.roundVector(x + first, last - first, vector_.data() + begin);
    });
  } else {
    packed_.resize(tokens * blocks * kTokenWords);
    forEachShare(blocks, worthwhile, [&](size_t /*thread*/, size_t begin, size_t end) {
      kernels.roundTokens(x, stride, tokens, cols, begin, end, packed_.data());
    });
  }
}

void integerMatmul(const TensorView& W, const RoundedActivations& X, float* y) {
  const IntegerKernels& kernels = X.kernels();
  const size_t cols = matrixCols(W);
  const size_t rows = matrixRows(W);
  if (X.tokens() == 1) {
    forEachRowRange(rows, cols, [&](size_t /*thread*/, size_t begin, size_t end) {
      kernels.matvec[W.dtype](rowAt(W, begin), X.vector(), end - begin, cols, y + begin);
    });
    return;
  }
  const size_t tiles = (rows + kernels.tileRows - 1) / kernels.tileRows;
  forEachShare(tiles, rows * cols * X.tokens() >= kTeamWeights,
               [&](size_t /*thread*/, size_t begin, size_t end) {
                 const size_t first = begin * kernels.tileRows;
                 const size_t last = std::min(end * kernels.tileRows, rows);
                 kernels.matmul[W.dtype](rowAt(W, first), X.packed(), X.tokens(), last - first,
                                         cols, y + first, rows);
               });
}

}  // namespace qwen35
