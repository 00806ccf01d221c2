// The loops over a whole vocabulary that choosing a token needs, for the vector
// units of this processor. All versions give the same bits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

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
  const char* name;  // of the instruction set

  Extent (*extent)(const float* x, size_t n, float scale);

  // buckets[i] = the distance of element i below `top`, times `resolution`, rounded
  // down, at most `last`: never smaller for a smaller element. No NaN.
  void (*buckets)(const float* x, size_t n, float scale, float top, float resolution, uint32_t last,
                  uint32_t* buckets);

  // weights[i] = e^(element i - max) as kiv::math::expF64 has it. No element is
  // larger than `max` or NaN, and `max` is finite.
  void (*weights)(const float* x, size_t n, float scale, float max, double* weights);
};

// The versions that this processor can run, best first.
std::span<const SamplingLoops> samplingLoops();

}  // namespace qwen35rt
