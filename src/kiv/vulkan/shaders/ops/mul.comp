// SPDX-License-Identifier: Apache-2.0
// Mul: y[i] = a[i] * b[i].
//
// Bindings: a, b, y. Push constants: count. What an invocation owns and how many
// workgroups to dispatch: elementwise_binary.glsl.
#version 450
#extension GL_GOOGLE_include_directive : require

float combine(float a, float b) { return a * b; }

#include "elementwise_binary.glsl"
