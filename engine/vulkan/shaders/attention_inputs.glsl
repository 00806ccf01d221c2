// SPDX-License-Identifier: Apache-2.0
// What goes into softmax attention, for each token and head: queries and keys normalised and
// rotated by their position, keys and values stored in their page.
//
// Bindings: rows (a token's id, position, first entry of its page table, unused), pages (page
// tables), turns (cosine and sine of each pair: tokens x rotary / 2), q (tokens x heads x
// 2 size: a query, then its gate, which stays as it is; in place), k and v (tokens x kvHeads x
// size), queryNorm and keyNorm (size), cache (pages of one layer, cache.glsl). Push constants:
// heads, kvHeads, size (even, at most 256), rotary (even), eps. Dispatch heads + kvHeads
// workgroups in x, the tokens in z; an invocation owns a component of its head.
const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer Rows { uvec4 rows[]; };
layout(std430, set = 0, binding = 1) readonly buffer Pages { uint pages[]; };
layout(std430, set = 0, binding = 2) readonly buffer Turns { vec2 turns[]; };
layout(std430, set = 0, binding = 3) buffer Q { float q[]; };
layout(std430, set = 0, binding = 4) readonly buffer K { float keys[]; };
layout(std430, set = 0, binding = 5) readonly buffer V { float values[]; };
layout(std430, set = 0, binding = 6) readonly buffer QueryNorm { float queryNorm[]; };
layout(std430, set = 0, binding = 7) readonly buffer KeyNorm { float keyNorm[]; };
layout(std430, set = 0, binding = 8) buffer Cache { uint cache[]; };

layout(push_constant) uniform PC {
  uint heads;
  uint kvHeads;
  uint size;
  uint rotary;
  float eps;
};

shared float sRed[kLocal];
shared float sHead[kLocal];

#include "workgroup_sum.glsl"
#include "cache.glsl"
#include "half_bits.glsl"

// Component i of rotate(x weight / sqrt(mean of x^2 + eps)). Every invocation must call it, with
// zeros from component `size` on.
float normalisedAndTurned(float x, float weight) {
  const uint i = gl_LocalInvocationID.x;
  const float factor = 1.0 / sqrt(workgroupSum(x * x) / float(size) + eps);
  const float value = x * factor * weight;
  sHead[i] = value;
  barrier();
  const uint half_ = rotary / 2u;
  const vec2 turn = turns[gl_WorkGroupID.z * half_ + i % half_];
  if (i < half_) return turn.x * value - turn.y * sHead[i + half_];
  if (i < rotary) return turn.y * sHead[i - half_] + turn.x * value;
  return value;
}

void storeKey(uint at, float value) {
#ifdef FLOAT_CACHE
  cache[at] = floatBitsToUint(value);
#else
  // The other half may be another token's, and another workgroup may store it.
  const uint shift = 16u * (at & 1u);
  atomicAnd(cache[at / 2u], 0xffff0000u >> shift);
  atomicOr(cache[at / 2u], halfBits(value) << shift);
#endif
}

void storeValue(uint at, float value) {
#ifdef FLOAT_CACHE
  cache[at] = floatBitsToUint(value);
#else
  sHead[gl_LocalInvocationID.x] = value;
  barrier();
  const uint i = gl_LocalInvocationID.x;
  if (i < size && i % 2u == 0u) {
    cache[at / 2u] = halfBits(value) | halfBits(sHead[i + 1u]) << 16;
  }
#endif
}

void main() {
  const uint token = gl_WorkGroupID.z;
  const uint i = gl_LocalInvocationID.x;
  const bool inside = i < size;
  if (gl_WorkGroupID.x < heads) {
    const uint at = (token * heads + gl_WorkGroupID.x) * 2u * size + i;
    const float turned = normalisedAndTurned(inside ? q[at] : 0.0, inside ? queryNorm[i] : 0.0);
    if (inside) q[at] = turned;
    return;
  }
  const uint head = gl_WorkGroupID.x - heads;
  const uint from = (token * kvHeads + head) * size + i;
  const uvec4 row = rows[token];
  const uint slot = row.y % kPagePositions;
  const uint first = keysOfHead(pages[row.z + row.y / kPagePositions], head, kvHeads, size);
  const float key = normalisedAndTurned(inside ? keys[from] : 0.0, inside ? keyNorm[i] : 0.0);
  if (inside) storeKey(first + i * kPagePositions + slot, key);
  barrier();
  const uint value = first + (kPagePositions + slot) * size + i;
#ifdef FLOAT_CACHE
  if (!inside) return;
#endif
  storeValue(value, inside ? values[from] : 0.0);
}
