// SPDX-License-Identifier: Apache-2.0
#include "kiv/sampler.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <utility>

#include "kiv/math/exact_math.h"

namespace kiv {
namespace {

constexpr size_t kLargeVocabulary = 65536;
constexpr float kDropped = -1e30F;
constexpr float kMinusInfinity = -std::numeric_limits<float>::infinity();

// What the standard library's canonical float is where it takes one output and
// rounds: standard libraries differ, and some take another output instead of 1.
float canonical(std::mt19937& rng) {
  const float u = static_cast<float>(static_cast<uint32_t>(rng())) * 0x1p-32F;
  return u < 1.0F ? u : 0x1.fffffep-1F;
}

bool isFraction(float x) { return x > 0.0F && x < 1.0F; }

// Whether `id` is one of x's.
bool isIdOf(int32_t id, const std::vector<float>& x) {
  return id >= 0 && static_cast<size_t>(id) < x.size();
}

void penaliseRepetition(std::vector<float>& x, const std::vector<int32_t>& history,
                        const SamplerConfig& config) {
  if (!(config.repeatPenalty > 1.0F)) return;
  const size_t window = std::min(config.repeatLastN, history.size());
  for (size_t i = history.size() - window; i < history.size(); ++i) {
    if (!isIdOf(history[i], x)) continue;
    float& logit = x[static_cast<size_t>(history[i])];
    logit = logit <= 0.0F ? logit * config.repeatPenalty : logit / config.repeatPenalty;
  }
}

void penaliseOccurrence(std::vector<float>& x, const std::vector<int32_t>& history,
                        const SamplerConfig& config) {
  const bool active = config.presencePenalty != 0.0F || config.frequencyPenalty != 0.0F;
  if (!active || history.empty()) return;
  std::vector<uint32_t> counts(x.size());
  for (const int32_t id : history) {
    if (isIdOf(id, x)) ++counts[static_cast<size_t>(id)];
  }
  for (const int32_t id : history) {
    if (!isIdOf(id, x)) continue;
    const uint32_t count = std::exchange(counts[static_cast<size_t>(id)], 0U);
    if (count == 0) continue;  // done with it
    x[static_cast<size_t>(id)] -=
        static_cast<float>(count) * config.frequencyPenalty + config.presencePenalty;
  }
}

void applyTemperature(std::vector<float>& x, float temperature) {
  if (!(temperature > 0.0F) || temperature == 1.0F) return;
  const float scale = 1.0F / temperature;
  for (float& logit : x) logit *= scale;
}

// Without NaN, all values have an order.
void replaceNan(std::vector<float>& x) {
  for (float& logit : x) logit = std::isnan(logit) ? kMinusInfinity : logit;
}

// Orders ids by value, largest first, equal values by id.
struct ByValue {
  const std::vector<float>& x;
  bool operator()(uint32_t a, uint32_t b) const { return x[a] != x[b] ? x[a] > x[b] : a < b; }
};

bool anyAbove(const float* x, size_t count, float floor) {
  unsigned above = 0;
  for (size_t i = 0; i < count; ++i) above |= x[i] > floor ? 1U : 0U;
  return above != 0;
}

// The ids of the k largest values, in ascending order. REQUIRES: 0 < k < x.size().
std::vector<uint32_t> largest(const std::vector<float>& x, size_t k) {
  const ByValue better{x};
  std::vector<uint32_t> best(k);  // a heap with the worst of the best in front
  std::iota(best.begin(), best.end(), 0U);
  std::make_heap(best.begin(), best.end(), better);
  // Blocks that have nothing to add are passed over with vector compares.
  constexpr size_t kBlock = 64;
  for (size_t at = k; at < x.size(); at += kBlock) {
    const size_t count = std::min(kBlock, x.size() - at);
    if (!anyAbove(x.data() + at, count, x[best.front()])) continue;
    for (size_t id = at; id < at + count; ++id) {
      if (!(x[id] > x[best.front()])) continue;
      std::pop_heap(best.begin(), best.end(), better);
      best.back() = static_cast<uint32_t>(id);
      std::push_heap(best.begin(), best.end(), better);
    }
  }
  std::sort(best.begin(), best.end());
  return best;
}

// `x` with all but the values at `kept` dropped.
std::vector<float> withoutOthers(const std::vector<float>& x, const std::vector<uint32_t>& kept) {
  std::vector<float> y(x.size(), kDropped);
  for (const uint32_t id : kept) y[id] = x[id];
  return y;
}

std::vector<float> gathered(const std::vector<float>& x, const std::vector<uint32_t>& kept) {
  std::vector<float> y(kept.size());
  std::transform(kept.begin(), kept.end(), y.begin(), [&](uint32_t id) { return x[id]; });
  return y;
}

float sumOf(const std::vector<float>& p) { return std::accumulate(p.begin(), p.end(), 0.0F); }

// Logits to probabilities.
void softmax(std::vector<float>& x) {
  const float max = *std::max_element(x.begin(), x.end());
  // The difference of two infinities is NaN; equal values weigh the same.
  for (float& v : x) v = v == max ? 1.0F : math::expF32(v - max);
  const float sum = sumOf(x);
  for (float& p : x) p /= sum;
}

// Keeps the most probable ids until their sum is above topP, and sets the others to 0.
void dropTail(std::vector<float>& p, float topP) {
  std::vector<uint32_t> order(p.size());
  std::iota(order.begin(), order.end(), 0U);
  const ByValue before{p};
  float sum = 0.0F;
  // Most of the probability lies with few: those in front are sorted, in growing portions.
  size_t portion = 64;
  for (size_t at = 0; at < order.size(); portion *= 4) {
    const size_t end = std::min(order.size(), at + portion);
    const auto first = order.begin() + static_cast<std::ptrdiff_t>(at);
    const auto last = order.begin() + static_cast<std::ptrdiff_t>(end);
    if (last != order.end()) std::nth_element(first, last, order.end(), before);
    std::sort(first, last, before);
    for (; at < end; ++at) {
      sum += p[order[at]];
      if (!(sum > topP)) continue;
      for (size_t i = at + 1; i < order.size(); ++i) p[order[i]] = 0.0F;
      return;
    }
  }
}

void applyTopP(std::vector<float>& p, float topP) {
  if (!isFraction(topP)) return;
  dropTail(p, topP);
  const float sum = sumOf(p);
  for (float& value : p) value = sum > 0.0F ? value / sum : 0.0F;
}

void applyMinP(std::vector<float>& p, float minP) {
  if (!isFraction(minP)) return;
  const float floor = minP * *std::max_element(p.begin(), p.end());
  double sum = 0.0;
  for (float& value : p) {
    if (value < floor) value = 0.0F;
    sum += static_cast<double>(value);
  }
  if (!(sum > 0.0)) return;
  const double scale = 1.0 / sum;
  for (float& value : p) value = static_cast<float>(static_cast<double>(value) * scale);
}

size_t draw(const std::vector<float>& p, float u) {
  float sum = 0.0F;
  for (size_t i = 0; i < p.size(); ++i) {
    sum += p[i];
    if (u < sum) return i;
  }
  return static_cast<size_t>(std::max_element(p.begin(), p.end()) - p.begin());
}

}  // namespace

int Sampler::sample(const float* logits, size_t n, const std::vector<int32_t>& history) const {
  const float u = canonical(rng_);
  if (n < 2) return 0;

  std::vector<float> x(logits, logits + n);
  penaliseRepetition(x, history, cfg_);
  penaliseOccurrence(x, history, cfg_);
  applyTemperature(x, cfg_.temperature);
  replaceNan(x);

  std::vector<uint32_t> candidates;  // the ids of x; empty: all
  if (cfg_.topK > 0 && static_cast<size_t>(cfg_.topK) < n) {
    std::vector<uint32_t> kept = largest(x, static_cast<size_t>(cfg_.topK));
    if (n > kLargeVocabulary) {
      x = gathered(x, kept);
      candidates = std::move(kept);
    } else {
      x = withoutOthers(x, kept);
    }
  }
  softmax(x);
  applyTopP(x, cfg_.topP);
  applyMinP(x, cfg_.minP);
  const size_t drawn = draw(x, u);
  return static_cast<int>(candidates.empty() ? drawn : candidates[drawn]);
}

int Sampler::greedy(const float* logits, size_t n) {
  size_t best = 0;
  for (size_t i = 1; i < n; ++i) {
    if (logits[i] > logits[best]) best = i;
  }
  return static_cast<int>(best);
}

}  // namespace kiv
