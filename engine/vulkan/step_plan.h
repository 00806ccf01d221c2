// SPDX-License-Identifier: Apache-2.0
// All stages of a step, in order, with their buffers bound. Made once for a model; a command
// buffer for a number of tokens is recorded from it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <tuple>
#include <vector>

#include "engine/model/weights.h"
#include "engine/vulkan/resident_store.h"
#include "engine/vulkan/resident_weights.h"
#include "engine/vulkan/step_buffers.h"
#include "engine/vulkan/step_kernels.h"
#include "engine/vulkan/step_recorder.h"
#include "kiv/status.h"

namespace zem {

// What a recorded step computes.
struct StepShape {
  uint32_t tokens = 1;
  uint32_t runs = 1;
  uint32_t picks = 1;       // tokens with logits
  uint32_t candidates = 0;  // of each of them, at most kMostCandidates
  bool logits = false;      // copied to the host
  bool check = false;       // with the layers of checkLayers() alone

  std::tuple<uint32_t, uint32_t, uint32_t, uint32_t, bool, bool> key() const {
    return {tokens, runs, picks, candidates, logits, check};
  }
};

// Tokens from which on a product decodes its weights for all of them at once.
inline constexpr uint32_t kManyTokens = 8;

class StepPlan {
 public:
  // Everything named here outlives the plan.
  kiv::Status create(const Weights& weights, const ResidentWeights& resident,
                     const ResidentStore& store, const StepBuffers& buffers, StepKernels& kernels);

  // The first layer of each kind.
  static std::vector<size_t> checkLayers(const Weights& weights);

  // Between vkBeginCommandBuffer and vkEndCommandBuffer. With `logits`, the buffers have room for
  // them on the host.
  StepCounts record(VkCommandBuffer cmd, const StepShape& shape) const;

 private:
  class Builder;

  // A stage, and for a product what takes its place where there are many tokens.
  struct Planned {
    Stage stage;
    std::optional<Stage> many;
  };
  using Stages = std::vector<Planned>;
  static void run(const Stages& stages, const StepShape& shape, StepRecorder& recorder);

  const StepBuffers* buffers_ = nullptr;
  size_t vocabulary_ = 0;
  std::vector<size_t> checkLayers_;
  Stages embed_;
  std::vector<Stages> layers_;
  Stages head_;
  Stages top_;  // with kMostCandidates
};

}  // namespace zem
