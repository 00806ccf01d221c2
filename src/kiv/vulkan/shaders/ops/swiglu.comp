// SPDX-License-Identifier: Apache-2.0
// SwiGLU: y[i] = silu(gate[i]) * up[i], with silu(g) = g / (1 + exp(-g)).
//
// Bindings: gate (`a`), up (`b`), y. Push constants: count. What an invocation owns
// and how many workgroups to dispatch: elementwise_binary.glsl.
#version 450
#extension GL_GOOGLE_include_directive : require

#include "activations.glsl"

float combine(float gate, float up) { return silu(gate) * up; }

#include "elementwise_binary.glsl"
