// SPDX-License-Identifier: Apache-2.0
#include "sampling/sampling.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <vector>

#include "sampling/candidates.h"

namespace qwen35rt {

using qwen35::bestCandidates;
using qwen35::Candidate;
using qwen35::CandidateList;
using qwen35::drawByWeight;
using qwen35::Extent;
using qwen35::ranksBefore;
using qwen35::SamplingLoops;
using qwen35::weightOf;

namespace {

// Up to this many candidates a full sort is as fast as a search for the best ones.
constexpr size_t kFewCandidates = 1024;

// A double in [0, 1) from two generator outputs, low word first. Written out
// because standard libraries draw differently.
double canonical(std::mt19937& rng) {
  const auto low = static_cast<double>(rng());
  const auto high = static_cast<double>(rng());
  const double u = (low + high * 0x1p32) * 0x1p-64;
  return u < 1.0 ? u : std::nextafter(1.0, 0.0);
}

// How many candidates stay: those up to the one with which the sum of weights
// reaches topP.
size_t nucleusSize(const std::vector<double>& weights, float topP) {
  double sum = 0.0;
  for (size_t i = 0; i < weights.size(); ++i) {
    sum += weights[i];
    if (sum >= static_cast<double>(topP)) return i + 1;
  }
  return weights.size();
}

bool isActive(float topP) { return topP > 0.0F && topP < 1.0F; }

// The definition: the walk down the sorted list.
int drawSorted(std::vector<Candidate> ranked, double u, float topP) {
  if (ranked.empty()) return 0;
  std::sort(ranked.begin(), ranked.end(), ranksBefore);
  std::vector<double> weights(ranked.size());
  for (size_t i = 0; i < ranked.size(); ++i) {
    weights[i] = weightOf(ranked[i].value, ranked[0].value);
  }
  if (isActive(topP)) weights.resize(nucleusSize(weights, topP));

  double total = 0.0;
  for (const double weight : weights) total += weight;
  double rest = u * total;
  for (size_t i = 0; i < weights.size(); ++i) {
    rest -= weights[i];
    if (rest <= 0.0) return ranked[i].id;
  }
  return ranked[weights.size() - 1].id;
}

// The `count` best of all scaled logits, NaN among them.
std::vector<Candidate> bestByRank(const float* logits, size_t n, float scale, size_t count) {
  std::vector<Candidate> ranked(n);
  for (size_t i = 0; i < n; ++i) ranked[i] = {logits[i] * scale, static_cast<int>(i)};
  if (count < n) {
    const auto cut = ranked.begin() + static_cast<std::ptrdiff_t>(count);
    std::nth_element(ranked.begin(), cut, ranked.end(), ranksBefore);
    ranked.erase(cut, ranked.end());
  }
  return ranked;
}

// All of a list without NaN.
int drawFromAll(const CandidateList& list, const Extent& extent, double u,
                const SamplingLoops& loops) {
  if (const std::optional<int> id = drawByWeight(list, extent, u, loops)) return *id;
  std::vector<Candidate> all(list.n);
  for (size_t i = 0; i < list.n; ++i) {
    all[i] = {list.x[i] * list.scale, list.ids != nullptr ? list.ids[i] : static_cast<int>(i)};
  }
  return drawSorted(std::move(all), u, 0.0F);
}

int drawFromBest(const CandidateList& list, const Extent& extent, size_t count, double u,
                 const SamplingLoops& loops) {
  std::vector<Candidate> best = bestCandidates(list, extent, count, loops);
  if (count <= kFewCandidates) return drawSorted(std::move(best), u, 0.0F);
  std::vector<float> values(count);
  std::vector<int> ids(count);
  for (size_t i = 0; i < count; ++i) {
    values[i] = best[i].value;
    ids[i] = best[i].id;
  }
  const CandidateList kept = {values.data(), count, 1.0F, ids.data()};
  return drawFromAll(kept, loops.extent(kept.x, count, kept.scale), u, loops);
}

}  // namespace

int argmax(const float* logits, size_t n) {
  // No comparison with a NaN is true, so a NaN in front stays the largest.
  if (n < 2 || std::isnan(logits[0])) return 0;
  return static_cast<int>(qwen35::kernelTable().sampling.extent(logits, n, 1.0F).firstLargest);
}

int sampleNext(const float* logits, size_t n, float temperature, int topK, float topP,
               std::mt19937& rng) {
  if (temperature <= 0.0F || topK == 1) return argmax(logits, n);

  const SamplingLoops& loops = qwen35::kernelTable().sampling;
  const double u = canonical(rng);
  const float scale = 1.0F / temperature;
  const bool cut = topK >= 1 && static_cast<size_t>(topK) < n;
  const size_t kept = cut ? static_cast<size_t>(topK) : n;
  if (n <= kFewCandidates) return drawSorted(bestByRank(logits, n, scale, kept), u, topP);

  const Extent extent = loops.extent(logits, n, scale);
  // The largest weighs 1, as much as topP can ask for.
  if (isActive(topP) && std::isfinite(extent.largest)) return static_cast<int>(extent.firstLargest);
  if (extent.hasNan || !std::isfinite(extent.largest)) {
    return drawSorted(bestByRank(logits, n, scale, kept), u, topP);
  }
  const CandidateList all = {logits, n, scale, nullptr};
  return cut ? drawFromBest(all, extent, kept, u, loops) : drawFromAll(all, extent, u, loops);
}

}  // namespace qwen35rt
