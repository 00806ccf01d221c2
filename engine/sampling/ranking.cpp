// SPDX-License-Identifier: Apache-2.0
#include "engine/sampling/ranking.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <numeric>
#include <utility>

namespace zem {
namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
// From this share of the list on, sorting it is as fast as a search for the best.
constexpr size_t kLargeShare = 4;
// And so it is up to this many.
constexpr size_t kFewValues = 1024;
// So many ids are found fastest with a heap. Values in no particular order change one of n ids
// about n ln(size / n) times.
constexpr size_t kFewIds = 256;
constexpr size_t kMostChanges = 16 * kFewIds;
// Values that are passed over together when none of them is among the best.
constexpr size_t kBlock = 64;

const qwen35::SamplingLoops& loops() { return qwen35::kernelTable().sampling; }

qwen35::Extent extentOf(std::span<const float> values) {
  return loops().extent(values.data(), values.size(), 1.0F);
}

// What `x` counts as in values of which some may be infinite.
float orderly(float x, bool someInfinite) {
  if (someInfinite) return x == kInf ? 0.0F : -kInf;
  return std::isnan(x) ? -kInf : x;
}

// No branch inside, so that compilers compare several values at once.
bool anyAbove(std::span<const float> values, float floor) {
  unsigned above = 0;
  for (const float x : values) above |= x > floor ? 1U : 0U;
  return above != 0;
}

// Smaller for a better rank; the id in the lower half.
uint64_t rankKey(float value, uint32_t id) {
  constexpr uint32_t kSign = 0x80000000;
  const auto bits = std::bit_cast<uint32_t>(value + 0.0F);  // one zero
  const uint32_t ascending = (bits & kSign) != 0 ? ~bits : bits | kSign;
  return static_cast<uint64_t>(~ascending) << 32U | id;
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
  std::vector<uint64_t> keys;
  for (const uint32_t id : someBest(count)) keys.push_back(rankKey(values_[id], id));
  std::sort(keys.begin(), keys.end());
  std::vector<Candidate> ranked(count);
  for (size_t i = 0; i < count; ++i) {
    const auto id = static_cast<uint32_t>(keys[i]);
    ranked[i] = {values_[id], static_cast<int>(id)};
  }
  return ranked;
}

// Ids among which are the `count` best ones.
std::vector<uint32_t> Ranking::someBest(size_t count) const {
  if (count <= kFewIds && count < size()) {
    if (auto ids = fewBest(count)) return *std::move(ids);
  }
  std::vector<uint32_t> ids;
  if (size() > kFewValues && count > 0 && count < size() / kLargeShare) {
    for (const Candidate& each : qwen35::bestCandidates(list(1.0F), extent_, count, loops())) {
      ids.push_back(static_cast<uint32_t>(each.id));
    }
  } else {
    ids.resize(size());
    std::iota(ids.begin(), ids.end(), 0U);
  }
  return ids;
}

// The `count` best ids, found with a heap of the best so far; nothing where the values rise so
// often that another search is faster.
std::optional<std::vector<uint32_t>> Ranking::fewBest(size_t count) const {
  std::vector<uint32_t> best(count);
  std::iota(best.begin(), best.end(), 0U);
  if (count == 0) return best;
  const auto before = [&](uint32_t a, uint32_t b) {
    return values_[a] != values_[b] ? values_[a] > values_[b] : a < b;
  };
  std::make_heap(best.begin(), best.end(), before);  // the worst of them in front
  size_t changes = 0;
  for (size_t at = count; at < size(); at += kBlock) {
    const std::span<const float> block = values_.subspan(at, std::min(kBlock, size() - at));
    if (!anyAbove(block, values_[best.front()])) continue;
    for (size_t i = 0; i < block.size(); ++i) {
      if (!(block[i] > values_[best.front()])) continue;
      std::pop_heap(best.begin(), best.end(), before);
      best.back() = static_cast<uint32_t>(at + i);
      std::push_heap(best.begin(), best.end(), before);
      ++changes;
    }
    if (changes > kMostChanges) return std::nullopt;
  }
  return best;
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
