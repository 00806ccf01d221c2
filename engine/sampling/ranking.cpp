// SPDX-License-Identifier: Apache-2.0
#include "engine/sampling/ranking.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace zem {
namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
// From this share of the list on, sorting it is as fast as a search for the best.
constexpr size_t kLargeShare = 4;
// And so it is up to this many.
constexpr size_t kFewValues = 1024;

const qwen35::SamplingLoops& loops() { return qwen35::kernelTable().sampling; }

qwen35::Extent extentOf(std::span<const float> values) {
  return loops().extent(values.data(), values.size(), 1.0F);
}

// What `x` counts as in values of which some may be infinite.
float orderly(float x, bool someInfinite) {
  if (someInfinite) return x == kInf ? 0.0F : -kInf;
  return std::isnan(x) ? -kInf : x;
}

}  // namespace

std::optional<Ranking> Ranking::of(std::span<const float> values, std::vector<float>& storage) {
  qwen35::Extent extent = extentOf(values);
  if (extent.largest == -kInf) return std::nullopt;
  const bool someInfinite = extent.largest == kInf;
  if (someInfinite || extent.hasNan) {
    if (values.data() != storage.data()) storage.assign(values.begin(), values.end());
    const std::span<float> changed(storage.data(), values.size());
    for (float& x : changed) x = orderly(x, someInfinite);
    values = changed;
    extent = extentOf(values);
  }
  return Ranking(values, extent);
}

std::vector<Candidate> Ranking::best(size_t count) const {
  count = std::min(count, size());
  if (count == 0) return {};
  std::vector<Candidate> found;
  if (size() > kFewValues && count < size() / kLargeShare) {
    found = qwen35::bestCandidates(list(1.0F), extent_, count, loops());
  } else {
    found.resize(size());
    for (size_t i = 0; i < size(); ++i) found[i] = {values_[i], static_cast<int>(i)};
  }
  std::sort(found.begin(), found.end(), qwen35::ranksBefore);
  found.resize(count);
  return found;
}

double Ranking::mass(float scale) const {
  std::array<double, 1024> weights;
  double sum = 0.0;
  for (size_t at = 0; at < size(); at += weights.size()) {
    const size_t count = std::min(weights.size(), size() - at);
    loops().weights(values_.data() + at, count, scale, largest() * scale, weights.data());
    for (size_t i = 0; i < count; ++i) sum += weights[i];
  }
  return sum;
}

std::optional<uint32_t> Ranking::drawFromAll(float scale, double u) const {
  qwen35::Extent extent = extent_;
  extent.largest *= scale;
  extent.smallest *= scale;
  const std::optional<int> id = qwen35::drawByWeight(list(scale), extent, u, loops());
  return id ? std::optional(static_cast<uint32_t>(*id)) : std::nullopt;
}

}  // namespace zem
