// SPDX-License-Identifier: Apache-2.0
// The random numbers of a sequence.
#pragma once

#include <cstdint>

namespace zem {

// SplitMix64 (Steele, Lea and Flood, "Fast splittable pseudorandom number generators", 2014):
// output i of seed s is a fixed scramble of s + (i + 1) * kStep, modulo 2^64.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}

  uint64_t next() {
    constexpr uint64_t kStep = 0x9E3779B97F4A7C15;
    uint64_t x = state_ += kStep;
    x = (x ^ (x >> 30U)) * 0xBF58476D1CE4E5B9;
    x = (x ^ (x >> 27U)) * 0x94D049BB133111EB;
    return x ^ (x >> 31U);
  }

  // From 0 to just below 1: the upper 53 bits of one output, times 2^-53.
  double fraction() { return static_cast<double>(next() >> 11U) * 0x1p-53; }

 private:
  uint64_t state_;
};

}  // namespace zem
