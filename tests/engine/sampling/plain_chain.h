// SPDX-License-Identifier: Apache-2.0
// The sampler chain as it is defined: one step after the other, everything sorted.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <vector>

#include "engine/sampling/random.h"
#include "engine/sampling_options.h"
#include "kiv/math/exact_math.h"

namespace zemtest::plain_chain {

using zem::SamplingOptions;

struct Entry {
  float value;
  uint32_t id;
};

inline constexpr float kMinusInf = -std::numeric_limits<float>::infinity();

inline void sortByRank(std::vector<Entry>& entries) {
  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
    return a.value != b.value ? a.value > b.value : a.id < b.id;
  });
}

inline double weight(const Entry& entry, float largest) {
  return kiv::math::expF64(double{entry.value} - double{largest});
}

inline void penalise(std::vector<float>& x, const SamplingOptions& options,
                     const std::vector<uint32_t>& recorded) {
  std::map<uint32_t, int> counts;
  for (size_t i = 0; i < recorded.size(); ++i) {
    if (recorded.size() - i <= options.penaltyWindow) ++counts[recorded[i]];
  }
  for (const auto& [id, count] : counts) {
    if (id >= x.size()) continue;
    x[id] = x[id] > 0 ? x[id] / options.repeatPenalty : x[id] * options.repeatPenalty;
    x[id] -= options.presencePenalty;
    x[id] -= float(count) * options.frequencyPenalty;
  }
}

// Steps 1 to 4. `allowed` may be null; ids beyond it are refused.
inline std::vector<float> adjusted(std::vector<float> x, const SamplingOptions& options,
                                   uint32_t tokens, const std::vector<uint32_t>& recorded,
                                   const std::vector<bool>* allowed) {
  if (x.size() > tokens) x.resize(tokens);
  penalise(x, options, recorded);
  for (const zem::LogitBias& bias : options.logitBias) {
    if (bias.id < x.size()) x[bias.id] += bias.bias;
  }
  bool infinite = false;
  for (size_t id = 0; id < x.size(); ++id) {
    const bool refused = allowed != nullptr && (id >= allowed->size() || !(*allowed)[id]);
    if (std::isnan(x[id]) || refused) x[id] = kMinusInf;
    infinite = infinite || x[id] == -kMinusInf;
  }
  for (float& value : x) {
    if (infinite) value = value == -kMinusInf ? 0.0F : kMinusInf;
  }
  return x;
}

// Steps 5 to 7: what stays, by rank.
inline std::vector<Entry> kept(const std::vector<float>& x, const SamplingOptions& options) {
  std::vector<Entry> entries;
  for (uint32_t id = 0; id < x.size(); ++id) {
    if (x[id] > kMinusInf) entries.push_back({x[id], id});
  }
  sortByRank(entries);
  if (options.topK > 0 && options.topK < entries.size()) entries.resize(options.topK);
  if (entries.empty()) return entries;
  const float largest = entries[0].value;
  if (options.topP < 1.0F) {
    std::vector<Entry> byId = entries;
    std::sort(byId.begin(), byId.end(), [](const Entry& a, const Entry& b) { return a.id < b.id; });
    double total = 0.0;
    for (const Entry& entry : byId) total += weight(entry, largest);
    double sum = 0.0;
    size_t count = 0;
    while (count < entries.size()) {
      sum += weight(entries[count++], largest);
      if (sum >= double{options.topP} * total) break;
    }
    entries.resize(count);
  }
  while (weight(entries.back(), largest) < double{options.minP}) entries.pop_back();
  return entries;
}

// Step 8.
inline uint32_t drawn(std::vector<Entry> entries, float temperature, double u) {
  if (temperature == 0.0F) return entries[0].id;
  const float scale = std::min(1.0F / temperature, std::numeric_limits<float>::max());
  const float largest = entries[0].value;
  for (Entry& entry : entries) {
    if (std::isfinite(largest * scale)) {
      entry.value *= scale;
    } else {
      entry.value = entry.value == largest ? 0.0F : kMinusInf;
    }
  }
  sortByRank(entries);
  double total = 0.0;
  for (const Entry& entry : entries) total += weight(entry, entries[0].value);
  double sum = 0.0;
  for (const Entry& entry : entries) {
    sum += weight(entry, entries[0].value);
    if (sum >= u * total) return entry.id;
  }
  return entries.back().id;
}

class Chain {
 public:
  Chain(const SamplingOptions& options, uint32_t tokens)
      : options_(options), tokens_(tokens), random_(*options.seed) {}

  void record(uint32_t id) { recorded_.push_back(id); }

  std::optional<uint32_t> next(const std::vector<float>& logits,
                               const std::vector<bool>* allowed = nullptr) {
    const double u = random_.fraction();
    const auto entries = kept(adjusted(logits, options_, tokens_, recorded_, allowed), options_);
    if (entries.empty()) return std::nullopt;
    return drawn(entries, options_.temperature, u);
  }

 private:
  SamplingOptions options_;
  uint32_t tokens_;
  zem::Random random_;
  std::vector<uint32_t> recorded_;
};

}  // namespace zemtest::plain_chain
