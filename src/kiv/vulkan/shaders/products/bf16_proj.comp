// SPDX-License-Identifier: Apache-2.0
// Bf16Proj: y = scale * W x, with W (n x k, row-major) in BF16.
//
// Bindings: w (two weights a word, the even one in the low half; rows follow each other
// without a gap, so with odd k every other row begins inside a word), x (k), y (n). Push
// constants: n, k, scale. One invocation a row, 256 rows a workgroup: ceil(n / 256)
// workgroups, in x and y. No invocation needs another, and all read the same x at the
// same time; the rows themselves are read with a stride and live off the caches, so
// this suits short rows and many of them (Bf16GemvV1 suits long ones).
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

#include "grid.glsl"

layout(std430, set = 0, binding = 0) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 1) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

layout(push_constant) uniform PC {
  uint n;
  uint k;
  float scale;
};

float weightAt(uint i) { return uintBitsToFloat((w[i >> 1] >> ((i & 1u) * 16u)) << 16); }

void main() {
  const uint row = invocationIndex();
  if (row >= n) return;
  float sum = 0.0;
  for (uint c = 0u; c < k; ++c) sum += weightAt(row * k + c) * x[c];
  y[row] = scale * sum;
}
