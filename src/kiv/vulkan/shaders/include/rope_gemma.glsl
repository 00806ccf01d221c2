// SPDX-License-Identifier: Apache-2.0
// Rotary embedding with its angles made on the spot: in the first `rotated` elements
// of a head, elements i and i + h are turned as a pair, with h = rotated / 2, by
// position * base^(-2i / rotated) / freqFactors[i]; the elements behind are copied.
#include "cos_sin.glsl"
#include "rotate_pair.glsl"

const uint kLocal = 256u;
layout(local_size_x = kLocal) in;

layout(std430, set = 0, binding = 0) readonly buffer X { float x[]; };
layout(std430, set = 0, binding = 1) readonly buffer FreqFactors { float freqFactors[]; };
layout(std430, set = 0, binding = 2) writeonly buffer Y { float y[]; };

// Pairs and single elements that a head of `width` elements consists of.
uint unitsOfHead(uint width, uint rotated) { return width - rotated / 2u; }

// Does one of them, for the head whose first element is x[start].
void rotateUnit(uint start, uint unit, uint rotated, float base, uint position) {
  const uint pairs = rotated / 2u;
  const uint low = start + unit;
  const uint high = low + pairs;
  if (unit >= pairs) {
    y[high] = x[high];
    return;
  }
  const float frequency = pow(base, -float(2u * unit) / float(rotated)) / freqFactors[unit];
  const vec2 turned = rotatePair(vec2(x[low], x[high]), cosSin(float(position) * frequency));
  y[low] = turned.x;
  y[high] = turned.y;
}
