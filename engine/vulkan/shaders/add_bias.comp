// SPDX-License-Identifier: Apache-2.0
// y[t][i] += bias[i] for each token t.
//
// Bindings: bias (width), y (tokens x width). Push constants: width. Dispatch ceil(width / 256)
// workgroups in x, the tokens in z.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer Bias { float bias[]; };
layout(std430, set = 0, binding = 1) buffer Y { float y[]; };

layout(push_constant) uniform PC { uint width; };

void main() {
  const uint i = gl_WorkGroupID.x * kLocal + gl_LocalInvocationID.x;
  if (i < width) y[gl_WorkGroupID.z * width + i] += bias[i];
}
