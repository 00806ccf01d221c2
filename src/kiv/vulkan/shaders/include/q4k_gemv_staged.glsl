// SPDX-License-Identifier: Apache-2.0
// y = W x for Q4_K rows, kRows neighbouring rows a workgroup of 128. Tiles of
// TILE_BLOCKS blocks of the rows (words as they are stored) and of x are copied to
// shared memory first, in straight lines of 512 bytes a step, and multiplied there:
// device memory sees nothing but linear reads, each word once.
//
// Set kRows before the include. Shared memory: kRows * 144 + 1024 bytes a block of the
// tile, and 512. TILE_BLOCKS can be lowered where that does not fit.
layout(local_size_x = 128) in;

layout(std430, set = 0, binding = 0) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 1) readonly buffer W { uint stored[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

#ifndef TILE_BLOCKS
#define TILE_BLOCKS 40
#endif

const uint kLocal = gl_WorkGroupSize.x;
const uint kTileBlocks = TILE_BLOCKS;
const uint kBlockWords = 36u;
const uint kTileWords = kTileBlocks * kBlockWords;  // of one row

shared uint w[kRows * kTileWords];
shared float sX[kTileBlocks * 256u];
shared float sRed[kLocal];

const uint kLanes = 32u;  // consecutive words of codes: every lane a bank of its own
const bool kFactored = kRows > 1u;

#include "gemv_push.glsl"
#include "gemv_rows.glsl"
#include "grid.glsl"
#include "workgroup_sum.glsl"
#include "x_staged.glsl"
#include "q4k_codes.glsl"

void stageWeights(uint r, uint start, uint count) {
  for (uint i = gl_LocalInvocationID.x; i < count; i += kLocal) {
    w[r * kTileWords + i] = stored[start + i];
  }
}

void main() {
  const uint firstRow = workgroupIndex() * kRows;
  const uint rows = firstRow < n ? min(kRows, n - firstRow) : 0u;
  const uint lane = gl_LocalInvocationID.x % kLanes;

  float sums[kRows];
  for (uint r = 0u; r < kRows; ++r) sums[r] = 0.0;
  for (uint first = 0u; first < rowBlocks(); first += kTileBlocks) {
    const uint count = min(kTileBlocks, rowBlocks() - first);
    for (uint r = 0u; r < rows; ++r) {
      stageWeights(r, blockWord(firstRow + r, first), count * kBlockWords);
    }
    stageX(256u * first, 256u * count);
    barrier();
    for (uint b = gl_LocalInvocationID.x / kLanes; b < count; b += kLocal / kLanes) {
      const Inputs inputs = inputsOf(64u * b, lane);
      for (uint r = 0u; r < kRows; ++r) {
        if (r < rows) sums[r] += laneProduct(r * kTileWords + b * kBlockWords, lane, inputs);
      }
    }
    barrier();
  }

  for (uint r = 0u; r < kRows; ++r) {
    const float sum = workgroupSum(sums[r]);
    if (gl_LocalInvocationID.x == 0u && r < rows) y[firstRow + r] = sum;
  }
}
