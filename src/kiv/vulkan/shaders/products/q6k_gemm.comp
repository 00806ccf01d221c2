// SPDX-License-Identifier: Apache-2.0
// Q6KGemm: Y = X W^T for a Q6_K matrix W and several tokens.
//
// y[t * n + r] = sum over c of x[t * k + c] * W(r, c), for t < tokens and r < n.
//
// x: tokens rows of k floats. w: n rows of Q6_K blocks, as words, the last of them whole,
// a row every colBytes bytes (a multiple of 2). y: tokens rows of n floats. n, k,
// blocksPerCol, colBytes, tokens: see gemm.glsl; where k is no multiple of 256, the rest of
// the last block counts as nothing.
//
// 128 rows by 128 tokens a workgroup: dispatch (n + 127) / 128 by (tokens + 127) / 128
// workgroups. How a workgroup divides its tile, and why, says gemm.glsl. Needs 64 KiB of
// shared memory. For prompts: with fewer tokens than a tile, most of a workgroup's
// products are for nothing, and one token is better served by the matrix-vector
// products.
//
// Where the parts of a code lie says q6k_block.glsl.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kBlock = 256u;
#include "gemm.glsl"

#include "q6k_weights.glsl"
