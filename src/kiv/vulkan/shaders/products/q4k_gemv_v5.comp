// SPDX-License-Identifier: Apache-2.0
// Q4KGemvV5: y = W x, one row a workgroup, weights and x by way of shared memory.
//
// x: k floats. w: n rows of Q4_K blocks, as words, a row every colBytes bytes (a
// multiple of 4). y: n floats. n, k, blocksPerCol: see gemv_push.glsl; where k is no
// multiple of 256, the rest of the last block counts as nothing.
//
// Tiles of 40 blocks, so that k up to 10240 takes one. For devices with hardly any
// cache and memory that is fast only for long straight reads. On other devices shared
// memory does not help a word that is used once, and 46 KiB of it leave room for few
// workgroups at a time. Dispatch n workgroups, in one row or a grid.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kRows = 1u;
#include "q4k_gemv_staged.glsl"
