// SPDX-License-Identifier: Apache-2.0
#include "engine/sampling/drawing.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

namespace zem {
namespace {

// Most of the probability lies with few: a search for a cut begins with so many ...
constexpr size_t kFirstPortion = 256;
// ... and goes on with a portion so many times as large.
constexpr size_t kPortionGrowth = 12;

double targetOf(const Cuts& cuts, double total) {
  return cuts.hasShare() ? cuts.share * total : kNever;
}

double sumById(std::span<const Candidate> ranked) {
  std::vector<Candidate> byId(ranked.begin(), ranked.end());
  std::sort(byId.begin(), byId.end(),
            [](const Candidate& a, const Candidate& b) { return a.id < b.id; });
  double sum = 0.0;
  for (const Candidate& candidate : byId) {
    sum += qwen35::weightOf(candidate.value, ranked.front().value);
  }
  return sum;
}

// What stays of all values when topK is off, with as little sorting as shows it.
std::vector<Candidate> cutOfAll(const Ranking& ranking, const Cuts& cuts) {
  const double target = targetOf(cuts, cuts.hasShare() ? ranking.mass(1.0F) : 0.0);
  for (size_t portion = kFirstPortion;; portion *= kPortionGrowth) {
    std::vector<Candidate> best = ranking.best(portion);
    const Prefix kept = prefixOf(weightsOf(best), target, cuts.floor);
    const bool all = best.size() == ranking.size();
    best.resize(kept.count);
    if (kept.closed || all) return best;
  }
}

uint32_t drawFromAll(const Ranking& ranking, float scale, double u) {
  if (std::isfinite(ranking.largest() * scale)) {
    if (const auto id = ranking.drawFromAll(scale, u)) return *id;
  }
  return walk(ranking.best(ranking.size()), scale, u);
}

}  // namespace

Cuts::Cuts(const SamplingOptions& options, size_t ids)
    : greedy(options.temperature <= 0.0F),
      limit(options.topK == 0 ? ids : std::min<size_t>(options.topK, ids)),
      share(options.topP),
      floor(options.minP),
      scale(std::min(1.0F / options.temperature, std::numeric_limits<float>::max())) {}

Prefix prefixOf(std::span<const double> weights, double target, double floor) {
  double sum = 0.0;
  for (size_t i = 0; i < weights.size(); ++i) {
    if (weights[i] < floor) return {i, true};
    sum += weights[i];
    if (sum >= target) return {i + 1, true};
  }
  return {weights.size(), false};
}

size_t indexAt(std::span<const double> weights, double target) {
  double sum = 0.0;
  for (size_t i = 0; i < weights.size(); ++i) {
    sum += weights[i];
    if (sum >= target) return i;
  }
  return weights.size();
}

std::vector<double> weightsOf(std::span<const Candidate> ranked) {
  std::vector<double> weights(ranked.size());
  std::transform(ranked.begin(), ranked.end(), weights.begin(), [&](const Candidate& candidate) {
    return qwen35::weightOf(candidate.value, ranked.front().value);
  });
  return weights;
}

std::vector<Candidate> scaled(std::span<const Candidate> ranked, float scale) {
  constexpr float kMinusInfinity = -std::numeric_limits<float>::infinity();
  std::vector<Candidate> products(ranked.begin(), ranked.end());
  const float largest = ranked.front().value;
  const bool finite = std::isfinite(largest * scale);
  for (Candidate& product : products) {
    const float ofInfinite = product.value == largest ? 0.0F : kMinusInfinity;
    product.value = finite ? product.value * scale : ofInfinite;
  }
  if (!std::is_sorted(products.begin(), products.end(), qwen35::ranksBefore)) {
    std::sort(products.begin(), products.end(), qwen35::ranksBefore);
  }
  return products;
}

uint32_t walk(std::span<const Candidate> kept, float scale, double u) {
  const std::vector<Candidate> ranked = scaled(kept, scale);
  const std::vector<double> weights = weightsOf(ranked);
  const double total = std::accumulate(weights.begin(), weights.end(), 0.0);
  return static_cast<uint32_t>(ranked[indexAt(weights, u * total)].id);
}

std::span<const Candidate> cut(std::span<const Candidate> ranked, const Cuts& cuts) {
  const double target = targetOf(cuts, cuts.hasShare() ? sumById(ranked) : 0.0);
  return ranked.first(prefixOf(weightsOf(ranked), target, cuts.floor).count);
}

uint32_t draw(const Ranking& ranking, const Cuts& cuts, double u) {
  if (cuts.greedy) return ranking.first();
  if (!cuts.any(ranking.size())) return drawFromAll(ranking, cuts.scale, u);
  if (cuts.limit == ranking.size()) return walk(cutOfAll(ranking, cuts), cuts.scale, u);
  return walk(cut(ranking.best(cuts.limit), cuts), cuts.scale, u);
}

}  // namespace zem
