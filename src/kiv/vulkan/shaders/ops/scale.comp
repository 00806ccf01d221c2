// SPDX-License-Identifier: Apache-2.0
// Scale: x[i] = x[i] * factor.
//
// Bindings: x (changed in place). Push constants: count, factor (`parameter`). What
// an invocation owns and how many workgroups to dispatch: elementwise_in_place.glsl.
#version 450
#extension GL_GOOGLE_include_directive : require

float change(float x, float factor) { return x * factor; }

#include "elementwise_in_place.glsl"
