// SPDX-License-Identifier: Apache-2.0
/// \file
/// How tokens are chosen: the settings of one request.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "kiv/status.h"

namespace zem {

/// Added to the logit of one id. Negative infinity forbids the id.
struct LogitBias {
  uint32_t id = 0;    ///< of the vocabulary
  float bias = 0.0F;  ///< what is added
};

/// A penalty window that takes in everything that was recorded.
inline constexpr size_t kWholeReply = std::numeric_limits<size_t>::max();

/// As constructed, every feature is off: tokens are drawn from the softmax of the logits.
/// SamplerChain says what each feature does.
struct SamplingOptions {
  float temperature = 1.0F;            ///< 0 to 100; 0 takes the likeliest, 1 is off
  uint32_t topK = 0;                   ///< how many ids stay; 0 is off
  float topP = 1.0F;                   ///< 0 to 1, the probability to keep together; 1 is off
  float minP = 0.0F;                   ///< 0 to 1, the share of the best to reach; 0 is off
  float repeatPenalty = 1.0F;          ///< 0.01 to 100; 1 is off
  float presencePenalty = 0.0F;        ///< -100 to 100; 0 is off
  float frequencyPenalty = 0.0F;       ///< -100 to 100; 0 is off
  size_t penaltyWindow = kWholeReply;  ///< last tokens that the penalties look at; 0 is off
  std::vector<LogitBias> logitBias;    ///< added in this order; empty is off
  std::optional<uint64_t> seed;        ///< of the generator; without one it differs every time
};

/// Fails with InvalidFormat and "FIELD: found VALUE, needed RANGE" for the first field that
/// is out of its range. `tokens` is the number of known tokens: a bias for an id from there on
/// is refused.
kiv::Status validate(const SamplingOptions& options, uint32_t tokens);

/// What a request sets of the sampling. What it does not set is the model's default.
struct SamplingSettings {
  std::optional<float> temperature;       ///< see SamplingOptions, as for all others
  std::optional<uint32_t> topK;           ///< 0 is off
  std::optional<float> topP;              ///< 1 is off
  std::optional<float> minP;              ///< 0 is off
  std::optional<float> repeatPenalty;     ///< 1 is off
  std::optional<float> presencePenalty;   ///< 0 is off
  std::optional<float> frequencyPenalty;  ///< 0 is off
  std::optional<size_t> penaltyWindow;    ///< in tokens
  std::vector<LogitBias> logitBias;       ///< none: the default
  std::optional<uint64_t> seed;           ///< none: the default

  /// `defaults` with what is set here in its place.
  SamplingOptions over(SamplingOptions defaults) const;
};

/// What the publisher of the model family recommends for replies with and without thinking.
SamplingOptions defaultSampling(bool thinking);

}  // namespace zem
