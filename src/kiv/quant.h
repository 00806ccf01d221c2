// SPDX-License-Identifier: Apache-2.0
/// \file
/// Element encodings of stored weights: names, sizes, half precision, and the
/// 32-element block formats. The 256-element formats are in quant_k.h, the way
/// back to floats is in dequant.h.
///
/// Everything here is pure: no state, no allocation, any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kiv {

/// Element encodings, with the codes that blocks are described by.
enum class QuantType : uint8_t {
  F32 = 0,
  F16 = 1,
  BF16 = 2,
  Q4_0 = 3,
  Q8_0 = 4,
  Q4_K = 5,
  Q5_K = 6,
  Q6_K = 7,
  IQ4_XS = 8,  ///< named and sized only
};

/// "F32", ..., "IQ4_XS"; "?" for any other value. Static storage.
const char* quantTypeName(QuantType t);

namespace quant {

inline constexpr uint64_t kBlock32 = 32;  ///< elements in a Q4_0 or Q8_0 block

#pragma pack(push, 1)

/// Element k is the low nibble of qs[k / 2] for even k, the high nibble for odd
/// k: neighbours share a byte. An element is (code - 8) * d.
struct Q40Block {
  uint16_t d;      ///< half-precision scale
  uint8_t qs[16];  ///< two codes a byte
};
static_assert(sizeof(Q40Block) == 18);

/// 32 codes in order; an element is qs[k] * d.
struct Q80Block {
  uint16_t d;     ///< half-precision scale
  int8_t qs[32];  ///< one code a byte
};
static_assert(sizeof(Q80Block) == 34);

#pragma pack(pop)

/// Bytes of `n` elements of type `t`; a partial last block counts whole. 0 for
/// an unknown type, and when the result would not fit 64 bits.
uint64_t quantizedBytes(QuantType t, uint64_t n);

/// IEEE 754 binary16 to binary32; exact.
float f16ToF32(uint16_t h);
/// IEEE 754 binary32 to binary16. Rounds to nearest, ties to even, and turns every
/// NaN into 0x7E00 with its sign.
uint16_t f32ToF16(float x);

/// Encodes `n` floats as Q4_0 into ceil(n / 32) blocks at `dst` (any alignment), padding
/// the last one with zeros. Single pass: the scale follows from the block's
/// largest magnitude (Q4_0 maps that element to code 0, Q8_0 to +-127).
///
/// Every input gives a defined block. NaN counts as zero. A block that holds an
/// infinity, or whose scale is too large for half precision, gets an infinite
/// scale and so decodes to infinities and NaNs: keep weights below 2^18.
void quantQ40(const float* src, void* dst, uint64_t n);
/// quantQ40() for Q8_0.
void quantQ80(const float* src, void* dst, uint64_t n);

}  // namespace quant
}  // namespace kiv
