// SPDX-License-Identifier: Apache-2.0
// Blocks of Q8_0: a half-precision scale and 32 signed bytes, at even places. The including shader
// includes words.glsl before.
const uint kQ8_0Bytes = 34u;

// Elements 4 i to 4 i + 3 of the block at byte `block`, without the scale.
vec4 q8_0Codes(uint block, uint i) {
  const uint at = block + 2u + 4u * i;
  const int low = int(pairAt(at));
  const int high = int(pairAt(at + 2u));
  return vec4(bitfieldExtract(low, 0, 8), bitfieldExtract(low, 8, 8), bitfieldExtract(high, 0, 8),
              bitfieldExtract(high, 8, 8));
}
