// SPDX-License-Identifier: Apache-2.0
/// \file
/// The 256-element block formats ("K" types): records, sizes and encoders. The
/// byte layouts are a file format, read by the CPU decoder and by the shaders.
#pragma once

#include <cstdint>

#include "kiv/quant.h"

namespace kiv::quant {

inline constexpr uint64_t kBlock256 = 256;  ///< elements in a K block

#pragma pack(push, 1)

/// 8 sub-blocks of 32. Byte qs[32c + l] holds element 64c + l in its low nibble
/// and element 64c + 32 + l in its high one. An element is code * (d * scale) -
/// dmin * min, with scale and min of its sub-block from getScaleMinK4.
struct Q4KBlock {
  uint16_t d;          ///< half-precision scale of the scales
  uint16_t dmin;       ///< half-precision scale of the minima
  uint8_t scales[12];  ///< 8 scales and 8 minima of 6 bits, packed
  uint8_t qs[128];     ///< low and high nibbles
};
static_assert(sizeof(Q4KBlock) == 144);

/// As Q4KBlock with a fifth bit: bit 2c of qh[l] belongs to element 64c + l, bit
/// 2c + 1 to element 64c + 32 + l.
struct Q5KBlock {
  uint16_t d;          ///< half-precision scale of the scales
  uint16_t dmin;       ///< half-precision scale of the minima
  uint8_t scales[12];  ///< 8 scales and 8 minima of 6 bits, packed
  uint8_t qh[32];      ///< fifth bits
  uint8_t qs[128];     ///< low and high nibbles
};
static_assert(sizeof(Q5KBlock) == 176);

/// Two halves of 128 elements, 16 sub-blocks of 16. In half h, with L = ql + 64h
/// and H = qh + 32h: element l has L[l] & 15 and bits 0-1 of H[l]; 32 + l has
/// L[l + 32] & 15 and bits 2-3; 64 + l has L[l] >> 4 and bits 4-5; 96 + l has
/// L[l + 32] >> 4 and bits 6-7. An element is (code - 32) * scales[e / 16] * d.
struct Q6KBlock {
  uint8_t ql[128];    ///< low four bits
  uint8_t qh[64];     ///< high two bits
  int8_t scales[16];  ///< one a sub-block
  uint16_t d;         ///< half-precision scale of the scales
};
static_assert(sizeof(Q6KBlock) == 210);

/// A 16-bit scale, and group scales (half precision) in bsums.
struct Q8KBlock {
  uint16_t d;          ///< half-precision scale
  int8_t qs[256];      ///< one code a byte
  uint16_t bsums[16];  ///< half-precision scales of groups of 16 elements
};
static_assert(sizeof(Q8KBlock) == 290);

#pragma pack(pop)

/// Bytes of `n` elements of a K type or IQ4_XS, a partial last block counting
/// whole; 0 for every other type, and when the result would not fit 64 bits.
uint64_t quantizedBytesK(QuantType t, uint64_t n);

/// Unpacks the 6-bit scale `d` and minimum `m` of sub-block j (0 to 7) from the
/// 12 packed bytes `q`.
void getScaleMinK4(int j, const uint8_t* q, uint8_t& d, uint8_t& m);

/// Encodes `n` floats as Q4_K into ceil(n / 256) blocks at `dst` (any alignment), padding
/// the last one with zeros. No search for a better scale: the bytes follow from
/// fixed rules. NaN, infinities and huge values as in quant.h.
///
/// Q4_K and Q5_K store the smallest element of a sub-block as a subtracted, never
/// negative minimum, so they suit weights around zero: a sub-block that lies far
/// above zero is cut at its scale's reach.
void quantQ4K(const float* src, void* dst, uint64_t n);
/// quantQ4K() for Q5_K.
void quantQ5K(const float* src, void* dst, uint64_t n);
/// quantQ4K() for Q6_K, which stores no minima.
void quantQ6K(const float* src, void* dst, uint64_t n);

}  // namespace kiv::quant
