// SPDX-License-Identifier: Apache-2.0
#include "engine/sampling/sampler_chain.h"

#include <algorithm>
#include <limits>
#include <random>

#include "engine/sampling/constrained_draw.h"
#include "engine/sampling/drawing.h"

namespace zem {
namespace {

constexpr float kMasked = -std::numeric_limits<float>::infinity();

uint64_t unpredictable() {
  std::random_device device;
  const uint64_t high = device();
  return high << 32U | device();
}

bool penalises(const SamplingOptions& options) {
  return options.repeatPenalty != 1.0F || options.presencePenalty != 0.0F ||
         options.frequencyPenalty != 0.0F;
}

}  // namespace

SamplerChain::SamplerChain(const SamplingOptions& options, uint32_t tokens)
    : options_(options),
      tokens_(tokens),
      seed_(options.seed ? *options.seed : unpredictable()),
      random_(seed_),
      window_(penalises(options) ? options.penaltyWindow : 0) {}

std::optional<uint32_t> SamplerChain::next(std::span<const float> logits,
                                           const TokenFilter* filter) {
  const double u = random_.fraction();
  const std::span<const float> values = adjusted(logits);
  const std::optional<Ranking> ranking = Ranking::of(values, orderly_);
  if (!ranking) return std::nullopt;
  const Cuts cuts(options_, ranking->size());
  if (filter == nullptr) return draw(*ranking, cuts, u);
  if (const auto id = drawByTests(*ranking, cuts, u, *filter)) return id;
  return drawMasked(values, u, *filter);
}

std::span<const float> SamplerChain::adjusted(std::span<const float> logits) {
  logits = logits.first(std::min<size_t>(logits.size(), tokens_));
  if (window_.counts().empty() && options_.logitBias.empty()) return logits;
  values_.assign(logits.begin(), logits.end());
  penalise();
  addBiases();
  return values_;
}

void SamplerChain::penalise() {
  for (const auto& [id, count] : window_.counts()) {
    if (id >= values_.size()) continue;
    float& x = values_[id];
    x = x > 0.0F ? x / options_.repeatPenalty : x * options_.repeatPenalty;
    x -= options_.presencePenalty;
    x -= static_cast<float>(count) * options_.frequencyPenalty;
  }
}

void SamplerChain::addBiases() {
  for (const LogitBias& bias : options_.logitBias) {
    if (bias.id < values_.size()) values_[bias.id] += bias.bias;
  }
}

std::optional<uint32_t> SamplerChain::drawMasked(std::span<const float> values, double u,
                                                 const TokenFilter& filter) {
  filter.mask(mask_);
  mask_.resize(values.size(), false);
  if (values.data() != values_.data()) values_.assign(values.begin(), values.end());
  for (size_t id = 0; id < values_.size(); ++id) {
    if (!mask_[id]) values_[id] = kMasked;
  }
  const std::optional<Ranking> ranking = Ranking::of(values_, orderly_);
  if (!ranking) return std::nullopt;
  return draw(*ranking, Cuts(options_, ranking->size()), u);
}

}  // namespace zem
