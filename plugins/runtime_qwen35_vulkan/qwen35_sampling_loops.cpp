#include "qwen35_sampling_loops.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

#include "kiv/exact_math_inl.h"

// A version of the loops is the same text compiled for another target.
#define ZEM_BODY [[gnu::always_inline]] inline
#define ZEM_TARGET(features) __attribute__((target(features)))

namespace qwen35rt {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr size_t kLanes = 16;
constexpr size_t kBlock = 1024;

struct Bounds {
  float largest = -kInfinity;
  float smallest = kInfinity;
  bool hasNan = false;
};

ZEM_BODY void include(Bounds& bounds, float value) {
  bounds.largest = value > bounds.largest ? value : bounds.largest;
  bounds.smallest = value < bounds.smallest ? value : bounds.smallest;
  bounds.hasNan |= value != value;
}

// Compilers keep the order of a minimum's operands, because of NaN, and so make
// vectors only of lanes that are written out.
ZEM_BODY Bounds boundsOf(const float* x, size_t n, float scale) {
  using Floats = float __attribute__((vector_size(kLanes * sizeof(float))));
  using Ints = int32_t __attribute__((vector_size(kLanes * sizeof(int32_t))));
  Floats largest = Floats{} - kInfinity;
  Floats smallest = Floats{} + kInfinity;
  Ints nans = {};
  size_t i = 0;
  for (; i + kLanes <= n; i += kLanes) {
    Floats values;
    std::memcpy(&values, x + i, sizeof(values));
    values *= scale;
    largest = values > largest ? values : largest;
    smallest = values < smallest ? values : smallest;
    nans |= values != values;
  }
  Bounds bounds;
  for (size_t lane = 0; lane < kLanes; ++lane) {
    bounds.largest = std::max(bounds.largest, largest[lane]);
    bounds.smallest = std::min(bounds.smallest, smallest[lane]);
    bounds.hasNan |= nans[lane] != 0;
  }
  for (; i < n; ++i) include(bounds, x[i] * scale);
  return bounds;
}

// Block by block, so that only the block with the largest is searched for it.
ZEM_BODY Extent extentBody(const float* x, size_t n, float scale) {
  Extent all = {-kInfinity, kInfinity, 0, false};
  size_t block = n;
  for (size_t at = 0; at < n; at += kBlock) {
    const Bounds bounds = boundsOf(x + at, std::min(kBlock, n - at), scale);
    if (bounds.largest > all.largest) {
      all.largest = bounds.largest;
      block = at;
    }
    all.smallest = std::min(all.smallest, bounds.smallest);
    all.hasNan |= bounds.hasNan;
  }
  if (block == n) return all;
  all.firstLargest = block;
  while (!(x[all.firstLargest] * scale == all.largest)) ++all.firstLargest;
  return all;
}

ZEM_BODY void bucketsBody(const float* x, size_t n, float scale, float top, float resolution,
                          uint32_t last, uint32_t* buckets) {
  const auto end = static_cast<float>(last);
  for (size_t i = 0; i < n; ++i) {
    const float distance = (top - x[i] * scale) * resolution;
    buckets[i] = static_cast<uint32_t>(static_cast<int32_t>(distance < end ? distance : end));
  }
}

ZEM_BODY void weightsBody(const float* x, size_t n, float scale, float max, double* weights) {
  const auto top = static_cast<double>(max);
  for (size_t i = 0; i < n; ++i) {
    weights[i] = kiv::math::inl::expF64OfNegative(static_cast<double>(x[i] * scale) - top);
  }
}

#define ZEM_SAMPLING_LOOPS(suffix, attribute)                                          \
  attribute Extent extent##suffix(const float* x, size_t n, float scale) {             \
    return extentBody(x, n, scale);                                                    \
  }                                                                                    \
  attribute void buckets##suffix(const float* x, size_t n, float scale, float top,     \
                                 float resolution, uint32_t last, uint32_t* buckets) { \
    bucketsBody(x, n, scale, top, resolution, last, buckets);                          \
  }                                                                                    \
  attribute void weights##suffix(const float* x, size_t n, float scale, float max,     \
                                 double* weights) {                                    \
    weightsBody(x, n, scale, max, weights);                                            \
  }

ZEM_SAMPLING_LOOPS(Baseline, )
ZEM_SAMPLING_LOOPS(Avx2, ZEM_TARGET("avx2"))
ZEM_SAMPLING_LOOPS(Avx512, ZEM_TARGET("avx512f,avx512vl,avx512dq,prefer-vector-width=512"))

std::vector<SamplingLoops> detectLoops() {
  std::vector<SamplingLoops> loops;
  const bool avx2 = __builtin_cpu_supports("avx2") != 0;
  const bool avx512 = avx2 && __builtin_cpu_supports("avx512f") != 0 &&
                      __builtin_cpu_supports("avx512vl") != 0 &&
                      __builtin_cpu_supports("avx512dq") != 0;
  if (avx512) loops.push_back({"avx512", extentAvx512, bucketsAvx512, weightsAvx512});
  if (avx2) loops.push_back({"avx2", extentAvx2, bucketsAvx2, weightsAvx2});
  loops.push_back({"baseline", extentBaseline, bucketsBaseline, weightsBaseline});
  return loops;
}

}  // namespace

std::span<const SamplingLoops> samplingLoops() {
  static const std::vector<SamplingLoops> loops = detectLoops();
  return loops;
}

}  // namespace qwen35rt
