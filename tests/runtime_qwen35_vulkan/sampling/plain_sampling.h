// SPDX-License-Identifier: Apache-2.0
// Sampling as it is defined: sort everything, walk down the list.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <random>
#include <vector>

#include "kiv/math/exact_math.h"

namespace qwen35rt::plain {

struct Ranked {
  float value;  // logit / temperature
  int id;
};

// Largest first, equal values by id, NaN behind everything.
inline bool ranksBefore(const Ranked& a, const Ranked& b) {
  if (a.value > b.value) return true;
  if (a.value < b.value) return false;
  const bool aNan = std::isnan(a.value);
  const bool bNan = std::isnan(b.value);
  return aNan == bNan ? a.id < b.id : bNan;
}

inline std::vector<Ranked> ranking(const float* logits, size_t n, float temperature, int topK) {
  const float inv = 1.0F / temperature;
  std::vector<Ranked> ranked(n);
  for (size_t i = 0; i < n; ++i) ranked[i] = {logits[i] * inv, static_cast<int>(i)};
  std::sort(ranked.begin(), ranked.end(), ranksBefore);
  if (topK >= 1 && static_cast<size_t>(topK) < n) ranked.resize(static_cast<size_t>(topK));
  return ranked;
}

inline double canonical(std::mt19937& rng) {
  const auto low = static_cast<double>(rng());
  const auto high = static_cast<double>(rng());
  const double u = (low + high * 0x1p32) * 0x1p-64;
  return u < 1.0 ? u : std::nextafter(1.0, 0.0);
}

// The id for the draw `u` from candidates in ranking order.
inline int walk(const std::vector<Ranked>& ranked, double u, float topP) {
  std::vector<double> weights(ranked.size());
  for (size_t i = 0; i < ranked.size(); ++i) {
    weights[i] = kiv::math::expF64(double{ranked[i].value} - double{ranked[0].value});
  }
  if (topP > 0.0F && topP < 1.0F) {
    double sum = 0.0;
    for (size_t i = 0; i < weights.size(); ++i) {
      sum += weights[i];
      if (sum < double{topP} || std::isnan(sum)) continue;
      weights.resize(i + 1);
      break;
    }
  }
  double total = 0.0;
  for (const double weight : weights) total += weight;
  double rest = u * total;
  for (size_t i = 0; i < weights.size(); ++i) {
    rest -= weights[i];
    if (rest <= 0.0) return ranked[i].id;
  }
  return weights.empty() ? 0 : ranked[weights.size() - 1].id;
}

inline int argmax(const float* logits, size_t n) {
  size_t best = 0;
  for (size_t i = 1; i < n; ++i) {
    if (logits[i] > logits[best]) best = i;
  }
  return static_cast<int>(best);
}

inline int sampleNext(const float* logits, size_t n, float temperature, int topK, float topP,
                      std::mt19937& rng) {
  if (temperature <= 0.0F || topK == 1) return argmax(logits, n);
  return walk(ranking(logits, n, temperature, topK), canonical(rng), topP);
}

}  // namespace qwen35rt::plain
