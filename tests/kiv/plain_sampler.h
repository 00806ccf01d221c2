// SPDX-License-Identifier: Apache-2.0
// Sampling as it is defined: sort everything, one step after the other. With
// float it makes every rounding that Sampler makes; with double it is the
// distribution that those roundings stand for.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <map>
#include <numeric>
#include <random>
#include <vector>

#include "kiv/math/exact_math.h"
#include "kiv/sampler.h"

namespace zemtest::plain {

using namespace kiv;

inline float exponential(float x) { return math::expF32(x); }
inline double exponential(double x) { return std::exp(x); }

// All positions, those of the largest values first, equal ones in their order.
template <typename Real>
std::vector<size_t> ranking(const std::vector<Real>& values) {
  std::vector<size_t> order(values.size());
  std::iota(order.begin(), order.end(), size_t{0});
  std::stable_sort(order.begin(), order.end(),
                   [&](size_t a, size_t b) { return values[a] > values[b]; });
  return order;
}

template <typename Real>
void penalise(std::vector<Real>& x, const SamplerConfig& config,
              const std::vector<int32_t>& history) {
  const auto known = [&](int32_t id) { return id >= 0 && int64_t{id} < int64_t(x.size()); };
  if (config.repeatPenalty > 1.0F) {
    for (size_t i = 0; i < history.size(); ++i) {
      if (history.size() - i > config.repeatLastN || !known(history[i])) continue;
      Real& value = x[size_t(history[i])];
      value = value > 0 ? value / Real(config.repeatPenalty) : value * Real(config.repeatPenalty);
    }
  }
  std::map<int32_t, int> counts;
  for (const int32_t id : history) counts[id] += known(id) ? 1 : 0;
  for (const auto& [id, count] : counts) {
    if (count == 0) continue;
    x[size_t(id)] -= Real(count) * Real(config.frequencyPenalty) + Real(config.presencePenalty);
  }
}

template <typename Real>
void keepTopK(std::vector<Real>& x, int32_t topK) {
  if (topK <= 0 || size_t(topK) >= x.size()) return;
  const std::vector<size_t> order = ranking(x);
  for (size_t i = size_t(topK); i < x.size(); ++i) x[order[i]] = Real(-1e30);
}

template <typename Real>
void keepTopP(std::vector<Real>& p, float topP) {
  if (!(topP > 0.0F && topP < 1.0F)) return;
  const std::vector<size_t> order = ranking(p);
  Real sum = 0;
  bool full = false;
  for (const size_t i : order) {
    if (full) {
      p[i] = 0;
    } else {
      sum += p[i];
      full = sum > Real(topP);
    }
  }
  const Real rest = std::accumulate(p.begin(), p.end(), Real(0));
  for (Real& value : p) value = rest > 0 ? value / rest : Real(0);
}

template <typename Real>
void keepMinP(std::vector<Real>& p, float minP) {
  if (!(minP > 0.0F && minP < 1.0F)) return;
  const Real floor = Real(minP) * *std::max_element(p.begin(), p.end());
  for (Real& value : p) value = value < floor ? 0 : value;
  const double sum = std::accumulate(p.begin(), p.end(), 0.0);
  if (sum > 0.0) {
    for (Real& value : p) value = Real(double(value) * (1.0 / sum));
  }
}

// The probability of every id. REQUIRES: logits, and no NaN among them.
template <typename Real>
std::vector<Real> probabilities(const std::vector<float>& logits, const SamplerConfig& config,
                                const std::vector<int32_t>& history) {
  std::vector<Real> x(logits.begin(), logits.end());
  penalise(x, config, history);
  if (config.temperature > 0.0F) {
    const Real scale = Real(1) / Real(config.temperature);
    for (Real& value : x) value *= scale;
  }
  keepTopK(x, config.topK);
  const Real max = *std::max_element(x.begin(), x.end());
  for (Real& value : x) value = exponential(value - max);
  const Real sum = std::accumulate(x.begin(), x.end(), Real(0));
  for (Real& value : x) value /= sum;
  keepTopP(x, config.topP);
  keepMinP(x, config.minP);
  return x;
}

// The id that the generator's next output selects.
inline int sample(const std::vector<float>& p, std::mt19937& rng) {
  const float rounded = static_cast<float>(static_cast<double>(rng()) / 4294967296.0);
  const float u = std::min(rounded, std::nextafter(1.0F, 0.0F));
  float sum = 0.0F;
  for (size_t id = 0; id < p.size(); ++id) {
    sum += p[id];
    if (sum > u) return static_cast<int>(id);
  }
  return static_cast<int>(ranking(p).front());
}

}  // namespace zemtest::plain
