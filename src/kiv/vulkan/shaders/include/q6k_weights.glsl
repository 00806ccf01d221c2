// SPDX-License-Identifier: Apache-2.0
// Four weights of a row of Q6_K blocks, as gemm.glsl asks for them. Where the parts of a code lie
// says q6k_block.glsl.
#include "words.glsl"
#include "q6k_block.glsl"

vec4 fourWeights(uint row, uint column) {
  const uint block = row + column / kBlock * kBlockBytes;
  const uint e = column % kBlock;
  const uint half_ = e / 128u;
  const uint quarter = e % 128u / 32u;
  const uint l = e % 32u;
  const uint low = evenWordAt(block + 64u * half_ + 32u * (quarter & 1u) + l);
  const uint high = evenWordAt(block + kHighBits + 32u * half_ + l);
  const float scale = signedByteAt(block + kScales + e / 16u) * halfAt(block + kSuperScale);
  return codes(low >> (4u * (quarter >> 1)), high >> (2u * quarter)) * scale;
}
