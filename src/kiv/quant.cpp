// SPDX-License-Identifier: Apache-2.0
#include "kiv/quant.h"

#include <array>
#include <bit>

#include "kiv/quant/quant_blocks.h"
#include "kiv/quant_k.h"

namespace kiv {

const char* quantTypeName(QuantType t) {
  switch (t) {
    case QuantType::F32:
      return "F32";
    case QuantType::F16:
      return "F16";
    case QuantType::BF16:
      return "BF16";
    case QuantType::Q4_0:
      return "Q4_0";
    case QuantType::Q8_0:
      return "Q8_0";
    case QuantType::Q4_K:
      return "Q4_K";
    case QuantType::Q5_K:
      return "Q5_K";
    case QuantType::Q6_K:
      return "Q6_K";
    case QuantType::IQ4_XS:
      return "IQ4_XS";
  }
  return "?";
}

namespace quant {
namespace {

// The first of the elements of largest magnitude, with its sign.
float extremeElement(const float* x) {
  const float magnitude = largestMagnitude(x, kBlock32);
  size_t k = 0;
  while (std::fabs(x[k]) != magnitude) ++k;
  return x[k];
}

void encodeQ40(const float* x, Q40Block& block) {
  const float extreme = extremeElement(x);
  const float d = extreme == 0.0F ? 0.0F : extreme * -0.125F;
  const float inverse = extreme == 0.0F ? 0.0F : 1.0F / d;
  block.d = f32ToF16(d);
  std::array<uint8_t, kBlock32> codes;
  for (size_t k = 0; k < kBlock32; ++k) {
    codes[k] = static_cast<uint8_t>(truncateToCode(zeroIfNan(x[k] * inverse) + 8.5F, 0, 15));
  }
  for (size_t i = 0; i < kBlock32 / 2; ++i) {
    block.qs[i] = static_cast<uint8_t>(codes[2 * i] | (codes[2 * i + 1] << 4));
  }
}

void encodeQ80(const float* x, Q80Block& block) {
  const float d = largestMagnitude(x, kBlock32) / 127.0F;
  block.d = f32ToF16(d);
  if (d == 0.0F) {
    std::fill_n(block.qs, kBlock32, int8_t{0});
    return;
  }
  for (size_t k = 0; k < kBlock32; ++k) {
    block.qs[k] = static_cast<int8_t>(roundToCode(x[k] / d, -127, 127));
  }
}

// Significand of a half below its smallest normal, from a float whose exponent
// is `exponent` (102 to 112): the float's significand shifted down and rounded.
uint16_t subnormalHalf(uint32_t exponent, uint32_t mantissa) {
  const uint32_t full = mantissa | 0x800000U;
  const uint32_t shift = 126 - exponent;
  const uint32_t quotient = full >> shift;
  const uint32_t rest = full & ((1U << shift) - 1);
  const uint32_t half = 1U << (shift - 1);
  const bool up = rest > half || (rest == half && (quotient & 1U) != 0);
  return static_cast<uint16_t>(quotient + (up ? 1 : 0));
}

}  // namespace

uint64_t quantizedBytes(QuantType t, uint64_t n) {
  switch (t) {
    case QuantType::F32:
      return blocksBytes(n, 1, 4);
    case QuantType::F16:
    case QuantType::BF16:
      return blocksBytes(n, 1, 2);
    case QuantType::Q4_0:
      return blocksBytes(n, kBlock32, sizeof(Q40Block));
    case QuantType::Q8_0:
      return blocksBytes(n, kBlock32, sizeof(Q80Block));
    default:
      return quantizedBytesK(t, n);
  }
}

float f16ToF32(uint16_t h) {
  const uint32_t sign = (h & 0x8000U) << 16;
  const uint32_t exponent = (h >> 10) & 0x1FU;
  uint32_t mantissa = h & 0x3FFU;
  if (exponent == 31) return std::bit_cast<float>(sign | 0x7F800000U | (mantissa << 13));
  if (exponent != 0)
    return std::bit_cast<float>(sign | ((exponent + 112) << 23) | (mantissa << 13));
  if (mantissa == 0) return std::bit_cast<float>(sign);
  const auto shift = static_cast<uint32_t>(std::countl_zero(mantissa)) - 21;
  mantissa = (mantissa << shift) & 0x3FFU;
  return std::bit_cast<float>(sign | ((113 - shift) << 23) | (mantissa << 13));
}

uint16_t f32ToF16(float x) {
  const auto bits = std::bit_cast<uint32_t>(x);
  const uint32_t sign = (bits >> 16) & 0x8000U;
  const uint32_t exponent = (bits >> 23) & 0xFFU;
  const uint32_t mantissa = bits & 0x7FFFFFU;
  if (exponent == 255) return static_cast<uint16_t>(sign | (mantissa != 0 ? 0x7E00U : 0x7C00U));
  if (exponent > 142) return static_cast<uint16_t>(sign | 0x7C00U);
  if (exponent < 102) return static_cast<uint16_t>(sign);
  if (exponent < 113) return static_cast<uint16_t>(sign | subnormalHalf(exponent, mantissa));
  const uint32_t truncated = ((exponent - 112) << 10) | (mantissa >> 13);
  const uint32_t rest = mantissa & 0x1FFFU;
  const bool up = rest > 0x1000U || (rest == 0x1000U && (truncated & 1U) != 0);
  // A carry out of the mantissa moves the exponent up, at the top to infinity.
  return static_cast<uint16_t>(sign | (truncated + (up ? 1 : 0)));
}

void quantQ40(const float* src, void* dst, uint64_t n) {
  encodeBlocks<Q40Block, kBlock32>(src, dst, n, encodeQ40);
}

void quantQ80(const float* src, void* dst, uint64_t n) {
  encodeBlocks<Q80Block, kBlock32>(src, dst, n, encodeQ80);
}

}  // namespace quant
}  // namespace kiv
