// SPDX-License-Identifier: Apache-2.0
// attention_parts.glsl over pages of half precision.
#version 450
#extension GL_GOOGLE_include_directive : require

#include "attention_parts.glsl"
