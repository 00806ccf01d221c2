// Products of a stored matrix, in any supported encoding, and vectors.
#pragma once

#include <cstddef>
#include <vector>

#include "kernels/token_dots.h"
#include "kiv/tensor.h"
#include "qwen35_model.h"

namespace qwen35 {

// Columns and rows of a matrix view: shape[0], and the product of the others.
inline size_t matrixCols(const TensorView& W) { return W.shape[0]; }
size_t matrixRows(const TensorView& W);

// Encodings whose products the GPU hook is offered.
bool isKQuant(kiv::DType type);

// Widens row `row` of `n` elements to floats. Types that the decoder does not
// compute with (F16, Q4_0, ...) leave `out` as it was.
void rowToF32(const TensorView* W, size_t row, size_t n, float* out);

// y += W x, offered to the GPU hook first. Callers pass a zero-filled `y`
// (matrixRows floats), because the hook overwrites where the CPU adds.
void gemvRow(Model& m, const TensorView* W, const float* x, float* y);

// The vectors of one or more tokens, of `cols` floats each and `stride` floats
// apart at x, as products read them. Keeps a reference to x and, for more than
// one token, a copy in the order of the kernels.
class ProductInput {
 public:
  ProductInput(const float* x, size_t stride, size_t tokens, size_t cols);

  size_t tokens() const { return tokens_; }
  const float* token(size_t t) const { return x_ + t * stride_; }
  const TokenDotsTable& kernels() const { return kernels_; }
  const float* packed() const { return packed_.data(); }

 private:
  const float* x_;
  size_t stride_;
  size_t tokens_;
  const TokenDotsTable& kernels_;
  std::vector<float> packed_;
};

// y = W x for every token: matrixRows floats a token, one token after the other.
// Each product is offered to the GPU hook first.
void products(Model& m, const TensorView* W, const ProductInput& x, float* y);

// The nVocab logits of the normalised hidden state `cur` (overwrites).
void headProduct(Model& m, const float* cur, float* logits);

// The first `n` floats of an F32 tensor: in place when the file happens to have
// aligned them, else copied into `copy`.
const float* floatsOf(const TensorView* view, size_t n, std::vector<float>& copy);

}  // namespace qwen35
