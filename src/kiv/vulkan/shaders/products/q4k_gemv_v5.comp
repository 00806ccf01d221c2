// Q4KGemvV5: y = W x, one row a workgroup, weights and x by way of shared memory.
//
// x: k floats. w: n rows of Q4_K blocks, as words, a row every colBytes bytes (a
// multiple of 4). y: n floats. n, k, blocksPerCol: see gemv_push.glsl; where k is no
// multiple of 256, the rest of the last block counts as nothing.
//
// Tiles of 40 blocks, so that k up to 10240 takes one. For devices without a cache worth
// the name, whose memory wants long straight reads; elsewhere a word that is used once
// gains nothing from the detour, and 46 KiB of shared memory leave room for few
// workgroups at a time. Dispatch n workgroups, in one row or a grid.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kRows = 1u;
#include "q4k_gemv_staged.glsl"
