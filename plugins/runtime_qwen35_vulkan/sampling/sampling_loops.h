// The loops over a whole vocabulary that choosing a token needs, for each
// instruction set. All versions give the same bits.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qwen35_cpu.h"

namespace qwen35rt {

// What a list of numbers spans, NaN left aside.
struct Extent {
  float largest;        // negative infinity when there is no number
  float smallest;       // infinity when there is no number
  size_t firstLargest;  // 0 when there is none, or none above negative infinity
  bool hasNan;
};

// In each of these, element i stands for the number x[i] * scale, rounded to float.
struct SamplingLoops {
  Extent (*extent)(const float* x, size_t n, float scale);

  // buckets[i] = the distance of element i below `top`, times `resolution`, rounded
  // down, at most `last`: never smaller for a smaller element. No NaN.
  void (*buckets)(const float* x, size_t n, float scale, float top, float resolution, uint32_t last,
                  uint32_t* buckets);

  // weights[i] = e^(element i - max) as kiv::math::expF64 has it. No element is
  // larger than `max` or NaN, and `max` is finite.
  void (*weights)(const float* x, size_t n, float scale, float max, double* weights);
};

// The version for `level`, which this processor has. Avx512 without the DQ
// instructions gets Avx2's.
const SamplingLoops& samplingLoops(qwen35::CpuLevel level);

// The version for currentCpuLevel().
inline const SamplingLoops& samplingLoops() { return samplingLoops(qwen35::currentCpuLevel()); }

}  // namespace qwen35rt
