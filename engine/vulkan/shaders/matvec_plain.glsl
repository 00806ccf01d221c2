// SPDX-License-Identifier: Apache-2.0
// y = W x, or y += W x, for a matrix of short blocks and a vector for each token: two rows a
// workgroup of 64, a unit of kUnit columns an invocation, neighbours side by side.
//
// Bindings: x (tokens x k), w (n rows of colBytes bytes, in words), y (tokens x n). Push
// constants: gemv_push.glsl. Dispatch ceil(n / 2) workgroups in x and y, the tokens in z.
//
// The including shader defines kUnit and float unitProduct(uint row, uint unit, uint first):
// the columns of one unit of the row at byte `row`, times x from element `first` on.
layout(local_size_x = 64) in;

layout(std430, set = 0, binding = 0) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 1) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 2) buffer Y { float y[]; };

shared float sRed[64];

#define GEMV_OF_TOKENS
#include "gemv_push.glsl"
#include "gemv_tokens.glsl"
#include "two_row_sums.glsl"
#include "words.glsl"

float unitProduct(uint row, uint unit, uint first);

void main() {
  const uint first = 2u * (gl_WorkGroupID.y * gl_NumWorkGroups.x + gl_WorkGroupID.x);
  const uint second = first + 1u < n ? first + 1u : first;
  vec2 sums = vec2(0.0);
  if (first < n) {
    const uint units = (k + kUnit - 1u) / kUnit;
    for (uint unit = gl_LocalInvocationID.x; unit < units; unit += 64u) {
      const uint at = firstOfX() + kUnit * unit;
      sums.x += unitProduct(first * colBytes, unit, at);
      sums.y += unitProduct(second * colBytes, unit, at);
    }
  }
  const float sum = twoRowSums(sums);
  const uint row = gl_LocalInvocationID.x == 32u ? first : first + 1u;
  if (gl_LocalInvocationID.x % 32u == 0u && row < n) storeRow(row, sum);
}
