// SPDX-License-Identifier: Apache-2.0
#include "engine/sampling/log_probabilities.h"

#include <algorithm>
#include <limits>
#include <optional>

#include "engine/sampling/ranking.h"
#include "kiv/math/exact_math.h"

namespace zem {
namespace {

constexpr double kImpossible = -std::numeric_limits<double>::infinity();

LogProbabilities allImpossible(size_t count) {
  LogProbabilities result = {kImpossible, std::vector<TokenLogProbability>(count)};
  for (size_t id = 0; id < count; ++id) {
    result.likeliest[id] = {static_cast<uint32_t>(id), kImpossible};
  }
  return result;
}

}  // namespace

LogProbabilities logProbabilities(std::span<const float> logits, uint32_t chosen, size_t count) {
  std::vector<float> storage;
  const std::optional<Ranking> ranking = Ranking::of(logits, storage);
  if (!ranking) return allImpossible(std::min(count, logits.size()));
  const double logOfSum = kiv::math::logF64(ranking->mass(1.0F));
  const auto logProbability = [&](float value) {
    return (static_cast<double>(value) - static_cast<double>(ranking->largest())) - logOfSum;
  };
  LogProbabilities result;
  result.chosen = chosen < ranking->size() ? logProbability((*ranking)[chosen]) : kImpossible;
  for (const Candidate& candidate : ranking->best(count)) {
    result.likeliest.push_back(
        {static_cast<uint32_t>(candidate.id), logProbability(candidate.value)});
  }
  return result;
}

}  // namespace zem
