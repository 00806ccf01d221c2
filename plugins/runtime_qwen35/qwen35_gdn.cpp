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

bool hasAvx512() {
  return __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512vl") != 0 &&
         __builtin_cpu_supports("fma") != 0;
}

bool hasAvx2() { return __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("fma") != 0; }

bool always() { return true; }

constexpr GdnVariant kVariants[] = {
    {"avx512", hasAvx512, stepAvx512},
    {"avx2", hasAvx2, stepAvx2},
    {"plain", always, reference::gdnStep},
};

}  // namespace

std::span<const GdnVariant> gdnVariants() { return kVariants; }

const GdnVariant& bestGdnVariant() {
  static const GdnVariant& best =
      *std::find_if(std::begin(kVariants), std::end(kVariants),
                    [](const GdnVariant& variant) { return variant.supported(); });
  return best;
}

}  // namespace qwen35
