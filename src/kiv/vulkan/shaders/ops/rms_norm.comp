// SPDX-License-Identifier: Apache-2.0
// RMSNorm: y[r][c] = x[r][c] * weight[c] / sqrt(mean over c of x[r][c]^2 + eps).
//
// Bindings: x (rows x width, row-major), weight (width), y (as x). Push constants:
// width (at least 1), eps. One workgroup a row, in x and y; workgroups beyond the
// rows that y holds do nothing. The 256 invocations of a workgroup walk the row side
// by side, so every load is contiguous, and meet once for the sum.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 1) readonly buffer Weight { float weight[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

layout(push_constant) uniform PC {
  uint width;
  float eps;
};

shared float sRed[kLocal];

#include "grid.glsl"
#include "workgroup_sum.glsl"

void main() {
  const uint row = workgroupIndex();
  if (row >= y.length() / width) return;
  const uint start = row * width;

  float squares = 0.0;
  for (uint c = gl_LocalInvocationID.x; c < width; c += kLocal) {
    squares += x[start + c] * x[start + c];
  }
  const float factor = 1.0 / sqrt(workgroupSum(squares) / float(width) + eps);
  for (uint c = gl_LocalInvocationID.x; c < width; c += kLocal) {
    y[start + c] = x[start + c] * factor * weight[c];
  }
}
