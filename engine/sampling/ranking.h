// SPDX-License-Identifier: Apache-2.0
// The order of a vocabulary's values, found without sorting them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "sampling/candidates.h"

namespace zem {

using qwen35::Candidate;

// Values by id, which rank from the largest down, equal ones by id. The largest is finite
// and none is NaN. Does not own the values.
class Ranking {
 public:
  // The ranking of `values`, with NaN as negative infinity. Where some are infinite, they
  // become 0 and all others negative infinity: they share all probability. Nothing when no
  // value is above negative infinity. Values that have to be changed go to `storage`, which
  // may hold `values` itself; both must live as long as the ranking.
  static std::optional<Ranking> of(std::span<const float> values, std::vector<float>& storage);

  size_t size() const { return values_.size(); }
  float operator[](size_t id) const { return values_[id]; }
  float largest() const { return extent_.largest; }
  uint32_t first() const { return static_cast<uint32_t>(extent_.firstLargest); }

  // The first `count` of the ranking, or all if there are not so many, in its order.
  std::vector<Candidate> best(size_t count) const;

  // The sum of e^(value * scale - largest * scale), from id 0 upward in double. The products
  // are rounded to float; that of the largest has to be finite.
  double mass(float scale) const;

  // What the draw `u` selects from all ids by these weights; nothing where only a walk
  // down the whole ranking can tell (qwen35::drawByWeight).
  std::optional<uint32_t> drawFromAll(float scale, double u) const;

 private:
  Ranking(std::span<const float> values, const qwen35::Extent& extent)
      : values_(values), extent_(extent) {}

  std::optional<std::vector<uint32_t>> fewBest(size_t count) const;
  std::vector<uint32_t> someBest(size_t count) const;

  qwen35::CandidateList list(float scale) const {
    return {values_.data(), values_.size(), scale, nullptr};
  }

  std::span<const float> values_;
  qwen35::Extent extent_;
};

}  // namespace zem
