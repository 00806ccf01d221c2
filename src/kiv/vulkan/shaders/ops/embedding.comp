// SPDX-License-Identifier: Apache-2.0
// Embedding: y[e] = scale * W[token][e] for e < width, with W stored as Q6_K.
//
// Bindings: w (rows of 210-byte blocks of 256 elements; words, the last of which must be
// whole), y (width). Push constants: token (the row), width, rowBytes (bytes from one
// row to the next, even), scale. One invocation an element, one workgroup a block:
// ceil(width / 256) workgroups, in x and y. Neighbours take their bits from the same
// words, which the caches turn into one load.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 1) writeonly buffer Y { float y[]; };

layout(push_constant) uniform PC {
  uint token;
  uint width;
  uint rowBytes;
  float scale;
};

#include "grid.glsl"
#include "words.glsl"
#include "q6k_element.glsl"

void main() {
  const uint e = invocationIndex();
  if (e >= width) return;
  y[e] = scale * q6kElement(token * rowBytes + e / 256u * kQ6KBytes, e % 256u);
}
