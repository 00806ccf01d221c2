// SPDX-License-Identifier: Apache-2.0
/// \file
/// Rows of weights to a container's element types and back.
#pragma once

#include <cstdint>

#include "kiv/tensor.h"

namespace kiv {

/// F32, BF16, Q8_0 and the K types Q4_K, Q5_K, Q6_K: those that the decoder
/// multiplies with.
bool hasRowCodec(DType type);

/// Q4_K, Q5_K or Q6_K: the types that there are GPU products for.
bool isKQuant(DType type);

/// Stores `n` floats at `dst`, dtypeBytes(type, n) bytes of any alignment. BF16
/// rounds to nearest, ties to even, and keeps a NaN one; the block types as in
/// quant.h. REQUIRES: hasRowCodec(type).
void encodeRow(DType type, const float* src, uint64_t n, void* dst);

/// Widens `n` elements at `src`, of any alignment, to floats. Leaves `dst` as it was for types
/// without a row codec.
void decodeRow(DType type, const void* src, uint64_t n, float* dst);

/// Whether the scales of the blocks of one row (or of several) are all finite; in
/// F32 and BF16, whether all elements are. `bytes` is a multiple of a block's.
bool rowIsFinite(DType type, const void* src, uint64_t bytes);

}  // namespace kiv
