#include "qwen35_gdn.h"

#include <algorithm>
#include <cmath>

#include "kiv/exact_math.h"
#include "qwen35_reference.h"

namespace qwen35 {
namespace {

// The loops of the reference with two passes over the state instead of three.
// Columns are independent and lie next to each other, so a compiler puts them
// in lanes, and each keeps its order of sums. What makes the difference is
// std::fma: one instruction where the target has it, a library call elsewhere.
[[gnu::always_inline]] inline void stepLoops(float* S, const float* q, const float* k, float* v,
                                             float beta, size_t d, float decay, float scale,
                                             float* delta) {
  std::fill_n(delta, d, 0.0F);
  for (size_t i = 0; i < d; ++i) {
    float* row = S + i * d;
    const float key = k[i];
    for (size_t j = 0; j < d; ++j) {
      row[j] *= decay;
      delta[j] = std::fma(key, row[j], delta[j]);
    }
  }
  for (size_t j = 0; j < d; ++j) delta[j] = (v[j] - delta[j]) * beta;

  std::fill_n(v, d, 0.0F);
  for (size_t i = 0; i < d; ++i) {
    float* row = S + i * d;
    const float key = k[i];
    const float query = q[i];
    for (size_t j = 0; j < d; ++j) {
      row[j] = std::fma(key, delta[j], row[j]);
      v[j] = std::fma(query, row[j], v[j]);
    }
  }
  for (size_t j = 0; j < d; ++j) v[j] *= scale;
}

[[gnu::target("avx512f,avx512vl,avx2,fma")]] void stepAvx512(float* S, const float* q,
                                                             const float* k, float* v, float beta,
                                                             size_t d, float g, float scale,
                                                             float* delta) {
  stepLoops(S, q, k, v, beta, d, kiv::math::expF32(g), scale, delta);
}

[[gnu::target("avx2,fma")]] void stepAvx2(float* S, const float* q, const float* k, float* v,
                                          float beta, size_t d, float g, float scale,
                                          float* delta) {
  stepLoops(S, q, k, v, beta, d, kiv::math::expF32(g), scale, delta);
}

}  // namespace

GdnStep gdnStepOf(CpuLevel level) {
  switch (level) {
    case CpuLevel::Avx512:
      return stepAvx512;
    case CpuLevel::Avx2:
      return stepAvx2;
    case CpuLevel::Baseline:
      break;
  }
  return reference::gdnStep;
}

}  // namespace qwen35
