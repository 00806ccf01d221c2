// SPDX-License-Identifier: Apache-2.0
// Attention: one query against a cache of keys and values. For head h with key/value
// head g = h / (heads / kvHeads):
// scores[h][p] = scale * sum over d of q[h][d] * kCache[p][g][d],
// y[h][d] = sum over p of softmax(scores[h])[p] * vCache[p][g][d].
//
// Bindings: q (heads x headDim), kCache and vCache (positions x kvHeads x headDim, as
// KvStore writes them), scores (heads x positions, scratch: what it holds afterwards is
// of no use), y (heads x headDim). Push constants: heads (a multiple of kvHeads),
// kvHeads, headDim, scale, positions (all are attended to; none gives y = 0).
//
// One workgroup a head: `heads` workgroups in x. Teams of eight invocations take a
// position each and load its key side by side, a memory sector at a time; the softmax
// is the whole workgroup's; then slices of invocations, one a column, add up values.
// The scores go through a buffer, so the cache may be of any length.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kLocal = 256u;
const uint kTeam = 8u;
const uint kTeams = kLocal / kTeam;
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer Q { float q[]; };
layout(std430, set = 0, binding = 1) readonly buffer KCache { float kCache[]; };
layout(std430, set = 0, binding = 2) readonly buffer VCache { float vCache[]; };
layout(std430, set = 0, binding = 3) coherent buffer Scores { float scores[]; };
layout(std430, set = 0, binding = 4) writeonly buffer Y { float y[]; };

layout(push_constant) uniform PC {
  uint heads;
  uint kvHeads;
  uint headDim;
  float scale;
  uint positions;
};

shared float sMax[kLocal];
shared float sRed[kLocal];

float weightAt(uint position) { return scores[gl_WorkGroupID.x * positions + position]; }

#include "attention_values.glsl"
#include "softmax_parts.glsl"
#include "workgroup_sum.glsl"

// Leaves the scores of a head, from `start`, in the buffer.
void score(uint query, uint start, uint stride, uint column) {
  const uint team = gl_LocalInvocationID.x / kTeam;
  const uint member = gl_LocalInvocationID.x % kTeam;
  for (uint first = 0u; first < positions; first += kTeams) {
    const uint p = first + team;
    float sum = 0.0;
    if (p < positions) {
      for (uint d = member; d < headDim; d += kTeam) {
        sum += q[query + d] * kCache[p * stride + column + d];
      }
    }
    sum = teamSum(sum, kTeam);
    if (p < positions && member == 0u) scores[start + p] = sum * scale;
  }
  memoryBarrierBuffer();
  barrier();
}

// Turns scores into weights and returns what the weights must be multiplied by.
float weigh(uint start) {
  vec2 parts = kNoParts;
  for (uint p = gl_LocalInvocationID.x; p < positions; p += kLocal) {
    parts = addPart(parts, scores[start + p]);
  }
  parts = workgroupParts(parts);
  for (uint p = gl_LocalInvocationID.x; p < positions; p += kLocal) {
    scores[start + p] = exp(scores[start + p] - parts.x);
  }
  memoryBarrierBuffer();
  barrier();
  return inverseOfSum(parts.y);
}

void main() {
  const uint head = gl_WorkGroupID.x;
  if (head >= heads) return;
  const uint query = head * headDim;
  const uint stride = kvHeads * headDim;
  const uint column = head / (heads / kvHeads) * headDim;
  const uint start = head * positions;

  score(query, start, stride, column);
  const float factor = weigh(start);

  const uint width = min(headDim, kLocal);
  const uint slices = kLocal / width;
  const uint slice = gl_LocalInvocationID.x / width;
  const uint own = gl_LocalInvocationID.x % width;
  for (uint first = 0u; first < headDim; first += width) {
    const uint d = first + own;
    float sum = 0.0;
    if (slice < slices && d < headDim) {
      sum = weightedValues(0u, positions, slice, slices, stride, column + d);
    }
    sum = joinSlices(sum, width, slices);
    if (slice == 0u && d < headDim) y[query + d] = sum * factor;
  }
}
