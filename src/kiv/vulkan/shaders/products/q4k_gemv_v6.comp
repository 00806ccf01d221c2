// SPDX-License-Identifier: Apache-2.0
// Q4KGemvV6: y = W x, two rows a workgroup, weights and x by way of shared memory.
//
// x: k floats. w: n rows of Q4_K blocks, as words, a row every colBytes bytes (a
// multiple of 4). y: n floats. n, k, blocksPerCol: see gemv_push.glsl; where k is no
// multiple of 256, the rest of the last block counts as nothing.
//
// As Q4KGemvV5, but the tile of x, by far its larger part, serves two rows, and the
// minima are factored out as in Q4KGemvV7. Where Q4KGemvV5 suits a device, this does
// better as soon as there are rows enough; it needs 52 KiB of shared memory. Dispatch
// (n + 1) / 2 workgroups, in one row or a grid.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kRows = 2u;
#include "q4k_gemv_staged.glsl"
