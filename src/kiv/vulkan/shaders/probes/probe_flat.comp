// SPDX-License-Identifier: Apache-2.0
// ProbeFlat: y[g] = sum of the elements of x that workgroup g reads: how fast a device
// reads plain memory, with loads of 16 bytes and a pattern of the caller's choice.
//
// x: `count` vectors of four. y: one float a workgroup; all that are dispatched write.
// Workgroup g reads `lines` lines of 128 vectors, one vector an invocation. Line j begins
// at vector g * groupStride + j * lineStride; what lies at or beyond `count` is left out.
// Indices must stay below 2^32. Two patterns worth comparing, for G workgroups:
//   lineStride 128, groupStride 128 * lines: a stretch of memory a workgroup;
//   lineStride 128 * G, groupStride 128: all workgroups march through memory together.
// Every component counts, so that no compiler can narrow a load. Dispatch as many
// workgroups as are to read, in one row or a grid.
#version 450
#extension GL_GOOGLE_include_directive : require
layout(local_size_x = 128) in;

layout(std430, set = 0, binding = 0) readonly buffer X { vec4 x[]; };
layout(std430, set = 0, binding = 1) writeonly buffer Y { float y[]; };

layout(push_constant) uniform PC {
  uint count;        // vectors in x
  uint lines;        // lines a workgroup reads
  uint lineStride;   // vectors from one line of a workgroup to its next
  uint groupStride;  // vectors from the first line of a workgroup to the next one's
};

const uint kLocal = gl_WorkGroupSize.x;
shared float sRed[kLocal];

#include "grid.glsl"
#include "workgroup_sum.glsl"

void main() {
  const uint group = workgroupIndex();
  const uint start = group * groupStride + gl_LocalInvocationID.x;
  vec4 sums = vec4(0.0);
  for (uint j = 0u; j < lines; ++j) {
    const uint at = start + j * lineStride;
    if (at < count) sums += x[at];
  }
  const float sum = workgroupSum((sums.x + sums.y) + (sums.z + sums.w));
  if (gl_LocalInvocationID.x == 0u) y[group] = sum;
}
