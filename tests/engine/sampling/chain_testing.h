// SPDX-License-Identifier: Apache-2.0
// Option sets and filters for tests of the sampler chain.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "engine/sampling/token_filter.h"
#include "engine/sampling_options.h"

namespace zemtest {

// Allows the ids of a mask, and counts how often it is asked.
class MaskFilter : public zem::TokenFilter {
 public:
  explicit MaskFilter(std::vector<bool> allowed) : allowed_(std::move(allowed)) {}

  bool allows(uint32_t id) const override {
    ++tests;
    return id < allowed_.size() && allowed_[id];
  }
  void mask(std::vector<bool>& allowed) const override {
    ++masks;
    allowed = allowed_;
  }

  const std::vector<bool>& allowed() const { return allowed_; }

  mutable int tests = 0;
  mutable int masks = 0;

 private:
  std::vector<bool> allowed_;
};

// Each id with the probability share / 256.
inline std::vector<bool> someIds(size_t n, unsigned share, std::mt19937& random) {
  std::vector<bool> ids(n);
  for (size_t id = 0; id < n; ++id) ids[id] = random() % 256 < share;
  return ids;
}

template <typename Choices>
auto oneOf(const Choices& choices, std::mt19937& random) {
  return choices[random() % std::size(choices)];
}

// Every feature on or off at random.
inline zem::SamplingOptions someOptions(size_t n, std::mt19937& random) {
  const float temperatures[] = {0.0F, 1e-45F, 1e-30F, 0.05F, 0.7F, 1.0F, 1.0F, 3.0F, 100.0F};
  const uint32_t topKs[] = {0, 0, 1, 2, 20, 40, 300, static_cast<uint32_t>(n), 4000000000U};
  const float topPs[] = {1.0F, 1.0F, 0.0F, 1e-6F, 0.5F, 0.8F, 0.95F, 0.9999999F};
  const float minPs[] = {0.0F, 0.0F, 1e-30F, 1e-3F, 0.05F, 0.5F, 1.0F};
  zem::SamplingOptions options;
  options.temperature = oneOf(temperatures, random);
  options.topK = oneOf(topKs, random);
  options.topP = oneOf(topPs, random);
  options.minP = oneOf(minPs, random);
  if (random() % 3 == 0) {
    options.repeatPenalty = oneOf(std::vector<float>{0.5F, 1.1F, 100.0F}, random);
    options.presencePenalty = oneOf(std::vector<float>{-1.0F, 0.0F, 1.5F}, random);
    options.frequencyPenalty = oneOf(std::vector<float>{0.0F, 0.3F}, random);
    options.penaltyWindow = oneOf(std::vector<size_t>{0, 1, 3, zem::kWholeReply}, random);
  }
  for (size_t biases = random() % 6; biases > 3; --biases) {
    const std::vector<float> values = {-100.0F, 2.0F, -std::numeric_limits<float>::infinity()};
    options.logitBias.push_back({static_cast<uint32_t>(random() % n), oneOf(values, random)});
  }
  options.seed = random();
  return options;
}

}  // namespace zemtest
