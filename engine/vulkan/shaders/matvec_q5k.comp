// SPDX-License-Identifier: Apache-2.0
// y = W x, or y += W x, for a Q5_K matrix and a vector for each token.
//
// Bindings: x (tokens x k), w (n rows), y (tokens x n). Push constants: gemv_push.glsl; k is a
// multiple of 256. Dispatch ceil(n / 2) workgroups in x and y, the tokens in z.
#version 450
#extension GL_GOOGLE_include_directive : require

#define GEMV_OF_TOKENS
#define FIFTH_BIT
#include "k_gemv_two_rows.glsl"
