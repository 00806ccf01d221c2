// SPDX-License-Identifier: Apache-2.0
#include "logits/logits_reader.h"

#include <algorithm>
#include <cmath>

#include "console/terminal.h"
#include "engine/sampling/log_probabilities.h"

namespace zemtool {
namespace {

double largestOf(std::span<const float> logits) {
  return static_cast<double>(*std::max_element(logits.begin(), logits.end()));
}

// What is subtracted from a logit for the logarithm of its probability.
double shiftOf(std::span<const float> logits) {
  const double largest = largestOf(logits);
  double sum = 0;
  for (const float x : logits) sum += std::exp(static_cast<double>(x) - largest);
  return largest + std::log(sum);
}

ptrdiff_t bestOf(std::span<const float> logits) {
  return std::max_element(logits.begin(), logits.end()) - logits.begin();
}

std::unique_ptr<zem::Weights> openWeights(const std::string& path) {
  std::unique_ptr<zem::Weights> weights;
  const kiv::Status status = zem::Weights::open(path, weights);
  if (!status.ok()) throw Failure("cannot compute with " + path + ": " + status.message());
  return weights;
}

}  // namespace

LogitsReader::LogitsReader(const std::string& path, const LogitsOptions& options)
    : path_(path),
      weights_(openWeights(path)),
      decoder_(std::make_unique<zem::Decoder>(*weights_, options.cache, options.arithmetic)),
      team_(options.threads) {
  beginText();
}

void LogitsReader::beginText() {
  sequence_ = std::make_unique<zem::SequenceState>(decoder_->newSequence());
}

std::span<const float> LogitsReader::feed(std::span<const uint32_t> ids) {
  const auto unknown =
      std::find_if(ids.begin(), ids.end(), [&](uint32_t id) { return id >= vocabulary(); });
  if (unknown != ids.end()) {
    throw Failure(path_ + " has " + std::to_string(vocabulary()) +
                  " tokens, and the text has the token " + std::to_string(*unknown));
  }
  const qwen35::UseTeam use(team_);
  const zem::Chunk chunk{sequence_.get(), ids, zem::LogitsOf::All};
  decoder_->step({&chunk, 1}, logits_);
  return logits_;
}

double surpriseOf(std::span<const float> logits, uint32_t id) {
  return -zem::logProbabilities(logits, id, 0).chosen;
}

Divergence divergenceOf(std::span<const float> first, std::span<const float> second) {
  const double p = shiftOf(first);
  const double q = shiftOf(second);
  double sum = 0;
  for (size_t i = 0; i < first.size(); ++i) {
    const double inFirst = static_cast<double>(first[i]) - p;
    const double inSecond = static_cast<double>(second[i]) - q;
    sum += std::exp(inFirst) * (inFirst - inSecond);
  }
  return {std::max(sum, 0.0), bestOf(first) == bestOf(second)};
}

}  // namespace zemtool
