// Stored blocks back to floats, in single precision and in a fixed order of
// operations: every caller and every faster version gets the same bits.
#pragma once

#include <cstdint>

namespace kiv::quant {

// Expand the blocks at `src` (any alignment) into exactly `n` floats at `dst`;
// elements of a partial last block beyond n are not stored. `src` must hold
// ceil(n / block) whole blocks.
void dequantQ40(const void* src, float* dst, uint64_t n);
void dequantQ80(const void* src, float* dst, uint64_t n);
void dequantQ4K(const void* src, float* dst, uint64_t n);
void dequantQ5K(const void* src, float* dst, uint64_t n);
void dequantQ6K(const void* src, float* dst, uint64_t n);

// Unlike the others: expands floor(n / 256) whole blocks and leaves the rest of
// `dst` alone; the scale `d` of the first block counts for all of them.
void dequantQ8K(const void* src, float* dst, uint64_t n);

}  // namespace kiv::quant
