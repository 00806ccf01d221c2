// SPDX-License-Identifier: Apache-2.0
// What the block codecs share: sizes, rounding, and the walk over blocks whose
// last one may be partial. Internal to the library.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kiv/math/checked.h"

namespace kiv::quant {

// Bytes of the blocks that hold `n` elements, the last one counting whole; 0
// when that does not fit 64 bits.
constexpr uint64_t blocksBytes(uint64_t n, uint64_t elementsPerBlock, uint64_t bytesPerBlock) {
  const uint64_t blocks = n / elementsPerBlock + (n % elementsPerBlock != 0 ? 1 : 0);
  uint64_t bytes = 0;
  return checkedMul(blocks, bytesPerBlock, bytes) ? bytes : 0;
}

// `x` as an integer code within [lo, hi], cut toward zero. The range check comes
// first, in float: converting a float that no int can hold is undefined.
inline int truncateToCode(float x, int lo, int hi) {
  const auto low = static_cast<float>(lo);
  const auto high = static_cast<float>(hi);
  x = x > low ? x : low;
  x = x < high ? x : high;
  return static_cast<int>(x);
}

// NaN replaced by zero. What is left of a block after 0 / 0 or 0 * infinity is
// an element that its scale cannot tell from zero.
inline float zeroIfNan(float x) { return x == x ? x : 0.0F; }

// `x` rounded half away from zero (add half of its sign, cut), within [lo, hi].
// NaN counts as zero.
inline int roundToCode(float x, int lo, int hi) {
  x = zeroIfNan(x);
  return truncateToCode(x + std::copysign(0.5F, x), lo, hi);
}

// Reductions over eight independent chains, which compilers turn into vector
// code although they may not reorder a comparison chain on their own. Minima
// and maxima do not depend on the order. `count` is a multiple of 8.
inline constexpr size_t kLanes = 8;

inline float largest(const float* x, size_t count) {
  std::array<float, kLanes> best;
  std::copy_n(x, kLanes, best.begin());
  for (size_t i = kLanes; i < count; i += kLanes) {
    for (size_t l = 0; l < kLanes; ++l) best[l] = x[i + l] > best[l] ? x[i + l] : best[l];
  }
  return *std::max_element(best.begin(), best.end());
}

inline float smallest(const float* x, size_t count) {
  std::array<float, kLanes> best;
  std::copy_n(x, kLanes, best.begin());
  for (size_t i = kLanes; i < count; i += kLanes) {
    for (size_t l = 0; l < kLanes; ++l) best[l] = x[i + l] < best[l] ? x[i + l] : best[l];
  }
  return *std::min_element(best.begin(), best.end());
}

inline float largestMagnitude(const float* x, size_t count) {
  std::array<float, kLanes> best{};
  for (size_t i = 0; i < count; i += kLanes) {
    for (size_t l = 0; l < kLanes; ++l) {
      const float magnitude = std::fabs(x[i + l]);
      best[l] = magnitude > best[l] ? magnitude : best[l];
    }
  }
  return *std::max_element(best.begin(), best.end());
}

// Calls encode(const float* x, Block& out) for each run of `kElements` floats of
// `src` and stores the blocks at `dst`, which needs no alignment. The last run
// is padded with zeros; NaN becomes zero on the way in.
template <typename Block, size_t kElements, typename Encode>
void encodeBlocks(const float* src, void* dst, uint64_t n, Encode encode) {
  auto* out = static_cast<unsigned char*>(dst);
  while (n > 0) {
    const auto count = static_cast<size_t>(std::min<uint64_t>(n, kElements));
    std::array<float, kElements> x;
    std::transform(src, src + count, x.begin(), zeroIfNan);
    std::fill(x.begin() + count, x.end(), 0.0F);
    Block block;
    encode(x.data(), block);
    std::memcpy(out, &block, sizeof(block));
    src += count;
    out += sizeof(block);
    n -= count;
  }
}

// Calls decode(const Block& block, float* y) for each block at `src`, which
// needs no alignment, and stores the first `n` results at `dst`.
template <typename Block, size_t kElements, typename Decode>
void decodeBlocks(const void* src, float* dst, uint64_t n, Decode decode) {
  const auto* in = static_cast<const unsigned char*>(src);
  // A local copy tells the compiler that storing results changes no input.
  Block block;
  for (; n >= kElements; n -= kElements) {
    std::memcpy(&block, in, sizeof(block));
    decode(block, dst);
    in += sizeof(block);
    dst += kElements;
  }
  if (n == 0) return;
  std::array<float, kElements> y;
  std::memcpy(&block, in, sizeof(block));
  decode(block, y.data());
  std::copy_n(y.begin(), n, dst);
}

}  // namespace kiv::quant
