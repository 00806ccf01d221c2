// SPDX-License-Identifier: Apache-2.0
// The product of a Q5_K matrix and many tokens: matmul.glsl.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kBlock = 256u;
#define TILE_BITS
#include "matmul.glsl"
#include "q5k_weights.glsl"
