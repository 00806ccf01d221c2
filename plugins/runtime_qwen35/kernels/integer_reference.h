// SPDX-License-Identifier: Apache-2.0
// Integer products as plain loops: the arithmetic `fast`.
//
// Weights of Q4_K, Q5_K, Q6_K and Q8_0 are integers times a half-precision scale. Activations
// become integers of 14 bits times a scale for each 256 columns. What is left of a product is
// sums of integers, which are exact in any order, and a few float steps a block. These loops
// define the results: tests hold every faster kernel equal to them, bit for bit. Read them beside
// docs/kernels.md, which has the formula and the error bound.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kernels/integer_kernels.h"
#include "kiv/tensor.h"

namespace qwen35::reference {

// Column c stands for q[c] * scale.
struct RoundedBlock {
  float scale;                 // NaN when one of the columns is infinite or NaN
  int32_t q[kRoundedColumns];  // -8191 to 8191; 0 behind the last column
};

// Rounds `n` <= kRoundedColumns columns. |x[c] - q[c] * scale| is at most 0.502 * scale, and scale
// is 1/8191 of the largest magnitude. A block without a magnitude of 2^-100 counts as zeros.
RoundedBlock roundBlock(const float* x, size_t n);

// The product of one row with a rounded vector of `cols` columns, a multiple of the encoding's
// block. REQUIRES: `type` is Q4_K, Q5_K, Q6_K or Q8_0.
float integerDot(kiv::DType type, const void* row, const RoundedBlock* x, size_t cols);

}  // namespace qwen35::reference
