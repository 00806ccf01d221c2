// SPDX-License-Identifier: Apache-2.0
// y = W x, or y += W x, for a Q6_K matrix and a vector for each token.
//
// Bindings: x (tokens x k), w (n rows), y (tokens x n). Push constants: gemv_push.glsl; k is a
// multiple of 256. Dispatch ceil(n / 2) workgroups in x and y, the tokens in z.
#version 450
#extension GL_GOOGLE_include_directive : require

#define GEMV_OF_TOKENS
layout(local_size_x = 64) in;

const uint kLocal = 64u;
const uint kAtOnce = 4u;  // blocks

layout(std430, set = 0, binding = 0) readonly buffer X { vec4 x[]; };
layout(std430, set = 0, binding = 1) readonly buffer W { uint w[]; };
layout(std430, set = 0, binding = 2) buffer Y { float y[]; };

shared float sScale[16][kAtOnce][2];  // sub-block, block, row
shared float sRed[kLocal];

#include "gemv_push.glsl"
#include "words.glsl"
#include "two_row_sums.glsl"
#include "q6k_gemv_two_rows.glsl"
