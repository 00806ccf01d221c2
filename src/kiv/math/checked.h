// SPDX-License-Identifier: Apache-2.0
// Arithmetic on sizes that a file states.
#pragma once

#include <cstdint>
#include <limits>

namespace kiv {

// product = a * b. False, with no meaning in `product`, when that does not fit 64 bits.
[[nodiscard]] constexpr bool checkedMul(uint64_t a, uint64_t b, uint64_t& product) {
  return !__builtin_mul_overflow(a, b, &product);
}

// What does not fit 64 bits becomes kSaturated.
inline constexpr uint64_t kSaturated = std::numeric_limits<uint64_t>::max();

constexpr uint64_t saturatingMul(uint64_t a, uint64_t b) {
  uint64_t product = 0;
  return checkedMul(a, b, product) ? product : kSaturated;
}

constexpr uint64_t saturatingAdd(uint64_t a, uint64_t b) {
  uint64_t sum = 0;
  return __builtin_add_overflow(a, b, &sum) ? kSaturated : sum;
}

}  // namespace kiv
