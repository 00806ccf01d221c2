// SPDX-License-Identifier: Apache-2.0
#include "sampling/candidates.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>

#include "kiv/math/exact_math.h"

namespace qwen35 {
namespace {

constexpr size_t kBlock = 1024;
constexpr size_t kBuckets = 1024;
// Lists up to here are sorted rather than narrowed down.
constexpr size_t kSortable = 512;
// Each narrowing divides what the list spans by the number of buckets. A list that
// is still long after three is made of equal values or was made to be so.
constexpr int kNarrowings = 3;
// A weight further down is below 2^-66 of the largest.
constexpr float kWidestSpan = 46.0F;

// Equal buckets from the largest value of a list down.
class Bucketing {
 public:
  Bucketing(const Extent& extent, const SamplingLoops& loops)
      : loops_(loops), top_(extent.largest), allEqual_(!(extent.largest > extent.smallest)) {
    const float span = std::min(extent.largest - extent.smallest, kWidestSpan);
    resolution_ = std::min((kBuckets - 1) / span, std::numeric_limits<float>::max());
  }

  // How many candidates each bucket has.
  std::array<uint32_t, kBuckets> count(const CandidateList& list) const {
    Apart<uint32_t> counts{};
    std::array<uint32_t, kBlock> buckets;
    for (size_t at = 0; at < list.n; at += kBlock) {
      const size_t count = std::min(kBlock, list.n - at);
      bucketsOf(list, at, count, buckets.data());
      for (size_t i = 0; i < count; ++i) ++counts[i % kApart][buckets[i]];
    }
    return together(counts);
  }

  // The weights in each bucket together.
  std::array<double, kBuckets> weigh(const CandidateList& list, float max) const {
    Apart<double> sums{};
    if (allEqual_) {
      sums[0][0] = static_cast<double>(list.n) * weightOf(top_, max);
      return together(sums);
    }
    std::array<uint32_t, kBlock> buckets;
    std::array<double, kBlock> weights;
    for (size_t at = 0; at < list.n; at += kBlock) {
      const size_t count = std::min(kBlock, list.n - at);
      bucketsOf(list, at, count, buckets.data());
      loops_.weights(list.x + at, count, list.scale, max, weights.data());
      for (size_t i = 0; i < count; ++i) sums[i % kApart][buckets[i]] += weights[i];
    }
    return together(sums);
  }

  // Calls visit(i, bucket) for the candidates in buckets `first` to `last`, in the
  // order of the list. Collecting them first keeps unpredictable branches out of the
  // loop over all candidates.
  template <typename Visit>
  void forEach(const CandidateList& list, uint32_t first, uint32_t last, const Visit& visit) const {
    std::array<uint32_t, kBlock> buckets;
    std::array<uint32_t, kBlock> found;
    for (size_t at = 0; at < list.n; at += kBlock) {
      const size_t count = std::min(kBlock, list.n - at);
      bucketsOf(list, at, count, buckets.data());
      size_t end = 0;
      for (uint32_t i = 0; i < count; ++i) {
        found[end] = i;
        end += buckets[i] - first <= last - first ? 1 : 0;
      }
      for (size_t i = 0; i < end; ++i) visit(at + found[i], buckets[found[i]]);
    }
  }

 private:
  // Neighbours in the list are counted apart: an addition waits for the one before
  // it in the same place.
  static constexpr size_t kApart = 4;
  template <typename Number>
  using Apart = std::array<std::array<Number, kBuckets>, kApart>;

  template <typename Number>
  static std::array<Number, kBuckets> together(const Apart<Number>& apart) {
    std::array<Number, kBuckets> sums{};
    for (const auto& part : apart) {
      for (size_t b = 0; b < kBuckets; ++b) sums[b] += part[b];
    }
    return sums;
  }

  void bucketsOf(const CandidateList& list, size_t at, size_t count, uint32_t* buckets) const {
    loops_.buckets(list.x + at, count, list.scale, top_, resolution_, kBuckets - 1, buckets);
  }

  const SamplingLoops& loops_;
  float top_;
  bool allEqual_;
  float resolution_;
};

Candidate candidateAt(const CandidateList& list, size_t i) {
  return {list.x[i] * list.scale, list.ids != nullptr ? list.ids[i] : static_cast<int>(i)};
}

// A list that owns its arrays.
struct OwnCandidates {
  std::vector<float> values;
  std::vector<int> ids;

  void add(const Candidate& candidate) {
    values.push_back(candidate.value);
    ids.push_back(candidate.id);
  }
  CandidateList list() const { return {values.data(), values.size(), 1.0F, ids.data()}; }
};

// A list on its way down to the bucket that matters.
struct Narrowed {
  Narrowed(const CandidateList& whole, const Extent& wholeExtent)
      : list(whole), extent(wholeExtent) {}

  bool divisible() const { return list.n > kSortable && extent.largest > extent.smallest; }

  void replaceBy(OwnCandidates candidates, const SamplingLoops& loops) {
    owned = std::move(candidates);
    list = owned.list();
    extent = loops.extent(list.x, list.n, list.scale);
  }

  CandidateList list;
  Extent extent;
  OwnCandidates owned;
};

std::vector<Candidate> allOf(const CandidateList& list) {
  std::vector<Candidate> all(list.n);
  for (size_t i = 0; i < list.n; ++i) all[i] = candidateAt(list, i);
  return all;
}

// How far a sum may be off, as a share of the sum of all weights. The walk that is
// imitated makes n additions for the sum and n subtractions; here every weight is in
// at most 2 n + 3 kBuckets additions, and n + kBuckets for the sum. Each of them is
// off by at most 2^-53 of the sum of all weights; the rest is reserve.
double roundingShare(size_t n) {
  return 0x1p-53 * 8 * static_cast<double>(n + (kNarrowings + 1) * kBuckets);
}

}  // namespace

bool ranksBefore(const Candidate& a, const Candidate& b) {
  if (a.value > b.value) return true;
  if (a.value < b.value) return false;
  const bool aNan = std::isnan(a.value);
  const bool bNan = std::isnan(b.value);
  return aNan == bNan ? a.id < b.id : bNan;
}

double weightOf(float value, float max) {
  return kiv::math::expF64(static_cast<double>(value) - static_cast<double>(max));
}

std::vector<Candidate> bestCandidates(const CandidateList& list, const Extent& extent, size_t count,
                                      const SamplingLoops& loops) {
  std::vector<Candidate> best;
  Narrowed rest(list, extent);
  for (int i = 0; i < kNarrowings && rest.divisible(); ++i) {
    const Bucketing bucketing(rest.extent, loops);
    const std::array<uint32_t, kBuckets> counts = bucketing.count(rest.list);
    uint32_t last = 0;  // the bucket in which the last of the best lies
    for (size_t sum = best.size() + counts[0]; sum < count; sum += counts[last]) ++last;
    OwnCandidates within;
    bucketing.forEach(rest.list, 0, last, [&](size_t at, uint32_t bucket) {
      const Candidate candidate = candidateAt(rest.list, at);
      if (bucket < last) {
        best.push_back(candidate);
      } else {
        within.add(candidate);
      }
    });
    rest.replaceBy(std::move(within), loops);
  }
  std::vector<Candidate> last = allOf(rest.list);
  const auto missing = last.begin() + static_cast<std::ptrdiff_t>(count - best.size());
  if (!std::is_sorted(last.begin(), last.end(), ranksBefore) && missing != last.end()) {
    std::nth_element(last.begin(), missing, last.end(), ranksBefore);
  }
  best.insert(best.end(), last.begin(), missing);
  return best;
}

std::optional<int> drawByWeight(const CandidateList& list, const Extent& extent, double u,
                                const SamplingLoops& loops) {
  const float max = extent.largest;
  double target = 0.0;
  double margin = 0.0;
  double before = 0.0;  // the weights of all that rank before the list
  Narrowed rest(list, extent);
  for (int i = 0; i < kNarrowings && (i == 0 || rest.divisible()); ++i) {
    const Bucketing bucketing(rest.extent, loops);
    const std::array<double, kBuckets> sums = bucketing.weigh(rest.list, max);
    if (i == 0) {
      double total = 0.0;
      for (const double sum : sums) total += sum;
      target = u * total;
      margin = total * roundingShare(list.n);
    }
    uint32_t chosen = 0;
    while (chosen + 1 < kBuckets && before + sums[chosen] < target) before += sums[chosen++];
    if (!(rest.extent.largest > rest.extent.smallest)) break;
    OwnCandidates within;
    bucketing.forEach(rest.list, chosen, chosen,
                      [&](size_t at, uint32_t) { within.add(candidateAt(rest.list, at)); });
    rest.replaceBy(std::move(within), loops);
  }
  std::vector<Candidate> last = allOf(rest.list);
  if (!std::is_sorted(last.begin(), last.end(), ranksBefore)) {
    std::sort(last.begin(), last.end(), ranksBefore);
  }
  float value = std::numeric_limits<float>::quiet_NaN();
  double weight = 0.0;
  for (const Candidate& candidate : last) {
    if (candidate.value != value) weight = weightOf(candidate.value, max);
    value = candidate.value;
    const double after = before + weight;
    if (after >= target) {
      const bool certain = before + margin < target && target < after - margin;
      return certain ? std::optional<int>(candidate.id) : std::nullopt;
    }
    before = after;
  }
  return std::nullopt;
}

}  // namespace qwen35
