// Products of a stored matrix, in any supported encoding, and a vector.
#pragma once

#include <cstddef>
#include <vector>

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

// The nVocab logits of the normalised hidden state `cur` (overwrites).
void headProduct(Model& m, const float* cur, float* logits);

// The first `n` floats of an F32 tensor: in place when the file happens to have
// aligned them, else copied into `copy`.
const float* floatsOf(const TensorView* view, size_t n, std::vector<float>& copy);

}  // namespace qwen35
