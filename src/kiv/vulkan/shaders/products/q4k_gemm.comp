// SPDX-License-Identifier: Apache-2.0
// Q4KGemm: Y = X W^T for a Q4_K matrix W and several tokens.
//
// y[t * n + r] = sum over c of x[t * k + c] * W(r, c), for t < tokens and r < n.
//
// x: tokens rows of k floats. w: n rows of Q4_K blocks, as words, a row every colBytes
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
// Word i of the eight of chunk c of a block's codes holds elements 64c + 4i to + 3 in its
// low nibbles and those 32 further on in its high ones.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kBlock = 256u;
#include "gemm.glsl"

#include "q4k_weights.glsl"
