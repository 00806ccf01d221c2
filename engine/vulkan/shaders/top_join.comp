// SPDX-License-Identifier: Apache-2.0
// The first candidates of a row, from those of its parts (top_parts.comp).
//
// Bindings: parts (rows x partCount x most), first (rows x most: the bits of a value, then its
// id; minus infinity and kNowhere behind the last). Push constants: partCount, most. Dispatch
// one workgroup a row, in z.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer Parts { uvec2 parts[]; };
layout(std430, set = 0, binding = 1) writeonly buffer First { uvec2 firsts[]; };

layout(push_constant) uniform PC {
  uint partCount;
  uint most;
};

#include "ranking.glsl"

void main() {
  const uint i = gl_LocalInvocationID.x;
  const uint candidates = partCount * most;
  const uint from = gl_WorkGroupID.z * candidates;
  float lastValue = 0.0;
  uint lastId = kNowhere;
  for (uint rank = 0u; rank < most; ++rank) {
    float value = minusInfinity();
    uint found = kNowhere;
    for (uint c = i; c < candidates; c += kLocal) {
      const uvec2 candidate = parts[from + c];
      const float other = uintBitsToFloat(candidate.x);
      const bool left = candidate.y != kNowhere &&
                        (rank == 0u || before(lastValue, lastId, other, candidate.y));
      if (left && before(other, candidate.y, value, found)) {
        value = other;
        found = candidate.y;
      }
    }
    firstOfWorkgroup(value, found);
    if (i == 0u) firsts[gl_WorkGroupID.z * most + rank] = uvec2(floatBitsToUint(value), found);
    lastValue = value;
    lastId = found;
  }
}
