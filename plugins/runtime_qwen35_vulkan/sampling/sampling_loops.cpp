#include "sampling/sampling_loops.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "kiv/math/exact_math_inl.h"

#define ZEM_BODY [[gnu::always_inline]] inline
// Without being told, GCC uses half of the registers' width.
#ifdef __clang__
#define ZEM_AVX512 "avx512f,avx512vl,avx512dq"
#else
#define ZEM_AVX512 "avx512f,avx512vl,avx512dq,prefer-vector-width=512"
#endif

namespace qwen35rt {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
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

// What fits a register. Compilers take wider vectors apart, element by element.
struct Bits128 {
  using Floats = float __attribute__((vector_size(16)));
  using Ints = int32_t __attribute__((vector_size(16)));
};
struct Bits256 {
  using Floats = float __attribute__((vector_size(32)));
  using Ints = int32_t __attribute__((vector_size(32)));
};
struct Bits512 {
  using Floats = float __attribute__((vector_size(64)));
  using Ints = int32_t __attribute__((vector_size(64)));
};

// Each version of the loops is these bodies compiled for another target.

// Compilers keep the order of a minimum's operands, because of NaN, and so make
// vectors only of lanes that are written out. Several vectors at a time, for each
// waits for its own minimum before.
template <typename Register>
ZEM_BODY Bounds boundsOf(const float* x, size_t n, float scale) {
  using Floats = typename Register::Floats;
  using Ints = typename Register::Ints;
  constexpr size_t kLanes = sizeof(Floats) / sizeof(float);
  constexpr size_t kVectors = 4;
  Floats largest[kVectors];
  Floats smallest[kVectors];
  Ints nans[kVectors];
  for (size_t v = 0; v < kVectors; ++v) {
    largest[v] = Floats{} - kInfinity;
    smallest[v] = Floats{} + kInfinity;
    nans[v] = Ints{};
  }
  size_t i = 0;
  for (; i + kVectors * kLanes <= n; i += kVectors * kLanes) {
    for (size_t v = 0; v < kVectors; ++v) {
      Floats values;
      std::memcpy(&values, x + i + v * kLanes, sizeof(values));
      values *= scale;
      largest[v] = values > largest[v] ? values : largest[v];
      smallest[v] = values < smallest[v] ? values : smallest[v];
      nans[v] |= values != values;  // NOLINT(misc-redundant-expression): true of NaN
    }
  }
  Bounds bounds;
  for (size_t v = 0; v < kVectors; ++v) {
    for (size_t lane = 0; lane < kLanes; ++lane) {
      bounds.largest = std::max(bounds.largest, largest[v][lane]);
      bounds.smallest = std::min(bounds.smallest, smallest[v][lane]);
      bounds.hasNan |= nans[v][lane] != 0;
    }
  }
  for (; i < n; ++i) include(bounds, x[i] * scale);
  return bounds;
}

// Block by block, so that only the block with the largest is searched for it.
template <typename Register>
ZEM_BODY Extent extentBody(const float* x, size_t n, float scale) {
  Extent all = {-kInfinity, kInfinity, 0, false};
  size_t block = n;
  for (size_t at = 0; at < n; at += kBlock) {
    const Bounds bounds = boundsOf<Register>(x + at, std::min(kBlock, n - at), scale);
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

Extent extentBaseline(const float* x, size_t n, float scale) {
  return extentBody<Bits128>(x, n, scale);
}
void bucketsBaseline(const float* x, size_t n, float scale, float top, float resolution,
                     uint32_t last, uint32_t* buckets) {
  bucketsBody(x, n, scale, top, resolution, last, buckets);
}
void weightsBaseline(const float* x, size_t n, float scale, float max, double* weights) {
  weightsBody(x, n, scale, max, weights);
}

[[gnu::target("avx2")]] Extent extentAvx2(const float* x, size_t n, float scale) {
  return extentBody<Bits256>(x, n, scale);
}
[[gnu::target("avx2")]] void bucketsAvx2(const float* x, size_t n, float scale, float top,
                                         float resolution, uint32_t last, uint32_t* buckets) {
  bucketsBody(x, n, scale, top, resolution, last, buckets);
}
[[gnu::target("avx2")]] void weightsAvx2(const float* x, size_t n, float scale, float max,
                                         double* weights) {
  weightsBody(x, n, scale, max, weights);
}

[[gnu::target(ZEM_AVX512)]] Extent extentAvx512(const float* x, size_t n, float scale) {
  return extentBody<Bits512>(x, n, scale);
}
[[gnu::target(ZEM_AVX512)]] void bucketsAvx512(const float* x, size_t n, float scale, float top,
                                               float resolution, uint32_t last, uint32_t* buckets) {
  bucketsBody(x, n, scale, top, resolution, last, buckets);
}
[[gnu::target(ZEM_AVX512)]] void weightsAvx512(const float* x, size_t n, float scale, float max,
                                               double* weights) {
  weightsBody(x, n, scale, max, weights);
}

constexpr SamplingLoops kBaseline = {extentBaseline, bucketsBaseline, weightsBaseline};
constexpr SamplingLoops kAvx2 = {extentAvx2, bucketsAvx2, weightsAvx2};
constexpr SamplingLoops kAvx512 = {extentAvx512, bucketsAvx512, weightsAvx512};

}  // namespace

const SamplingLoops& samplingLoops(qwen35::CpuLevel level) {
  // The decoder's kernels do without it, and so does its level.
  static const bool hasDq = __builtin_cpu_supports("avx512dq") != 0;
  switch (level) {
    case qwen35::CpuLevel::Avx512:
      return hasDq ? kAvx512 : kAvx2;
    case qwen35::CpuLevel::Avx2:
      return kAvx2;
    case qwen35::CpuLevel::Baseline:
      break;
  }
  return kBaseline;
}

}  // namespace qwen35rt
