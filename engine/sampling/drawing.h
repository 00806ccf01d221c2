// SPDX-License-Identifier: Apache-2.0
// From ranked values to one of them: top-k, top-p, min-p, temperature, draw.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "engine/sampling/ranking.h"
#include "engine/sampling_options.h"

namespace zem {

// A target that no sum of weights reaches.
inline constexpr double kNever = std::numeric_limits<double>::infinity();

// The options in the terms of the arithmetic, for `ids` values.
struct Cuts {
  Cuts(const SamplingOptions& options, size_t ids);

  bool any(size_t ids) const { return limit < ids || hasShare() || floor > 0.0; }
  bool hasShare() const { return share < 1.0; }

  bool greedy;
  size_t limit;  // how many stay at most
  double share;  // of all weights, to be kept together
  double floor;  // weight to reach, the largest being 1
  float scale;   // 1 / temperature
};

// The part of a ranking that stays.
struct Prefix {
  size_t count;  // of the weights given
  bool closed;   // whatever comes behind the weights given, no more stay
};

// What stays of weights in ranking order: up to the one with which their sum reaches
// `target`, and up to the last before one below `floor`.
Prefix prefixOf(std::span<const double> weights, double target, double floor);

// The first of `weights` with which their sum reaches `target`; their number if none does.
size_t indexAt(std::span<const double> weights, double target);

// e^(value - largest value) of ranked values, the first of which is finite.
std::vector<double> weightsOf(std::span<const Candidate> ranked);

// Ranked values times the scale, rounded to float and ranked anew: equal products rank by
// id. Where that of the first is no float, values equal to the first become 0 and all
// others negative infinity.
std::vector<Candidate> scaled(std::span<const Candidate> ranked, float scale);

// What the draw `u` selects from ranked values: of the scaled ones, the first with which the
// sum of weights reaches u times the sum of all. REQUIRES: at least one value.
uint32_t walk(std::span<const Candidate> kept, float scale, double u);

// What the cuts leave of values that are all that topK may keep, in ranking order. topP's
// total is summed from the lowest id up.
std::span<const Candidate> cut(std::span<const Candidate> ranked, const Cuts& cuts);

// The id that the draw `u`, 0 <= u < 1, selects.
uint32_t draw(const Ranking& ranking, const Cuts& cuts, double u);

}  // namespace zem
