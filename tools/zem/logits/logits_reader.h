// SPDX-License-Identifier: Apache-2.0
// What a model expects behind each token of a text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "engine/model/decoder.h"
#include "engine/model/weights.h"
#include "matmul/thread_team.h"

namespace zemtool {

// How logits are computed.
struct LogitsOptions {
  size_t threads = 1;
  zem::CacheType cache = zem::CacheType::F32;
  zem::Arithmetic arithmetic = zem::Arithmetic::Exact;
};

// One thread.
class LogitsReader {
 public:
  // Throws Failure, which names the file, when the model does not open.
  LogitsReader(const std::string& path, const LogitsOptions& options);

  const kiv::ZEMLoader& loader() const { return weights_->loader(); }
  size_t vocabulary() const { return decoder_->vocabulary(); }

  // The next token is the first of a text.
  void beginText();
  // Feeds the next tokens, at most kBatchTokens, and returns the logits behind each: rows of
  // vocabulary() floats, valid until the next call. Throws Failure for an id that the model lacks.
  std::span<const float> feed(std::span<const uint32_t> ids);

 private:
  std::string path_;
  std::unique_ptr<zem::Weights> weights_;
  std::unique_ptr<zem::Decoder> decoder_;
  std::unique_ptr<zem::SequenceState> sequence_;
  qwen35::ThreadTeam team_;
  std::vector<float> logits_;
};

// The negative logarithm of a token's probability, in nats.
double surpriseOf(std::span<const float> logits, uint32_t id);

// How two models differ behind one token.
struct Divergence {
  double nats = 0;        // KL(first || second)
  bool sameBest = false;  // both expect the same token the most
};
Divergence divergenceOf(std::span<const float> first, std::span<const float> second);

}  // namespace zemtool
