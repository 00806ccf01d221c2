// SPDX-License-Identifier: Apache-2.0
#include "engine/sampling/constrained_draw.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <vector>

namespace zem {
namespace {

// After so many tests a mask is the better way.
constexpr size_t kMostTests = 64;
// More than all sums together can be off by rounding, as a share of them.
constexpr double kSlack = 1e-9;
constexpr float kForbidden = -std::numeric_limits<float>::infinity();

double sumOf(std::span<const double> weights) {
  return std::accumulate(weights.begin(), weights.end(), 0.0);
}

// The weight of a ranking's ids behind the tested ones, at one scale.
class Rest {
 public:
  Rest(const Ranking& ranking, float scale) : ranking_(ranking), scale_(scale) {}

  void tested(const Candidate& candidate) { tested_ += weight(candidate.value, largest()); }

  // A bound for `count` ids of values up to `next`; the largest allowed value weighs 1.
  double most(size_t count, float next, float allowed) {
    const double byCount = static_cast<double>(count) * weight(next, allowed);
    return (1.0 + kSlack) * byCount;
  }

  // A bound for all of them.
  double mostOfAll(float allowed) {
    if (mass_ == 0.0) mass_ = ranking_.mass(scale_);
    const double left = std::max(0.0, mass_ - tested_) + kSlack * mass_;
    return left / weight(allowed, largest());
  }

 private:
  float largest() const { return ranking_.largest(); }
  double weight(float value, float max) const {
    return qwen35::weightOf(value * scale_, max * scale_);
  }

  const Ranking& ranking_;
  float scale_;
  double tested_ = 0.0;
  double mass_ = 0.0;  // of the whole ranking, once it was asked for
};

// A draw among ids of which only the likeliest are tested.
class PartialDraw {
 public:
  PartialDraw(const Ranking& ranking, const Cuts& cuts, double u)
      : ranking_(ranking),
        cuts_(cuts),
        u_(u),
        rest_(ranking, 1.0F),
        scaledRest_(ranking, cuts.scale) {}

  // The id of the next rank. `behind`: no value behind it is larger.
  void add(const Candidate& candidate, bool allowed, float behind) {
    ++tested_;
    behind_ = behind;
    rest_.tested(candidate);
    scaledRest_.tested(candidate);
    if (allowed) allowed_.push_back(candidate);
  }

  std::optional<uint32_t> result() {
    if (allowed_.empty()) return std::nullopt;
    if (cuts_.greedy) return static_cast<uint32_t>(allowed_.front().id);
    if (untested() == 0) return walk(cut(allowed_, cuts_), cuts_.scale, u_);
    return resultWithin();
  }

 private:
  bool isFiniteScaled(float value) const { return std::isfinite(value * cuts_.scale); }

  // How many more ids can stay.
  size_t untested() const {
    return std::min(cuts_.limit - allowed_.size(), ranking_.size() - tested_);
  }

  double bound(Rest& rest) const {
    const float allowed = allowed_.front().value;
    const double byCount = rest.most(untested(), behind_, allowed);
    return cuts_.limit < ranking_.size() ? byCount : std::min(byCount, rest.mostOfAll(allowed));
  }

  // What stays of the allowed ids when the untested ones weigh `rest` together.
  Prefix kept(std::span<const double> weights, double rest, double slack) const {
    const double total = (sumOf(weights) + rest) * (1.0 + slack);
    return prefixOf(weights, cuts_.hasShare() ? cuts_.share * total : kNever, cuts_.floor);
  }

  bool nothingBehindReachesFloor() const {
    return qwen35::weightOf(behind_, allowed_.front().value) * (1.0 + kSlack) < cuts_.floor;
  }

  std::optional<uint32_t> resultWithin() {
    const std::vector<double> weights = weightsOf(allowed_);
    const Prefix least = kept(weights, 0.0, -kSlack);
    Prefix most = kept(weights, cuts_.hasShare() ? bound(rest_) : 0.0, kSlack);
    most.closed = most.closed || nothingBehindReachesFloor();
    const std::span<const Candidate> sure = std::span(allowed_).first(least.count);
    if (most.closed && most.count == least.count) return walk(sure, cuts_.scale, u_);
    return selectedWhateverStays(sure, most);
  }

  // `sure` stays, and maybe more of the allowed ones, up to `most`, and of the untested ones.
  std::optional<uint32_t> selectedWhateverStays(std::span<const Candidate> sure,
                                                const Prefix& most) {
    if (!isFiniteScaled(ranking_.largest()) || !isFiniteScaled(sure.front().value)) {
      return std::nullopt;
    }
    const std::vector<Candidate> ranked = scaled(sure, cuts_.scale);
    const std::vector<double> weights = weightsOf(ranked);
    double more = most.closed ? 0.0 : bound(scaledRest_);
    for (size_t i = sure.size(); i < most.count; ++i) {
      more += qwen35::weightOf(allowed_[i].value * cuts_.scale, ranked.front().value);
    }
    const double total = sumOf(weights);
    const size_t first = indexAt(weights, u_ * (total * (1.0 - kSlack)));
    const size_t last = indexAt(weights, u_ * ((total + more) * (1.0 + kSlack)));
    if (first != last || last == weights.size()) return std::nullopt;
    // Among equal products the id decides, and not all ids are known.
    const float unsure = sure.size() < allowed_.size() ? allowed_[sure.size()].value : behind_;
    if (!(ranked[first].value > unsure * cuts_.scale)) return std::nullopt;
    return static_cast<uint32_t>(ranked[first].id);
  }

  const Ranking& ranking_;
  const Cuts& cuts_;
  double u_;
  Rest rest_;
  Rest scaledRest_;
  std::vector<Candidate> allowed_;
  size_t tested_ = 0;
  float behind_ = std::numeric_limits<float>::infinity();
};

}  // namespace

std::optional<uint32_t> drawByTests(const Ranking& ranking, const Cuts& cuts, double u,
                                    const TokenFilter& filter) {
  const std::vector<Candidate> best = ranking.best(kMostTests);
  PartialDraw partial(ranking, cuts, u);
  for (size_t i = 0; i < best.size() && best[i].value > kForbidden; ++i) {
    const float behind = best[std::min(i + 1, best.size() - 1)].value;
    partial.add(best[i], filter.allows(static_cast<uint32_t>(best[i].id)), behind);
    if (const std::optional<uint32_t> id = partial.result()) return id;
  }
  return std::nullopt;
}

}  // namespace zem
