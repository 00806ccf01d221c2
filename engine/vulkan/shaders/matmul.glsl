// SPDX-License-Identifier: Apache-2.0
// Y = X W^T, or Y += X W^T, for many tokens: gemm.glsl with tiles of 64 rows by 32 tokens, which
// take 12 KiB of shared memory.
//
// Bindings: x (tokens x k), w (n rows, in words), y (tokens x n). Push constants: n, k, whole
// blocks of a row, bytes from one row to the next, tokens, add. Dispatch ceil(n / 64) workgroups
// in x, ceil(tokens / 32) in y. The including shader sets kBlock and defines fourWeights.
#define TILE_ROWS 64
#define TILE_TOKENS 32
#define TILE_K 32
#define GEMM_ADDS
#include "gemm.glsl"
