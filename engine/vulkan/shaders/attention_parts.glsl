// SPDX-License-Identifier: Apache-2.0
// Softmax attention of each token over the pages of its conversation, up to its own position,
// split over the pages: every part gives the largest score, the sum of exp(score - largest) and
// the values weighted with exp(score - largest). A part without pages gives a sum of 0 and no
// values. attention_join.comp joins the parts.
//
// A workgroup takes up to four query heads of one key/value head and walks the pages of its part.
// For the scores, 32 pairs of positions lie side by side, as the keys do, and 8 slices of
// components behind each other. For the values, pairs of components lie side by side, and the
// positions are shared out to what invocations are left.
//
// Bindings: rows (a token's id, position, first entry of its page table, unused), pages (page
// tables), q (tokens x heads x 2 size), cache (pages of one layer, cache.glsl), parts (tokens x
// heads x splits x (size + 2)). Push constants: heads, kvHeads, size (a multiple of 32, at most
// 256), splits. Dispatch kvHeads * ceil(heads / kvHeads / 4) workgroups in x, splits in y, the
// tokens in z.
const uint kLocal = 256u;
const uint kHeads = 4u;
const uint kMostSize = 256u;
const uint kPairs = 32u;             // of positions in a page
const uint kSlices = kLocal / kPairs;  // of components
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer Rows { uvec4 rows[]; };
layout(std430, set = 0, binding = 1) readonly buffer Pages { uint pages[]; };
layout(std430, set = 0, binding = 2) readonly buffer Q { float q[]; };
layout(std430, set = 0, binding = 3) readonly buffer Cache { uint cache[]; };
layout(std430, set = 0, binding = 4) writeonly buffer Parts { float parts[]; };

layout(push_constant) uniform PC {
  uint heads;
  uint kvHeads;
  uint size;
  uint splits;
};

const float kLowest = -3.0e38;

shared float sQ[kHeads * kMostSize];
shared vec2 sPairs[kHeads * kLocal];
shared float sWeights[kLocal];  // kHeads x 64 positions
shared float sShrink[kHeads];
shared float sRed[kLocal];

#include "workgroup_sum.glsl"
#include "workgroup_max.glsl"
#include "cache.glsl"

// The scores of a page: that of head i / 64 and position i % 64 for invocation i.
float scoreOfPage(uint keysFirst) {
  const uint i = gl_LocalInvocationID.x;
  const uint pair = i % kPairs;
  const uint slice = i / kPairs;
  vec2 dots[kHeads] = {vec2(0.0), vec2(0.0), vec2(0.0), vec2(0.0)};
  for (uint c = slice; c < size; c += kSlices) {
    const vec2 key = pairOf(keysFirst + c * kPagePositions + 2u * pair);
    for (uint h = 0u; h < kHeads; ++h) dots[h] += key * sQ[h * size + c];
  }
  for (uint h = 0u; h < kHeads; ++h) sPairs[h * kLocal + i] = dots[h];
  barrier();
  vec2 sum = vec2(0.0);
  const uint own = i / kPagePositions * kLocal + i % kPagePositions / 2u;
  for (uint s = 0u; s < kSlices; ++s) sum += sPairs[own + s * kPairs];
  return ((i & 1u) == 0u ? sum.x : sum.y) / sqrt(float(size));
}

void main() {
  const uint i = gl_LocalInvocationID.x;
  const uint perKv = heads / kvHeads;
  const uint packs = (perKv + kHeads - 1u) / kHeads;
  const uint kv = gl_WorkGroupID.x / packs;
  const uint firstHead = gl_WorkGroupID.x % packs * kHeads;
  const uint count = min(kHeads, perKv - firstHead);
  const uvec4 row = rows[gl_WorkGroupID.z];
  const uint positions = row.y + 1u;
  const uint pageCount = (positions + kPagePositions - 1u) / kPagePositions;
  const uint pagesOfPart = (pageCount + splits - 1u) / splits;
  const uint begin = min(gl_WorkGroupID.y * pagesOfPart, pageCount);
  const uint end = min(begin + pagesOfPart, pageCount);
  const uint firstRow = gl_WorkGroupID.z * heads + kv * perKv + firstHead;

  const uint stride = splits * (size + 2u);
  const uint first = firstRow * stride + gl_WorkGroupID.y * (size + 2u);
  if (begin == end) {
    if (i < count) {
      parts[first + i * stride] = kLowest;
      parts[first + i * stride + 1u] = 0.0;
    }
    return;
  }

  for (uint at = i; at < kHeads * size; at += kLocal) {
    const uint h = at / size;
    sQ[at] = h < count ? q[(firstRow + h) * 2u * size + at % size] : 0.0;
  }
  barrier();

  const uint width = size / 2u;       // pairs of components
  const uint groups = kLocal / width;  // of positions
  const uint group = i / width;
  const uint pair = i % width;
  vec2 mixed[kHeads] = {vec2(0.0), vec2(0.0), vec2(0.0), vec2(0.0)};
  float largest = kLowest;
  float weights = 0.0;
  for (uint p = begin; p < end; ++p) {
    const uint keysFirst = keysOfHead(pages[row.z + p], kv, kvHeads, size);
    const uint held = min(kPagePositions, positions - p * kPagePositions);
    const bool counts = i % kPagePositions < held;
    const float found = scoreOfPage(keysFirst);  // of whatever the page holds from `held` on
    const float score = counts ? found : kLowest;
    const float before = largest;
    largest = max(largest, teamMax(score, kPagePositions));
    const float shrink = exp(before - largest);
    const float weight = counts ? exp(score - largest) : 0.0;
    weights = weights * shrink + weight;
    sWeights[i] = weight;
    if (i % kPagePositions == 0u) sShrink[i / kPagePositions] = shrink;
    barrier();
    for (uint h = 0u; h < kHeads; ++h) mixed[h] *= sShrink[h];
    if (group < groups) {
      const uint valuesFirst = keysFirst + kPagePositions * size + 2u * pair;
      for (uint s = group; s < held; s += groups) {
        const vec2 value = pairOf(valuesFirst + s * size);
        for (uint h = 0u; h < kHeads; ++h) mixed[h] += sWeights[h * kPagePositions + s] * value;
      }
    }
    barrier();
  }

  weights = teamSum(weights, kPagePositions);
  const uint own = i / kPagePositions;
  if (i % kPagePositions == 0u && own < count) {
    parts[first + own * stride] = largest;
    parts[first + own * stride + 1u] = weights;
  }
  for (uint h = 0u; h < kHeads; ++h) sPairs[h * kLocal + i] = mixed[h];
  barrier();
  if (i >= width) return;
  for (uint h = 0u; h < count; ++h) {
    vec2 sum = vec2(0.0);
    for (uint g = 0u; g < groups; ++g) sum += sPairs[h * kLocal + g * width + i];
    parts[first + h * stride + 2u + 2u * i] = sum.x;
    parts[first + h * stride + 3u + 2u * i] = sum.y;
  }
}
