// SPDX-License-Identifier: Apache-2.0
// Softcap: x[i] = cap * tanh(x[i] / cap), which keeps small values as they are and
// large ones below cap, which must be positive.
//
// Bindings: x (changed in place). Push constants: count, cap (`parameter`). What an
// invocation owns and how many workgroups to dispatch: elementwise_in_place.glsl.
#version 450
#extension GL_GOOGLE_include_directive : require

#include "activations.glsl"

float change(float x, float cap) { return cap * boundedTanh(x / cap); }

#include "elementwise_in_place.glsl"
