// SPDX-License-Identifier: Apache-2.0
// ArgmaxPartial: the largest of each 4096 elements of x and where it stands, the
// lowest index where several are equal. NaN never wins; a part of nothing but NaN
// gives minus infinity at its first index. Reducing the parts is left to the caller.
//
// Bindings: x, partial (two floats a workgroup: the value, then the bits of its
// index in x). Push constants: count. Workgroup g owns elements 4096 g to 4096 g +
// 4095, its invocation i every 256th of them from i, so loads are contiguous and
// sixteen loads hide the tree of the reduction: ceil(count / 4096) workgroups, in x
// and y; further ones do nothing.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kLocal = 256u;
const uint kPart = 4096u;
const uint kNowhere = 0xffffffffu;
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 1) writeonly buffer Partial { float partial[]; };

layout(push_constant) uniform PC { uint count; };

shared float sValue[kLocal];
shared uint sIndex[kLocal];

#include "grid.glsl"

// False for NaN on either side, and for an element against itself.
bool beats(float value, uint index, float otherValue, uint otherIndex) {
  return value > otherValue || (value == otherValue && index < otherIndex);
}

void main() {
  const uint part = workgroupIndex();
  if (count == 0u || part > (count - 1u) / kPart) return;
  const uint first = part * kPart;
  const uint end = first + min(kPart, count - first);
  const uint lane = gl_LocalInvocationID.x;

  float value = uintBitsToFloat(0xff800000u);  // minus infinity
  uint index = kNowhere;
  for (uint i = first + lane; i < end; i += kLocal) {
    const float candidate = x[i];
    if (beats(candidate, i, value, index)) {
      value = candidate;
      index = i;
    }
  }

  sValue[lane] = value;
  sIndex[lane] = index;
  barrier();
  for (uint half_ = kLocal / 2u; half_ > 0u; half_ >>= 1) {
    const uint other = lane + half_;
    if (lane < half_ && beats(sValue[other], sIndex[other], sValue[lane], sIndex[lane])) {
      sValue[lane] = sValue[other];
      sIndex[lane] = sIndex[other];
    }
    barrier();
  }
  if (lane == 0u) {
    partial[2u * part] = sValue[0];
    partial[2u * part + 1u] = uintBitsToFloat(sIndex[0] == kNowhere ? first : sIndex[0]);
  }
}
