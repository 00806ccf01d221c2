// SPDX-License-Identifier: Apache-2.0
// AttentionGemma: consecutive queries against a cache of keys and values, causal, with
// an optional sliding window and a bias a position. For query t at position
// P = firstPosition + t and head h with key/value head g = h / (heads / kvHeads), over
// the positions p with p < positions, p <= P and, unless window is 0, p + window > P:
// s[p] = scale * sum over d of q[t][h][d] * kCache[p][g][d] + bias[p],
// y[t][h][d] = sum over p of softmax(s)[p] * vCache[p][g][d].
//
// Bindings: q (queries x heads x headDim), kCache (as four floats at a time) and vCache
// (rows of kvHeads x headDim floats, rowStride floats apart), bias (positions; minus
// infinity masks a position, 0 for none), y (as q). Push constants: headDim (a multiple
// of 4, at most 512), heads (a multiple of kvHeads), kvHeads, positions (rows of the
// cache that hold something), scale, rowStride (a multiple of 4), window, firstPosition.
// A query with nothing to attend to gives y = 0.
//
// One workgroup a head and query: heads x queries workgroups. Positions are taken 4096
// at a time, their scores and weights stay in shared memory, and what was summed before
// is scaled down when a larger score appears, so the cache may be of any length and no
// scratch buffer is needed. Teams of eight invocations take a position each and load
// its key side by side, 128 bytes at a time; then slices of headDim invocations, one a
// column, add up values.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kLocal = 512u;
const uint kTeam = 8u;
const uint kTeams = kLocal / kTeam;
const uint kChunk = 4096u;
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer Q { float q[]; };
layout(std430, set = 0, binding = 1) readonly buffer KCache { vec4 kCache[]; };
layout(std430, set = 0, binding = 2) readonly buffer VCache { float vCache[]; };
layout(std430, set = 0, binding = 3) readonly buffer Bias { float bias[]; };
layout(std430, set = 0, binding = 4) writeonly buffer Y { float y[]; };

layout(push_constant) uniform PC {
  uint headDim;
  uint heads;
  uint kvHeads;
  uint positions;
  float scale;
  uint rowStride;
  uint window;
  uint firstPosition;
};

shared float sScores[kChunk];
shared float sRed[kLocal];

float weightAt(uint i) { return sScores[i]; }

#include "attention_values.glsl"
#include "workgroup_max.glsl"
#include "workgroup_sum.glsl"

float product(uint query, uint key, uint d) {
  const vec4 four = vec4(q[query + d], q[query + d + 1u], q[query + d + 2u], q[query + d + 3u]);
  return dot(four, kCache[(key + d) / 4u]);
}

// Leaves the scores of positions `from` to from + count - 1 in shared memory.
void score(uint from, uint count, uint query, uint column) {
  const uint team = gl_LocalInvocationID.x / kTeam;
  const uint member = gl_LocalInvocationID.x % kTeam;
  for (uint first = 0u; first < count; first += kTeams) {
    const uint i = first + team;
    const uint key = (from + i) * rowStride + column;
    float sum = 0.0;
    if (i < count) {
      for (uint d = 4u * member; d < headDim; d += 4u * kTeam) sum += product(query, key, d);
    }
    sum = teamSum(sum, kTeam);
    if (i < count && member == 0u) sScores[i] = sum * scale + bias[from + i];
  }
  barrier();
}

// The largest of `before` and the first `count` scores.
float largestScore(float before, uint count) {
  float largest = before;
  for (uint i = gl_LocalInvocationID.x; i < count; i += kLocal) {
    largest = max(largest, sScores[i]);
  }
  return workgroupMax(largest);
}

// Turns scores into weights, relative to `largest`; the sum of this invocation's share.
float weigh(float largest, uint count) {
  float sum = 0.0;
  for (uint i = gl_LocalInvocationID.x; i < count; i += kLocal) {
    sScores[i] = exp(sScores[i] - largest);
    sum += sScores[i];
  }
  barrier();
  return sum;
}

void main() {
  const uint head = gl_WorkGroupID.x;
  if (head >= heads) return;
  const uint position = firstPosition + gl_WorkGroupID.y;
  const uint query = (gl_WorkGroupID.y * heads + head) * headDim;
  const uint column = head / (heads / kvHeads) * headDim;
  const uint begin = window != 0u && position >= window ? position - window + 1u : 0u;
  const uint end = min(position + 1u, positions);

  const uint slices = kLocal / headDim;
  const uint slice = gl_LocalInvocationID.x / headDim;
  const uint own = column + gl_LocalInvocationID.x % headDim;

  float largest = -3.402823466e38;  // below every score but minus infinity
  float weights = 0.0;
  float values = 0.0;
  for (uint from = begin; from < end; from += kChunk) {
    const uint count = min(kChunk, end - from);
    score(from, count, query, column);
    const float before = largest;
    largest = largestScore(before, count);
    const float shrink = exp(before - largest);
    weights = weights * shrink + weigh(largest, count);
    values *= shrink;
    if (slice < slices) values += weightedValues(from, count, slice, slices, rowStride, own);
    barrier();
  }

  const float total = workgroupSum(weights);
  values = joinSlices(values, headDim, slices);
  if (slice == 0u) y[query + gl_LocalInvocationID.x] = total == 0.0 ? 0.0 : values / total;
}
