// SPDX-License-Identifier: Apache-2.0
#include "engine/sampling_options.h"

#include <array>
#include <charconv>
#include <string>
#include <string_view>
#include <utility>

namespace zem {
namespace {

// The shortest decimal that reads back as `x`, whatever the locale.
std::string decimal(float x) {
  std::array<char, 48> text;
  const auto written = std::to_chars(text.data(), text.data() + text.size(), x);
  return {text.data(), written.ptr};
}

kiv::Status outOfRange(std::string_view field, const std::string& found, std::string_view needed) {
  return kiv::invalidFormat(std::string(field) + ": found " + found + ", needed " +
                            std::string(needed));
}

struct Range {
  const char* field;
  float found;
  float least;
  float most;
  const char* needed;
};

kiv::Status validateBias(const std::vector<LogitBias>& biases, uint32_t tokens) {
  for (const LogitBias& bias : biases) {
    const std::string field = "logit bias of id " + std::to_string(bias.id);
    if (bias.id >= tokens) {
      return kiv::invalidFormat(field + ": found no such token, needed an id below " +
                                std::to_string(tokens));
    }
    if (!(bias.bias <= std::numeric_limits<float>::max())) {
      return outOfRange(field, decimal(bias.bias), "a number or negative infinity");
    }
  }
  return {};
}

}  // namespace

kiv::Status validate(const SamplingOptions& options, uint32_t tokens) {
  const Range ranges[] = {
      {"temperature", options.temperature, 0.0F, 100.0F, "0 to 100"},
      {"top-p", options.topP, 0.0F, 1.0F, "0 to 1"},
      {"min-p", options.minP, 0.0F, 1.0F, "0 to 1"},
      {"repeat penalty", options.repeatPenalty, 0.01F, 100.0F, "0.01 to 100"},
      {"presence penalty", options.presencePenalty, -100.0F, 100.0F, "-100 to 100"},
      {"frequency penalty", options.frequencyPenalty, -100.0F, 100.0F, "-100 to 100"},
  };
  for (const Range& range : ranges) {
    if (range.found >= range.least && range.found <= range.most) continue;
    return outOfRange(range.field, decimal(range.found), range.needed);
  }
  return validateBias(options.logitBias, tokens);
}

SamplingOptions SamplingSettings::over(SamplingOptions defaults) const {
  SamplingOptions options = std::move(defaults);
  options.temperature = temperature.value_or(options.temperature);
  options.topK = topK.value_or(options.topK);
  options.topP = topP.value_or(options.topP);
  options.minP = minP.value_or(options.minP);
  options.repeatPenalty = repeatPenalty.value_or(options.repeatPenalty);
  options.presencePenalty = presencePenalty.value_or(options.presencePenalty);
  options.frequencyPenalty = frequencyPenalty.value_or(options.frequencyPenalty);
  options.penaltyWindow = penaltyWindow.value_or(options.penaltyWindow);
  if (!logitBias.empty()) options.logitBias = logitBias;
  if (seed) options.seed = seed;
  return options;
}

SamplingOptions defaultSampling(bool thinking) {
  SamplingOptions options;
  options.temperature = thinking ? 1.0F : 0.7F;
  options.topP = thinking ? 0.95F : 0.8F;
  options.topK = 20;
  options.presencePenalty = 1.5F;
  return options;
}

}  // namespace zem
