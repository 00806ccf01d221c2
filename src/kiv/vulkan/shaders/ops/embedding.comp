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

const uint kBlockBytes = 210u;
const uint kHighBits = 128u;  // where the parts of a block begin
const uint kScales = 192u;
const uint kBlockScale = 208u;

// Element e of the block at byte `block`: (code - 32) * scale of the sixteenth * d.
float elementAt(uint block, uint e) {
  const uint half_ = e / 128u;
  const uint quarter = e % 128u / 32u;
  const uint l = e % 32u;
  const uint low = byteAt(block + 64u * half_ + 32u * (quarter & 1u) + l) >> (4u * (quarter >> 1));
  const uint high = byteAt(block + kHighBits + 32u * half_ + l) >> (2u * quarter);
  const int code = int((low & 15u) | ((high & 3u) << 4)) - 32;
  const int subScale = bitfieldExtract(int(byteAt(block + kScales + e / 16u)), 0, 8);
  return float(subScale * code) * halfAt(block + kBlockScale);
}

void main() {
  const uint e = invocationIndex();
  if (e >= width) return;
  y[e] = scale * elementAt(token * rowBytes + e / 256u * kBlockBytes, e % 256u);
}
