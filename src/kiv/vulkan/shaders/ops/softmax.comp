// SPDX-License-Identifier: Apache-2.0
// Softmax: y[r][c] = exp(x[r][c] - m) / sum over c of exp(x[r][c] - m), with m the
// largest element of row r. Minus infinity becomes 0; a row of nothing else becomes
// all 0.
//
// Bindings: x (rows x width, row-major), y (as x). Push constants: width (at least
// 1). One workgroup a row, in x and y; workgroups beyond the rows that y holds do
// nothing. The 256 invocations of a workgroup walk the row side by side, so every
// load is contiguous. One pass finds both the largest element and the sum, so a row
// too long for the caches is read twice, not three times.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 1) writeonly buffer Y { float y[]; };

layout(push_constant) uniform PC { uint width; };

shared float sMax[kLocal];
shared float sRed[kLocal];

#include "grid.glsl"
#include "softmax_parts.glsl"

void main() {
  const uint row = workgroupIndex();
  if (row >= y.length() / width) return;
  const uint start = row * width;

  vec2 parts = kNoParts;
  for (uint c = gl_LocalInvocationID.x; c < width; c += kLocal) {
    parts = addPart(parts, x[start + c]);
  }
  parts = workgroupParts(parts);
  const float factor = inverseOfSum(parts.y);
  for (uint c = gl_LocalInvocationID.x; c < width; c += kLocal) {
    y[start + c] = exp(x[start + c] - parts.x) * factor;
  }
}
