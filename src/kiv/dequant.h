// SPDX-License-Identifier: Apache-2.0
/// \file
/// Stored blocks back to floats, in single precision and in a fixed order of
/// operations: every caller and every faster version gets the same bits.
#pragma once

#include <cstdint>

namespace kiv::quant {

/// Expands the Q4_0 blocks at `src` (any alignment) into exactly `n` floats at `dst`;
/// elements of a partial last block beyond n are not stored. `src` must hold
/// ceil(n / block) whole blocks.
void dequantQ40(const void* src, float* dst, uint64_t n);
/// dequantQ40() for Q8_0.
void dequantQ80(const void* src, float* dst, uint64_t n);
/// dequantQ40() for Q4_K, with blocks of 256.
void dequantQ4K(const void* src, float* dst, uint64_t n);
/// dequantQ40() for Q5_K, with blocks of 256.
void dequantQ5K(const void* src, float* dst, uint64_t n);
/// dequantQ40() for Q6_K, with blocks of 256.
void dequantQ6K(const void* src, float* dst, uint64_t n);

/// Q8_K. Unlike the others: expands floor(n / 256) whole blocks and leaves the rest of
/// `dst` alone; the scale `d` of the first block counts for all of them.
void dequantQ8K(const void* src, float* dst, uint64_t n);

}  // namespace kiv::quant
