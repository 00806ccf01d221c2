// SPDX-License-Identifier: Apache-2.0
// fmaf() with one rounding. The function of mingw-w64's C library rounds more than once when
// it does not use the processor's instruction. The decoder's results must be the same bits on
// every processor and system.
#include <bit>
#include <cmath>
#include <cstdint>

// Boldo and Melquiond, "Emulation of FMA and correctly rounded sums: proved
// algorithms using rounding to odd" (2008): a product of floats is exact in double,
// and a sum that is rounded to odd there keeps enough for the rounding to float.
float fmaf(float x, float y, float z) {
  const double product = static_cast<double>(x) * y;
  const double sum = product + z;
  if (!std::isfinite(sum)) return static_cast<float>(sum);
  // What the addition rounded away (Knuth's TwoSum).
  const double part = sum - product;
  const double error = (product - (sum - part)) + (z - part);
  auto bits = std::bit_cast<uint64_t>(sum);
  if (error != 0 && (bits & 1) == 0) {
    // Towards the exact sum; away from zero is up in the bits.
    bits += (error > 0) == (sum > 0) ? uint64_t{1} : ~uint64_t{0};
  }
  return static_cast<float>(std::bit_cast<double>(bits));
}
