// SPDX-License-Identifier: Apache-2.0
// What the tests of the sampler share.
#pragma once

#include <cstdint>
#include <limits>
#include <random>
#include <set>
#include <vector>

#include "kiv/sampler.h"
#include "support/float_values.h"

namespace zemtest {

using namespace kiv;

inline constexpr int32_t kIntMin = std::numeric_limits<int32_t>::min();
inline constexpr int32_t kIntMax = std::numeric_limits<int32_t>::max();
inline constexpr size_t kSizeMax = std::numeric_limits<size_t>::max();
// The shortest vocabulary on whose logits top-k works with a list of candidates.
inline constexpr size_t kLarge = 65537;

using History = std::vector<int32_t>;

inline int draw(const std::vector<float>& logits, const SamplerConfig& config,
                const History& history, std::mt19937& rng) {
  return Sampler(rng, config).sample(logits.data(), logits.size(), history);
}

inline std::vector<int> drawMany(const std::vector<float>& logits, const SamplerConfig& config,
                                 const History& history = {}, int count = 200) {
  std::mt19937 rng(42);
  const Sampler sampler(rng, config);
  std::vector<int> ids(static_cast<size_t>(count));
  for (int& id : ids) id = sampler.sample(logits.data(), logits.size(), history);
  return ids;
}

// The ids that are drawn at all.
inline std::set<int> drawable(const std::vector<float>& logits, const SamplerConfig& config,
                              const History& history = {}) {
  const std::vector<int> ids = drawMany(logits, config, history);
  return {ids.begin(), ids.end()};
}

inline std::mt19937 advanced(uint32_t seed, unsigned long long outputs) {
  std::mt19937 rng(seed);
  rng.discard(outputs);
  return rng;
}

// Generators whose next output is of a kind that comes once in 2^32 or 2^25 times.
inline std::mt19937 beforeZero() { return advanced(1471, 383661); }
inline std::mt19937 beforeLargest() { return advanced(293, 8197); }

inline std::vector<float> randomLogits(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<float> logits(n);
  for (float& x : logits) x = static_cast<float>(rng() % 4001) / 250.0F - 8.0F;  // with ties
  return logits;
}

inline SamplerConfig withTemperature(float temperature) {
  SamplerConfig config;
  config.temperature = temperature;
  return config;
}

inline SamplerConfig withTopK(int32_t topK) {
  SamplerConfig config;
  config.topK = topK;
  return config;
}

inline SamplerConfig withTopP(float topP) {
  SamplerConfig config;
  config.topP = topP;
  return config;
}

inline SamplerConfig withMinP(float minP) {
  SamplerConfig config;
  config.minP = minP;
  return config;
}

}  // namespace zemtest
