// SPDX-License-Identifier: Apache-2.0
// Activations to integers of 14 bits: reference::roundBlock, and the layouts of RoundedVector and
// RoundTokens. Plain loops, which compilers turn into vector code.
#pragma once

#include <cstring>

#include "kernels/integer_kernels.h"

namespace qwen35 {
namespace {

struct RoundedColumns {
  float scale;
  int32_t q[kRoundedColumns + 16];     // with zeros behind the last column
  int32_t sums[kRoundedColumns / 16];  // of 16 columns
};

// Rounds `n` columns; those behind them become zeros.
inline void roundColumns(const float* x, size_t n, RoundedColumns& out) {
  constexpr int32_t kInfinity = 0x7F800000;
  constexpr int32_t kSmallest = 0x0D800000;  // 2^-100
  float padded[kRoundedColumns];
  if (n < kRoundedColumns) {
    std::memset(padded, 0, sizeof(padded));
    std::memcpy(padded, x, n * sizeof(float));
    x = padded;
  }
  // As integers, magnitudes are in the order of their floats, with infinity and NaN above.
  int32_t largest = 0;
  for (size_t c = 0; c < kRoundedColumns; ++c) {
    const auto bits = __builtin_bit_cast(int32_t, x[c]) & 0x7FFFFFFF;
    largest = bits > largest ? bits : largest;
  }
  if (largest >= kInfinity || largest < kSmallest) {
    out = {};
    out.scale = largest >= kInfinity ? __builtin_nanf("") : 0.0F;
    return;
  }
  out.scale = __builtin_bit_cast(float, largest) / 8191.0F;
  const float inverse = 8191.0F / __builtin_bit_cast(float, largest);
  // Adding 1.5 * 2^23 rounds to an integer, ties to even, and leaves it in the lowest bits.
  constexpr float kRounder = 0x1.8p23F;
  for (size_t c = 0; c < kRoundedColumns; ++c) {
    const float rounded = x[c] * inverse + kRounder;
    out.q[c] = __builtin_bit_cast(int32_t, rounded) - __builtin_bit_cast(int32_t, kRounder);
  }
  std::memset(out.q + kRoundedColumns, 0, sizeof(out.q) - kRoundedColumns * sizeof(int32_t));
  for (size_t i = 0; i < kRoundedColumns / 16; ++i) {
    int32_t sum = 0;
    for (size_t c = 0; c < 16; ++c) sum += out.q[16 * i + c];
    out.sums[i] = sum;
  }
}

inline uint32_t packHalves(int32_t low, int32_t high) {
  return (static_cast<uint32_t>(low) & 0xFFFF) | static_cast<uint32_t>(high) << 16;
}

// low + 256 * high = sum, with low in -128 to 127; each half times `factor`.
inline uint32_t halvesOf(int32_t sum, int32_t factor) {
  const int32_t low = ((sum + 128) & 0xFF) - 128;
  const int32_t high = (sum - low) >> 8;
  return packHalves(low * factor, high * factor);
}

inline int32_t sumOf32(const RoundedColumns& block, size_t i) {
  return block.sums[2 * i] + block.sums[2 * i + 1];
}

// q = 128 * high + low with high in -64 to 64 and low in -64 to 63: both fit a byte, and no sum
// of two products with codes of eight bits overflows 16.
inline void splitBytes(const int32_t* q, uint32_t (*words)[2]) {
  int8_t high[kRoundedColumns];
  int8_t low[kRoundedColumns];
  for (size_t c = 0; c < kRoundedColumns; ++c) {
    const int32_t upper = (q[c] + 64) >> 7;
    high[c] = static_cast<int8_t>(upper);
    low[c] = static_cast<int8_t>(q[c] - 128 * upper);
  }
  for (size_t w = 0; w < kRoundedColumns / 4; ++w) {
    std::memcpy(&words[w][0], high + 4 * w, 4);
    std::memcpy(&words[w][1], low + 4 * w, 4);
  }
}

// Columns c and c + 2 in one word, for every c: of four, the first two count.
inline void pairColumns(const int32_t* q, uint32_t (&pairs)[kRoundedColumns]) {
  for (size_t c = 0; c < kRoundedColumns; ++c) pairs[c] = packHalves(q[c], q[c + 2]);
}

inline void splitPairs(const int32_t* q, uint32_t (*words)[2]) {
  uint32_t pairs[kRoundedColumns];
  pairColumns(q, pairs);
  for (size_t w = 0; w < kRoundedColumns / 4; ++w) {
    std::memcpy(words[w], pairs + 4 * w, sizeof(words[w]));
  }
}

inline size_t columnsOfBlock(size_t cols, size_t block) {
  const size_t left = cols - block * kRoundedColumns;
  return left < kRoundedColumns ? left : kRoundedColumns;
}

// See RoundVector.
template <class V>
void roundVector(const float* x, size_t cols, RoundedVector* blocks) {
  for (size_t b = 0; b * kRoundedColumns < cols; ++b) {
    RoundedColumns block;
    roundColumns(x + b * kRoundedColumns, columnsOfBlock(cols, b), block);
    RoundedVector& out = blocks[b];
    if constexpr (V::kSplitsBytes) {
      splitBytes(block.q, out.words);
    } else {
      splitPairs(block.q, out.words);
    }
    for (size_t i = 0; i < 8; ++i) {
      out.sums[i] = halvesOf(sumOf32(block, i), 1);
      out.minus128Sums[i] = -128 * sumOf32(block, i);
    }
    for (size_t i = 0; i < 16; ++i) out.minus32Sums[i] = halvesOf(block.sums[i], -32);
    out.scale = block.scale;
  }
}

// Token t's words of one block of a group of `count`.
inline void placeToken(const RoundedColumns& block, size_t count, uint32_t* out) {
  for (size_t i = 0; i < kSumRows; ++i) out[i * count] = halvesOf(sumOf32(block, i), 1);
  out += kSumRows * count;
  uint32_t pairs[kRoundedColumns];
  pairColumns(block.q, pairs);
  for (size_t w = 0; w < kRoundedColumns / 4; ++w) {
    out[2 * w * count] = pairs[4 * w];
    out[(2 * w + 1) * count] = pairs[4 * w + 1];
  }
  std::memcpy(out + kPairRows * count, &block.scale, sizeof(float));
}

// See RoundTokens.
template <class V>
void roundTokens(const float* x, size_t stride, size_t tokens, size_t cols, size_t begin,
                 size_t end, uint32_t* packed) {
  const size_t blocks = (cols + kRoundedColumns - 1) / kRoundedColumns;
  for (size_t first = 0; first < tokens; first += V::kIntegerTokens) {
    const size_t count = tokens - first < V::kIntegerTokens ? tokens - first : V::kIntegerTokens;
    uint32_t* group = packed + first * blocks * kTokenWords;
    for (size_t b = begin; b < end; ++b) {  // the tokens of a block share its cache lines
      for (size_t t = 0; t < count; ++t) {
        RoundedColumns block;
        roundColumns(x + (first + t) * stride + b * kRoundedColumns, columnsOfBlock(cols, b),
                     block);
        placeToken(block, count, group + b * kTokenWords * count + t);
      }
    }
  }
}

}  // namespace
}  // namespace qwen35
