// SPDX-License-Identifier: Apache-2.0
// y = W x for a Q6_K matrix: the decoder's matrix-vector product.
//
// x: k floats as vectors of four. w: n rows of colBytes bytes, blocksPerCol blocks
// each. y: n floats. Dispatch (n + 1) / 2 workgroups, in one row or a grid. k is a
// multiple of 256.
//
// Two rows a workgroup of 64, divided as q6k_gemv_two_rows.glsl says. Blocks have 210
// bytes, so words are put together from two.
#version 450
#extension GL_GOOGLE_include_directive : require

layout(local_size_x = 64) in;

const uint kLocal = 64u;
const uint kAtOnce = 4u;  // blocks

layout(std430, set = 0, binding = 0) readonly buffer X { vec4 x[]; };
layout(std430, set = 0, binding = 1) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

shared float sScale[16][kAtOnce][2];  // sub-block, block, row
shared float sRed[kLocal];

#include "gemv_push.glsl"
#include "words.glsl"
#include "two_row_sums.glsl"

#include "q6k_gemv_two_rows.glsl"
