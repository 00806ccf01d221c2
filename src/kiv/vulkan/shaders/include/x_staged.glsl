// SPDX-License-Identifier: Apache-2.0
// Pieces of x kept in shared memory. The including shader declares the buffer `x`,
// `shared float sX[...]` and kLocal = gl_WorkGroupSize.x.
//
// An element of chunk c of its block (64 elements a chunk) lies at its index with c
// exclusive-ored in. Invocations that read the same place of the four chunks, 64
// floats apart, would otherwise all wait for the same bank of memory; this way each
// has a bank of its own.
uint placeOf(uint i) { return i ^ ((i >> 6) & 3u); }

// Copies elements first to first + count - 1 of x, zeros from k on; `first` is the
// beginning of a block. All invocations must call it, with barriers around.
void stageX(uint first, uint count) {
  for (uint i = gl_LocalInvocationID.x; i < count; i += kLocal) {
    sX[placeOf(i)] = first + i < k ? x[first + i] : 0.0;
  }
}

// Elements 4 * quad to 4 * quad + 3 of the piece.
vec4 xQuad(uint quad) {
  const uint first = 4u * quad;
  return vec4(sX[placeOf(first)], sX[placeOf(first + 1u)], sX[placeOf(first + 2u)],
              sX[placeOf(first + 3u)]);
}
