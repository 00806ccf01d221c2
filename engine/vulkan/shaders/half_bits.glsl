// SPDX-License-Identifier: Apache-2.0
// The bits of a float rounded to half precision, to nearest, ties to even. The built-in function
// may round either way.
uint halfBits(float x) {
  const uint bits = floatBitsToUint(x);
  const uint sign = bits >> 16 & 0x8000u;
  const uint magnitude = bits & 0x7fffffffu;
  if (magnitude > 0x7f800000u) return sign | 0x7e00u;   // NaN
  if (magnitude >= 0x47800000u) return sign | 0x7c00u;  // from 65536 on
  if (magnitude < 0x38800000u) {                        // below the least normal half
    return sign | uint(roundEven(uintBitsToFloat(magnitude) * 16777216.0));
  }
  const uint rounded = magnitude + 0xfffu + (magnitude >> 13 & 1u);
  return sign | (rounded - 0x38000000u) >> 13;
}
