// SPDX-License-Identifier: Apache-2.0
// What the tests of the block formats share: repeatable inputs, outputs with
// guards, and slow readings of packed fields written apart from the library.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace zemtest {

// Counts around both block sizes: none, one, and every way to be partial.
inline constexpr uint64_t kCounts[] = {0,   1,   2,   31,  32,  33,  63,  64,  65, 127,
                                       255, 256, 257, 288, 300, 511, 512, 513, 800};

inline std::vector<uint8_t> randomBytes(uint32_t seed, size_t n) {
  std::mt19937 random(seed);
  std::vector<uint8_t> bytes(n);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random() >> 24);
  return bytes;
}

// Uniform in [low, high).
inline std::vector<float> randomFloats(uint32_t seed, size_t n, float low = -1, float high = 1) {
  std::mt19937 random(seed);
  std::vector<float> x(n);
  for (float& v : x) v = low + (high - low) * (static_cast<float>(random() >> 8) * 0x1p-24F);
  return x;
}

// The value of a half, from its definition.
inline float halfValue(uint16_t h) {
  const int exponent = (h >> 10) & 0x1F;
  const int mantissa = h & 0x3FF;
  const float sign = (h & 0x8000) != 0 ? -1.0F : 1.0F;
  if (exponent == 31) {
    return mantissa != 0 ? std::numeric_limits<float>::quiet_NaN()
                         : sign * std::numeric_limits<float>::infinity();
  }
  const int significand = exponent == 0 ? mantissa : mantissa + 1024;
  return sign * std::ldexp(static_cast<float>(significand), std::max(exponent, 1) - 25);
}

inline uint16_t halfAt(const uint8_t* bytes) {
  return static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
}

inline void putHalf(uint8_t* bytes, uint16_t h) {
  bytes[0] = static_cast<uint8_t>(h & 0xFF);
  bytes[1] = static_cast<uint8_t>(h >> 8);
}

// `count` bits of `byte` from bit `from` upward.
inline int bitsOf(uint8_t byte, int from, int count) { return (byte >> from) & ((1 << count) - 1); }

// Scale and minimum of sub-block j, from the picture of the 12 bytes: bytes 0-3
// are the low scales, 4-7 the low minima, 8-11 nibble pairs of the four high
// sub-blocks, whose top bits ride on bytes 0-3 (scales) and 4-7 (minima).
inline int packedScale(const uint8_t* q, int j) {
  return j < 4 ? bitsOf(q[j], 0, 6) : bitsOf(q[4 + j], 0, 4) + 16 * bitsOf(q[j - 4], 6, 2);
}
inline int packedMin(const uint8_t* q, int j) {
  return j < 4 ? bitsOf(q[4 + j], 0, 6) : bitsOf(q[4 + j], 4, 4) + 16 * bitsOf(q[j], 6, 2);
}

// Room for `size` bytes at an odd address between guards that must survive.
class GuardedBytes {
 public:
  explicit GuardedBytes(size_t size) : size_(size), bytes_(size + 2 * kGuard + 1, kFill) {
    if (reinterpret_cast<uintptr_t>(bytes_.data()) % 2 == kGuard % 2) start_ = kGuard + 1;
  }
  uint8_t* data() { return bytes_.data() + start_; }
  size_t size() const { return size_; }
  std::vector<uint8_t> contents() { return {data(), data() + size_}; }
  bool guardsIntact() const {
    const auto isFill = [](uint8_t b) { return b == kFill; };
    return std::all_of(bytes_.begin(), bytes_.begin() + start_, isFill) &&
           std::all_of(bytes_.begin() + start_ + static_cast<std::ptrdiff_t>(size_), bytes_.end(),
                       isFill);
  }

 private:
  static constexpr std::ptrdiff_t kGuard = 64;
  static constexpr uint8_t kFill = 0xA5;
  std::ptrdiff_t start_ = kGuard;
  size_t size_;
  std::vector<uint8_t> bytes_;
};

inline std::vector<uint32_t> bitsOf(const std::vector<float>& x) {
  std::vector<uint32_t> bits;
  bits.reserve(x.size());
  for (const float v : x) bits.push_back(std::bit_cast<uint32_t>(v));
  return bits;
}

// The rule of every encoder but Q4_0: add half of the sign, cut.
inline int roundHalfAway(float x) { return static_cast<int>(x >= 0.0F ? x + 0.5F : x - 0.5F); }

struct NamedInput {
  std::string name;
  std::vector<float> x;
};

// Finite rows of 800 elements (partial in either block size), each kind awkward
// in its own way.
inline std::vector<NamedInput> finiteInputs() {
  constexpr size_t kCount = 800;
  std::vector<NamedInput> inputs = {
      {"weights", randomFloats(1, kCount, -0.05F, 0.05F)},
      {"positive", randomFloats(2, kCount, 0.5F, 3.0F)},
      {"negative", randomFloats(3, kCount, -7.0F, -0.25F)},
      {"large", randomFloats(4, kCount, -200000.0F, 200000.0F)},
      {"scales of a few subnormal units", randomFloats(5, kCount, -1e-3F, 1e-3F)},
      {"scales below half precision", randomFloats(6, kCount, -1e-7F, 1e-7F)},
      {"tiny", randomFloats(7, kCount, -1e-33F, 1e-33F)},
      {"zeros", std::vector<float>(kCount, 0.0F)},
      {"negative zeros", std::vector<float>(kCount, -0.0F)},
      {"constant", std::vector<float>(kCount, 0.75F)},
      {"negative constant", std::vector<float>(kCount, -0.75F)},
  };
  std::vector<float> ties(kCount);  // exact halves of a step of 1, and equal magnitudes
  for (size_t i = 0; i < kCount; ++i) ties[i] = static_cast<float>(i * 37 % 511) / 2.0F - 127.5F;
  for (size_t i = 0; i < kCount; i += 16) ties[i] = i % 32 == 0 ? -127.0F : 127.0F;
  inputs.push_back({"ties", ties});
  std::vector<float> spikes(kCount, 0.0F);
  for (size_t i = 5; i < kCount; i += 67) spikes[i] = i % 2 == 0 ? 4.0F : -4.0F;
  inputs.push_back({"spikes", spikes});
  std::vector<float> spread(kCount);  // sub-blocks of very unequal size
  const std::vector<float> unit = randomFloats(8, kCount, -1.0F, 1.0F);
  for (size_t i = 0; i < kCount; ++i)
    spread[i] = std::ldexp(unit[i], -static_cast<int>(i / 16 % 16));
  inputs.push_back({"spread", spread});
  return inputs;
}

// Halves that are finite: random payloads with the exponent kept below 31.
inline uint16_t finiteHalf(uint16_t h) {
  return (h & 0x7C00) == 0x7C00 ? static_cast<uint16_t>(h & ~0x4000) : h;
}

}  // namespace zemtest
