// SPDX-License-Identifier: Apache-2.0
// The second half of attention: values summed with weights. A workgroup is cut into
// slices of `width` invocations; invocation d of a slice owns column d of the sum over
// every slices-th position, so that a slice loads its rows of the value cache
// contiguously. The including shader declares `vCache`, `shared float sRed[kLocal]` and
// `float weightAt(uint i)`.

// The weighted sum over positions `from` + i, i = slice, slice + slices, ... < count,
// of the cache's elements at `column` of rows that are `stride` apart.
float weightedValues(uint from, uint count, uint slice, uint slices, uint stride, uint column) {
  float sum = 0.0;
  for (uint i = slice; i < count; i += slices) {
    sum += weightAt(i) * vCache[(from + i) * stride + column];
  }
  return sum;
}

// The sum of what the slices hold for one column, for the invocations of slice 0. Every
// invocation must call it, those beyond the last whole slice too.
float joinSlices(float value, uint width, uint slices) {
  const uint i = gl_LocalInvocationID.x;
  sRed[i] = value;
  barrier();
  float sum = value;
  if (i < width) {
    for (uint slice = 1u; slice < slices; ++slice) sum += sRed[slice * width + i];
  }
  barrier();
  return sum;
}
