// SPDX-License-Identifier: Apache-2.0
// The product of a Q6_K matrix and many tokens: matmul.glsl.
#version 450
#extension GL_GOOGLE_include_directive : require

const uint kBlock = 256u;
#include "matmul.glsl"
#include "q6k_weights.glsl"
