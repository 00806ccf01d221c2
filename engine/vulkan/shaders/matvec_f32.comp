// SPDX-License-Identifier: Apache-2.0
// The product of an F32 matrix and a vector for each token: matvec_plain.glsl.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kUnit = 1u;

#include "matvec_plain.glsl"

float unitProduct(uint row, uint unit, uint first) {
  return uintBitsToFloat(w[row / 4u + unit]) * x[first];
}
