// SPDX-License-Identifier: Apache-2.0
// Q5KGemm: Y = X W^T for a Q5_K matrix W and several tokens.
//
// y[t * n + r] = sum over c of x[t * k + c] * W(r, c), for t < tokens and r < n.
//
// x: tokens rows of k floats. w: n rows of Q5_K blocks, as words, a row every colBytes
// bytes (a multiple of 4). y: tokens rows of n floats. n, k, blocksPerCol, colBytes,
// tokens: see gemm.glsl; where k is no multiple of 256, the rest of the last block counts
// as nothing.
//
// 128 rows by 128 tokens a workgroup: dispatch (n + 127) / 128 by (tokens + 127) / 128
// workgroups. How a workgroup divides its tile, and why, says gemm.glsl. Needs 64 KiB of
// shared memory. For prompts: with fewer tokens than a tile, most of a workgroup's
// products are for nothing, and one token is better served by the matrix-vector
// products.
//
// Four bits of a code lie as in Q4_K; the fifth of element 32 s + l of a block is bit s
// of byte l of the 32 bytes before them.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kBlock = 256u;
#define TILE_BITS
#include "gemm.glsl"

#include "q5k_weights.glsl"
