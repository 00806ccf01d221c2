// SPDX-License-Identifier: Apache-2.0
// A small model with a decoder on the CPU and one on the machine's device.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <optional>
#include <vector>

#include "engine/model/shaped_model.h"
#include "engine/vulkan/resident_decoder.h"
#include "matmul/thread_team.h"
#include "support/needs_gpu.h"
#include "support/status_matchers.h"

namespace zemtest {

// Without a device its tests are skipped.
class ResidentTest : public ::testing::Test {
 protected:
  using Ids = std::vector<uint32_t>;
  using Floats = std::vector<float>;

  void SetUp() override {
    std::vector<kiv::vulkan::ListedDevice> devices;
    const kiv::Status status = kiv::vulkan::listDevices(devices);
    if (!status.ok()) ZEM_SKIP_WITHOUT_GPU("no Vulkan device: " + status.message());
  }

  void write(const kiv::Architecture& architecture, kiv::DType type = kiv::DType::F32) {
    writeShapedModel(file_, architecture, type);
    weights_ = openWeights(file_);
  }
  // Both decoders of the model that was written.
  void open(zem::ResidentOptions options = {}) {
    options.store.positions = std::max<size_t>(options.store.positions, 1);
    cpu_.emplace(*weights_, options.store.cacheType);
    ASSERT_THAT(zem::ResidentDecoder::open(*weights_, options, gpu_), IsOk());
  }

  Ids ids(size_t count, uint32_t seed = 1) const {
    return randomIds(count, weights_->shape().vocabulary, seed);
  }
  zem::ResidentSequence begin() {
    zem::ResidentSequence sequence;
    EXPECT_THAT(gpu_->store().begin(sequence), IsOk());
    return sequence;
  }

  // The logits of each of `ids`, one step a token.
  Floats onCpu(zem::SequenceState& sequence, const Ids& ids) {
    Floats all;
    Floats logits;
    for (const uint32_t& id : ids) {
      const zem::Chunk chunk{&sequence, {&id, 1}, zem::LogitsOf::Last};
      cpu_->step({&chunk, 1}, logits);
      all.insert(all.end(), logits.begin(), logits.end());
    }
    return all;
  }
  // The logits of each of `ids`, `together` tokens a step.
  Floats onGpu(zem::ResidentSequence& sequence, const Ids& ids, size_t together = 1) {
    Floats all;
    for (size_t i = 0; i < ids.size(); i += together) {
      const size_t count = std::min(together, ids.size() - i);
      const zem::ResidentChunk chunk{&sequence, std::span(ids).subspan(i, count),
                                     zem::LogitsOf::All};
      zem::ResidentResults results;
      EXPECT_THAT(gpu_->step({&chunk, 1}, {.candidates = 0, .logits = true}, results), IsOk());
      all.insert(all.end(), results.logits.begin(), results.logits.end());
    }
    return all;
  }

  qwen35::ThreadTeam team_{1};
  qwen35::UseTeam use_{team_};
  TempFile file_;
  std::unique_ptr<zem::Weights> weights_;
  std::optional<zem::Decoder> cpu_;
  std::unique_ptr<zem::ResidentDecoder> gpu_;
};

// The largest distance of `actual` from `wanted`, row by row, over the largest magnitude of the
// row. Infinite when a number is not finite.
inline double worstShare(const std::vector<float>& actual, const std::vector<float>& wanted,
                         size_t width) {
  EXPECT_EQ(actual.size(), wanted.size());
  double worst = 0;
  for (size_t row = 0; row + width <= std::min(actual.size(), wanted.size()); row += width) {
    double largest = 0;
    double distance = 0;
    for (size_t i = row; i < row + width; ++i) {
      largest = std::max(largest, std::abs(static_cast<double>(wanted[i])));
      const double off = std::abs(static_cast<double>(actual[i]) - static_cast<double>(wanted[i]));
      distance = std::isfinite(off) ? std::max(distance, off) : HUGE_VAL;
    }
    worst = std::max(worst, distance / largest);
  }
  return worst;
}

// A layer of each kind whose rows are whole blocks of 256.
inline kiv::Architecture blockArchitecture() {
  kiv::Architecture a = smallArchitecture();
  a.layers = 2;
  a.fullEvery = 2;
  a.width = 256;
  a.feedForward = 256;
  a.heads = 8;
  a.kvHeads = 2;
  a.headSize = 32;
  a.rotarySize = 16;
  a.keyHeads = 2;
  a.valueHeads = 8;
  a.stateSize = 32;
  return a;
}

}  // namespace zemtest
