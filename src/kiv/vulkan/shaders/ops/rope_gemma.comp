// SPDX-License-Identifier: Apache-2.0
// RopeGemma: rotary embedding of one token; the formula is in rope_gemma.glsl.
//
// Bindings: x (heads x headDim), freqFactors (rotated / 2, all 1 for none), y (as x).
// Push constants: heads, headDim, rotated (even, at most headDim), base, position. One
// invocation a pair or a copied element, 256 a workgroup:
// ceil(heads * (headDim - rotated / 2) / 256) workgroups, in x and y. Neighbours own
// neighbouring pairs, so both halves are loaded and stored contiguously; no table of
// angles has to be kept, and arithmetic is free where memory is the limit.
#version 450
#extension GL_GOOGLE_include_directive : require

#include "rope_gemma.glsl"

#include "grid.glsl"

layout(push_constant) uniform PC {
  uint heads;
  uint headDim;
  uint rotated;
  float base;
  uint position;
};

void main() {
  const uint units = unitsOfHead(headDim, rotated);
  const uint index = invocationIndex();
  if (index >= heads * units) return;
  rotateUnit(index / units * headDim, index % units, rotated, base, position);
}
