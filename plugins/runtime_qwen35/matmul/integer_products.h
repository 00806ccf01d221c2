// SPDX-License-Identifier: Apache-2.0
// Products in the arithmetic `fast`, on the team of matmul/team.h: activations are rounded to
// integers once, and every product that reads them shares them. docs/kernels.md has the formula.
//
//   const RoundedActivations X(x, stride, tokens, cols);
//   for (const TensorView* W : {wq, wk, wv}) {
//     if (hasIntegerProducts(*W)) integerMatmul(*W, X, y); else ...  // matmul of PackedTokens
//   }
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kernels/integer_kernels.h"
#include "matmul/matrix.h"

namespace qwen35 {

// Whether W has integer products: its type is Q4_K, Q5_K, Q6_K or Q8_0, and no row ends within a
// block. All other matrices take the exact path, matvec and matmul of matmul/matmul.h.
bool hasIntegerProducts(const TensorView& W);

// The vectors of one or more tokens, rounded: `cols` floats each, `stride` floats apart at x. Keeps
// no reference to x. Read-only once made, so threads may share it.
class RoundedActivations {
 public:
  RoundedActivations(const float* x, size_t stride, size_t tokens, size_t cols,
                     const IntegerKernels& kernels = integerKernels());

  size_t tokens() const { return tokens_; }
  size_t cols() const { return cols_; }
  const IntegerKernels& kernels() const { return kernels_; }
  // One token's blocks; empty for several tokens.
  const RoundedVector* vector() const { return vector_.data(); }
  // Several tokens as IntegerMatmul reads them; empty for one.
  const uint32_t* packed() const { return packed_.data(); }

 private:
  size_t tokens_;
  size_t cols_;
  const IntegerKernels& kernels_;
  std::vector<RoundedVector> vector_;
  std::vector<uint32_t> packed_;
};

// Y = W X: matrixRows floats a token, one token after the other. The bits of a token's floats
// depend on W and the token alone: neither on the other tokens nor on the number of threads, nor on
// the instruction set. A token with an infinite or NaN activation has NaN in every row.
// REQUIRES: hasIntegerProducts(W), and X has matrixCols(W) columns.
void integerMatmul(const TensorView& W, const RoundedActivations& X, float* y);

}  // namespace qwen35
