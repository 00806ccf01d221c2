// SPDX-License-Identifier: Apache-2.0
// Brain floats: the upper half of a float.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace kiv {

inline float bf16ToF32(uint16_t h) { return std::bit_cast<float>(static_cast<uint32_t>(h) << 16); }

// Rounds to nearest, ties to even, on the bit pattern; NaN and infinity get no special treatment.
inline uint16_t f32ToBf16(float x) {
  const auto bits = std::bit_cast<uint32_t>(x);
  return static_cast<uint16_t>((bits + ((bits >> 16) & 1) + 0x7FFF) >> 16);
}

// `n` brain floats at `src`, at any alignment.
inline void widenBf16(const void* src, uint64_t n, float* dst) {
  const auto* from = static_cast<const uint8_t*>(src);
  for (uint64_t i = 0; i < n; ++i) {
    uint16_t half = 0;
    std::memcpy(&half, from + sizeof half * i, sizeof half);
    dst[i] = bf16ToF32(half);
  }
}

}  // namespace kiv
