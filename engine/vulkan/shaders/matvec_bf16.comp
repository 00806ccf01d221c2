// SPDX-License-Identifier: Apache-2.0
// The product of a BF16 matrix and a vector for each token: matvec_plain.glsl. A unit is a pair
// of weights; where k is odd, rows begin inside a word, and the last unit has one weight.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kUnit = 2u;

#include "matvec_plain.glsl"

float unitProduct(uint row, uint unit, uint first) {
  const uint at = row + 4u * unit;
  const uint low = pairAt(at);
  if (2u * unit + 1u == k) return uintBitsToFloat(low << 16) * x[first];
  return uintBitsToFloat(low << 16) * x[first] +
         uintBitsToFloat(pairAt(at + 2u) << 16) * x[first + 1u];
}
