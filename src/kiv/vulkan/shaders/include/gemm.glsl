// SPDX-License-Identifier: Apache-2.0
// Y = X W^T for quantised rows W: the tiles that all such products share.
//
// A workgroup of 256 owns TILE_ROWS rows of W and TILE_TOKENS tokens of X, and walks
// along k, TILE_K columns at a time: W is decoded into one tile of shared memory and X
// copied into the other, so that each weight is loaded and decoded once for
// TILE_TOKENS products and each x once for TILE_ROWS. Each invocation keeps the sums
// of TILE_ROWS / 16 rows by TILE_TOKENS / 16 tokens in registers, which makes two
// loads from shared memory serve about (TILE_ROWS / 16) products.
//
// Rows, tokens and columns beyond the matrices are zeros in the tiles, which all
// invocations fill and pass through together.
//
// The tile sizes may be set from outside (powers of two; TILE_ROWS and TILE_TOKENS
// multiples of 16, TILE_K a multiple of 4 that divides 256), for devices with less
// shared memory than the 64 KiB of the usual ones. With TILE_BITS defined the tiles are
// words that hold the bits of floats, otherwise floats.
//
// With GEMM_ADDS defined, a push constant says whether Y is added to.
//
// The including shader sets kBlock, the elements of a block, and defines fourWeights.

#ifndef TILE_ROWS
#define TILE_ROWS 128
#endif
#ifndef TILE_TOKENS
#define TILE_TOKENS 128
#endif
#ifndef TILE_K
#define TILE_K 64
#endif

layout(local_size_x = 256) in;

layout(std430, set = 0, binding = 0) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 1) readonly buffer W { uint w[]; };
#ifdef GEMM_ADDS
layout(std430, set = 0, binding = 2) buffer Y { float y[]; };
#else
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };
#endif

layout(push_constant) uniform PC {
  uint n;             // rows of W, columns of Y
  uint k;             // columns of W and X
  uint blocksPerCol;  // whole blocks in a row of W
  uint colBytes;      // bytes from one row of W to the next
  uint tokens;        // rows of X and Y
#ifdef GEMM_ADDS
  uint add;           // 1: Y += X W^T, 0: Y = X W^T
#endif
};

#include "row_blocks.glsl"

const uint kLocal = gl_WorkGroupSize.x;
const uint kSide = 16u;  // invocations along either side of the tile of Y
const uint kTileRows = TILE_ROWS;
const uint kTileTokens = TILE_TOKENS;
const uint kTileK = TILE_K;
const uint kRows = kTileRows / kSide;
const uint kTokens = kTileTokens / kSide;

#ifdef TILE_BITS
shared uint sX[kTileK * kTileTokens];
shared uint sW[kTileK * kTileRows];
#define TO_TILE floatBitsToUint
#define FROM_TILE uintBitsToFloat
#else
shared float sX[kTileK * kTileTokens];
shared float sW[kTileK * kTileRows];
#define TO_TILE float
#define FROM_TILE float
#endif

// Elements `column` to `column` + 3 of the row of W that begins at byte `row`;
// `column` is a multiple of 4 and lies in the row's blocks.
vec4 fourWeights(uint row, uint column);

// Where element (column, i) of a tile of `width` rows or tokens lies. Each column is
// turned by one place more than the one before: neighbours along either direction
// lie in different banks, for the loads from memory along k and for the products
// along rows and tokens.
uint tileIndex(uint column, uint i, uint width) {
  return column * width + ((i + column) & (width - 1u));
}

void loadX(uint firstToken, uint firstColumn) {
  for (uint i = gl_LocalInvocationID.x; i < kTileTokens * kTileK; i += kLocal) {
    const uint token = firstToken + i / kTileK;
    const uint column = firstColumn + i % kTileK;
    const float value = token < tokens && column < k ? x[token * k + column] : 0.0;
    sX[tileIndex(i % kTileK, i / kTileK, kTileTokens)] = TO_TILE(value);
  }
}

void loadW(uint firstRow, uint firstColumn) {
  const uint kQuads = kTileK / 4u;  // of a row of the tile
  for (uint i = gl_LocalInvocationID.x; i < kTileRows * kQuads; i += kLocal) {
    const uint row = firstRow + i / kQuads;
    const uint column = firstColumn + i % kQuads * 4u;
    vec4 weights = vec4(0.0);
    if (row < n && column < rowBlocks() * kBlock) weights = fourWeights(row * colBytes, column);
    for (uint j = 0u; j < 4u; ++j) {
      sW[tileIndex(i % kQuads * 4u + j, i / kQuads, kTileRows)] = TO_TILE(weights[j]);
    }
  }
}

void main() {
  const uint firstRow = gl_WorkGroupID.x * kTileRows;
  const uint firstToken = gl_WorkGroupID.y * kTileTokens;
  const uint row = gl_LocalInvocationID.x % kSide;  // in the tile: and every 16th from it
  const uint token = gl_LocalInvocationID.x / kSide;

  float sums[kTokens][kRows];
  for (uint t = 0u; t < kTokens; ++t) {
    for (uint r = 0u; r < kRows; ++r) sums[t][r] = 0.0;
  }

  for (uint first = 0u; first < rowBlocks() * kBlock; first += kTileK) {
    loadX(firstToken, first);
    loadW(firstRow, first);
    barrier();
    for (uint column = 0u; column < kTileK; ++column) {
      float weights[kRows];
      for (uint r = 0u; r < kRows; ++r) {
        weights[r] = FROM_TILE(sW[tileIndex(column, row + r * kSide, kTileRows)]);
      }
      for (uint t = 0u; t < kTokens; ++t) {
        const float value = FROM_TILE(sX[tileIndex(column, token + t * kSide, kTileTokens)]);
        for (uint r = 0u; r < kRows; ++r) sums[t][r] += weights[r] * value;
      }
    }
    barrier();
  }

  for (uint t = 0u; t < kTokens; ++t) {
    const uint yToken = firstToken + token + t * kSide;
    for (uint r = 0u; r < kRows; ++r) {
      const uint yRow = firstRow + row + r * kSide;
      if (yToken >= tokens || yRow >= n) continue;
      const uint at = yToken * n + yRow;
#ifdef GEMM_ADDS
      y[at] = add == 0u ? sums[t][r] : y[at] + sums[t][r];
#else
      y[at] = sums[t][r];
#endif
    }
  }
}
