// SPDX-License-Identifier: Apache-2.0
// Stored matrices and vectors, read in place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kiv/tensor.h"

namespace qwen35 {

using kiv::TensorView;

// Columns and rows of a matrix view: shape[0], and the product of the others.
inline size_t matrixCols(const TensorView& W) { return W.shape[0]; }
size_t matrixRows(const TensorView& W);

// Where row `row` begins. No row may end within a block.
inline const uint8_t* rowAt(const TensorView& W, size_t row) {
  return static_cast<const uint8_t*>(W.data) + row * kiv::dtypeBytes(W.dtype, matrixCols(W));
}

// Widens row `row` of `n` elements to floats. Types that the decoder does not
// compute with (F16, Q4_0, ...) leave `out` as it was.
void rowToF32(const TensorView* W, size_t row, size_t n, float* out);

// The first `n` floats of an F32 tensor: in place when the file happens to have
// aligned them, else copied into `copy`.
const float* floatsOf(const TensorView* view, size_t n, std::vector<float>& copy);

}  // namespace qwen35
