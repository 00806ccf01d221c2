// SPDX-License-Identifier: Apache-2.0
// y = x weight / sqrt(mean of x^2 + eps) for each token, or for those that are picked.
//
// Bindings: picks (a token's number for each row of y), x (tokens x width), weight (width), y.
// Push constants: width, eps, picked (0: row r of y is token r). Dispatch one workgroup a row
// of y, in z.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer Picks { uint picks[]; };
layout(std430, set = 0, binding = 1) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 2) readonly buffer Weight { float weight[]; };
layout(std430, set = 0, binding = 3) writeonly buffer Y { float y[]; };

layout(push_constant) uniform PC {
  uint width;
  float eps;
  uint picked;
};

shared float sRed[kLocal];

#include "workgroup_sum.glsl"

void main() {
  const uint row = gl_WorkGroupID.z;
  const uint from = (picked == 0u ? row : picks[row]) * width;
  float squares = 0.0;
  for (uint c = gl_LocalInvocationID.x; c < width; c += kLocal) squares += x[from + c] * x[from + c];
  const float factor = 1.0 / sqrt(workgroupSum(squares) / float(width) + eps);
  for (uint c = gl_LocalInvocationID.x; c < width; c += kLocal) {
    y[row * width + c] = x[from + c] * factor * weight[c];
  }
}
