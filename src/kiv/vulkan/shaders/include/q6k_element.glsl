// SPDX-License-Identifier: Apache-2.0
// One element of a Q6_K block. The including shader includes words.glsl before.
const uint kQ6KBytes = 210u;
const uint kHighBits = 128u;  // where the parts of a block begin
const uint kScales = 192u;
const uint kBlockScale = 208u;

// Element e of the block at byte `block`: (code - 32) * scale of the sixteenth * d.
float q6kElement(uint block, uint e) {
  const uint half_ = e / 128u;
  const uint quarter = e % 128u / 32u;
  const uint l = e % 32u;
  const uint low = byteAt(block + 64u * half_ + 32u * (quarter & 1u) + l) >> (4u * (quarter >> 1));
  const uint high = byteAt(block + kHighBits + 32u * half_ + l) >> (2u * quarter);
  const int code = int((low & 15u) | ((high & 3u) << 4)) - 32;
  const int subScale = bitfieldExtract(int(byteAt(block + kScales + e / 16u)), 0, 8);
  return float(subScale * code) * halfAt(block + kBlockScale);
}
