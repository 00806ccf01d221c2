// SPDX-License-Identifier: Apache-2.0
// The product of a Q8_0 matrix and a vector for each token: matvec_plain.glsl. A unit is four
// elements of a block.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kUnit = 4u;

#include "matvec_plain.glsl"
#include "q8_0_codes.glsl"

float unitProduct(uint row, uint unit, uint first) {
  const uint block = row + unit / 8u * kQ8_0Bytes;
  return halfAt(block) * dot(q8_0Codes(block, unit % 8u),
                             vec4(x[first], x[first + 1u], x[first + 2u], x[first + 3u]));
}
