// SPDX-License-Identifier: Apache-2.0
// Q4_0Gemm: Y = X W^T for a Q4_0 matrix W and several tokens.
//
// y[t * n + r] = sum over c of x[t * k + c] * W(r, c), for t < tokens and r < n.
//
// x: tokens rows of k floats. w: n rows of Q4_0 blocks, as words, the last of them whole,
// a row every colBytes bytes (a multiple of 2). y: tokens rows of n floats. n, k,
// blocksPerCol, colBytes, tokens: see gemm.glsl; where k is no multiple of 32, the rest of
// the last block counts as nothing.
//
// 128 rows by 128 tokens a workgroup: dispatch (n + 127) / 128 by (tokens + 127) / 128
// workgroups. How a workgroup divides its tile, and why, says gemm.glsl. Needs 64 KiB of
// shared memory. For prompts: with fewer tokens than a tile, most of a workgroup's
// products are for nothing, and one token is better served by the matrix-vector
// products.
//
// A block of 32 elements has 18 bytes: its scale, then the codes, neighbours sharing a
// byte, so that four codes lie in element order in 16 bits.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kBlock = 32u;
#define TILE_BITS
#include "gemm.glsl"
#include "words.glsl"

vec4 fourWeights(uint row, uint column) {
  const uint block = row + column / kBlock * 18u;
  const uint codes = pairAt(block + 2u + column % kBlock / 2u);
  const vec4 centred = vec4(codes & 15u, codes >> 4 & 15u, codes >> 8 & 15u, codes >> 12) - 8.0;
  return centred * halfAt(block);
}
