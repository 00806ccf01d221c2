// SPDX-License-Identifier: Apache-2.0
#include "kernels/integer_reference.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "kiv/quant.h"
#include "kiv/quant_k.h"

namespace qwen35::reference {
namespace {

using kiv::quant::f16ToF32;

constexpr float kLargestInteger = 8191;
constexpr float kSmallestMagnitude = 0x1p-100F;

// A block's value: its parts in order, each an exact sum of integers, rounded to float, times the
// part's scale.
class Parts {
 public:
  void add(int64_t sum, float scale) { value_ += static_cast<float>(sum) * scale; }
  float value() const { return value_; }

 private:
  float value_ = 0;
};

template <typename Block>
Block blockAt(const uint8_t* at) {
  Block block;
  std::memcpy(&block, at, sizeof(block));
  return block;
}

int64_t sumOf(const int32_t* q, size_t n) {
  int64_t sum = 0;
  for (size_t i = 0; i < n; ++i) sum += q[i];
  return sum;
}

// Bits 2c of fifth[l] for the low nibbles, 2c + 1 for the high ones; Q4_K has none.
int fifthBit(const kiv::quant::Q4KBlock& /*block*/, size_t /*l*/, size_t /*bit*/) { return 0; }
int fifthBit(const kiv::quant::Q5KBlock& block, size_t l, size_t bit) {
  return (block.qh[l] >> bit & 1) << 4;
}

// Q4_K and Q5_K: the minima, then codes of sub-blocks of 32 columns, in parts of `partColumns`.
template <typename Block>
float affineBlock(const Block& block, const int32_t* q, size_t partColumns) {
  uint8_t scales[8];
  uint8_t minima[8];
  int64_t sumOfMinima = 0;
  for (size_t j = 0; j < 8; ++j) {
    kiv::quant::getScaleMinK4(static_cast<int>(j), block.scales, scales[j], minima[j]);
    sumOfMinima += minima[j] * sumOf(q + 32 * j, 32);
  }
  Parts parts;
  parts.add(sumOfMinima, -f16ToF32(block.dmin));
  int64_t sum = 0;
  for (size_t j = 0; j < 8; ++j) {
    for (size_t l = 0; l < 32; ++l) {
      const uint8_t byte = block.qs[32 * (j / 2) + l];
      const int code = (j % 2 == 0 ? byte & 0xF : byte >> 4) | fifthBit(block, l, j);
      sum += static_cast<int64_t>(scales[j]) * code * q[32 * j + l];
    }
    if (32 * (j + 1) % partColumns == 0) {
      parts.add(sum, f16ToF32(block.d));
      sum = 0;
    }
  }
  return parts.value();
}

// Q6_K: sub-blocks of 16 columns, in parts of 64.
float blockQ6K(const kiv::quant::Q6KBlock& block, const int32_t* q) {
  Parts parts;
  int64_t sum = 0;
  for (size_t c = 0; c < kRoundedColumns; ++c) {
    const size_t half = c / 128;
    const size_t quarter = c % 128 / 32;
    const size_t l = c % 32;
    const int low = block.ql[64 * half + 32 * (quarter % 2) + l] >> (quarter < 2 ? 0 : 4) & 0xF;
    const int high = block.qh[32 * half + l] >> (2 * quarter) & 3;
    sum += static_cast<int64_t>(block.scales[c / 16]) * ((high << 4 | low) - 32) * q[c];
    if ((c + 1) % 64 == 0) {
      parts.add(sum, f16ToF32(block.d));
      sum = 0;
    }
  }
  return parts.value();
}

// Q8_0: every stored block of 32 columns is a part.
float blocksQ80(const uint8_t* row, const int32_t* q, size_t columns) {
  Parts parts;
  for (size_t c = 0; c < columns; c += kiv::quant::kBlock32) {
    const auto block = blockAt<kiv::quant::Q80Block>(row);
    int64_t sum = 0;
    for (size_t l = 0; l < kiv::quant::kBlock32; ++l) sum += block.qs[l] * q[c + l];
    parts.add(sum, f16ToF32(block.d));
    row += sizeof(block);
  }
  return parts.value();
}

float blockValue(kiv::DType type, const uint8_t* row, const int32_t* q, size_t columns) {
  switch (type) {
    case kiv::DType::Q4_K:
      return affineBlock(blockAt<kiv::quant::Q4KBlock>(row), q, 256);
    case kiv::DType::Q5_K:
      return affineBlock(blockAt<kiv::quant::Q5KBlock>(row), q, 128);
    case kiv::DType::Q6_K:
      return blockQ6K(blockAt<kiv::quant::Q6KBlock>(row), q);
    default:
      return blocksQ80(row, q, columns);
  }
}

}  // namespace

RoundedBlock roundBlock(const float* x, size_t n) {
  RoundedBlock block{};
  float largest = 0;
  for (size_t c = 0; c < n; ++c) {
    if (!std::isfinite(x[c])) {
      block.scale = std::numeric_limits<float>::quiet_NaN();
      return block;
    }
    largest = std::max(largest, std::fabs(x[c]));
  }
  if (largest < kSmallestMagnitude) return block;
  block.scale = largest / kLargestInteger;
  const float inverse = kLargestInteger / largest;
  for (size_t c = 0; c < n; ++c) {
    block.q[c] = static_cast<int32_t>(std::nearbyint(x[c] * inverse));  // ties to even
  }
  return block;
}

float integerDot(kiv::DType type, const void* row, const RoundedBlock* x, size_t cols) {
  const auto* at = static_cast<const uint8_t*>(row);
  float sum = 0;
  for (size_t c = 0; c < cols; c += kRoundedColumns) {
    const size_t columns = std::min(kRoundedColumns, cols - c);
    const RoundedBlock& block = x[c / kRoundedColumns];
    sum += blockValue(type, at, block.q, columns) * block.scale;
    at += kiv::dtypeBytes(type, columns);
  }
  return sum;
}

}  // namespace qwen35::reference
