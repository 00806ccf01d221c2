// SPDX-License-Identifier: Apache-2.0
// Activation functions. They never take the exponential of a positive number, so
// nothing overflows: devices differ in what they make of infinity.

float sigmoid(float x) {
  const float e = exp(-abs(x));
  return (x < 0.0 ? e : 1.0) / (1.0 + e);
}

float silu(float x) { return x * sigmoid(x); }

// x / 2 * (1 + tanh(u)) with u = sqrt(2 / pi) * (x + 0.044715 x^3); half of one
// plus tanh(u) is the sigmoid of 2u. The cube is cut where the sigmoid has long
// reached 0 or 1, since it overflows long before x does.
float geluTanh(float x) {
  const float z = clamp(x, -16.0, 16.0);
  return x * sigmoid(1.5957691216 * (z + 0.044715 * z * z * z));
}

// tanh to a few units in the last place. Near 0, where a difference of
// exponentials would cancel, by its series.
float boundedTanh(float x) {
  const float s = x * x;
  if (s < 0.0625) {
    const float tail = 2.0 / 15.0 + s * (-17.0 / 315.0 + s * (62.0 / 2835.0));
    return x * (1.0 + s * (-1.0 / 3.0 + s * tail));
  }
  const float e = exp(-2.0 * abs(x));
  return (x < 0.0 ? -1.0 : 1.0) * (1.0 - e) / (1.0 + e);
}
