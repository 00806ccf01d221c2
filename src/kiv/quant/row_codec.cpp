// SPDX-License-Identifier: Apache-2.0
#include "kiv/quant/row_codec.h"

#include <bit>
#include <cstddef>
#include <cstring>

#include "kiv/dequant.h"
#include "kiv/quant/bf16.h"
#include "kiv/quant_k.h"

namespace kiv {
namespace {

void encodeBf16(const float* src, uint64_t n, uint8_t* dst) {
  for (uint64_t i = 0; i < n; ++i) {
    const bool isNan = src[i] != src[i];
    const auto upper = static_cast<uint16_t>(std::bit_cast<uint32_t>(src[i]) >> 16U);
    const uint16_t half = isNan ? static_cast<uint16_t>(upper | 0x40U) : f32ToBf16(src[i]);
    std::memcpy(dst + 2 * i, &half, sizeof half);
  }
}

// Numbers of type T, `stride` bytes apart, none with all the exponent bits set.
template <typename T>
bool allFinite(const uint8_t* src, uint64_t bytes, uint64_t stride, size_t offset, T exponent) {
  unsigned bad = 0;
  for (uint64_t at = offset; at + sizeof(T) <= bytes; at += stride) {
    T bits = 0;
    std::memcpy(&bits, src + at, sizeof bits);
    bad |= (bits & exponent) == exponent ? 1U : 0U;
  }
  return bad == 0;
}

template <typename Block>
bool halfIsFinite(const uint8_t* src, uint64_t bytes, size_t offset) {
  return allFinite<uint16_t>(src, bytes, sizeof(Block), offset, 0x7C00);
}

}  // namespace

bool hasRowCodec(DType type) {
  switch (type) {
    case DType::F32:
    case DType::BF16:
    case DType::Q8_0:
    case DType::Q4_K:
    case DType::Q5_K:
    case DType::Q6_K:
      return true;
    default:
      return false;
  }
}

bool isKQuant(DType type) {
  return type == DType::Q4_K || type == DType::Q5_K || type == DType::Q6_K;
}

void encodeRow(DType type, const float* src, uint64_t n, void* dst) {
  switch (type) {
    case DType::F32:
      std::memcpy(dst, src, n * sizeof(float));
      return;
    case DType::BF16:
      return encodeBf16(src, n, static_cast<uint8_t*>(dst));
    case DType::Q8_0:
      return quant::quantQ80(src, dst, n);
    case DType::Q4_K:
      return quant::quantQ4K(src, dst, n);
    case DType::Q5_K:
      return quant::quantQ5K(src, dst, n);
    case DType::Q6_K:
      return quant::quantQ6K(src, dst, n);
    default:
      return;
  }
}

void decodeRow(DType type, const void* src, uint64_t n, float* dst) {
  switch (type) {
    case DType::F32:
      std::memcpy(dst, src, n * sizeof(float));
      return;
    case DType::BF16:
      return widenBf16(src, n, dst);
    case DType::Q8_0:
      return quant::dequantQ80(src, dst, n);
    case DType::Q4_K:
      return quant::dequantQ4K(src, dst, n);
    case DType::Q5_K:
      return quant::dequantQ5K(src, dst, n);
    case DType::Q6_K:
      return quant::dequantQ6K(src, dst, n);
    default:
      return;
  }
}

bool rowIsFinite(DType type, const void* src, uint64_t bytes) {
  const auto* from = static_cast<const uint8_t*>(src);
  switch (type) {
    case DType::F32:
      return allFinite<uint32_t>(from, bytes, sizeof(float), 0, 0x7F800000);
    case DType::BF16:
      return allFinite<uint16_t>(from, bytes, sizeof(uint16_t), 0, 0x7F80);
    case DType::Q8_0:
      return halfIsFinite<quant::Q80Block>(from, bytes, offsetof(quant::Q80Block, d));
    case DType::Q4_K:
      return halfIsFinite<quant::Q4KBlock>(from, bytes, offsetof(quant::Q4KBlock, d)) &&
             halfIsFinite<quant::Q4KBlock>(from, bytes, offsetof(quant::Q4KBlock, dmin));
    case DType::Q5_K:
      return halfIsFinite<quant::Q5KBlock>(from, bytes, offsetof(quant::Q5KBlock, d)) &&
             halfIsFinite<quant::Q5KBlock>(from, bytes, offsetof(quant::Q5KBlock, dmin));
    case DType::Q6_K:
      return halfIsFinite<quant::Q6KBlock>(from, bytes, offsetof(quant::Q6KBlock, d));
    default:
      return true;
  }
}

}  // namespace kiv
