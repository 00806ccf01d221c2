// SPDX-License-Identifier: Apache-2.0
// Tokens of conversations through a model that lies on a Vulkan device as a whole: weights,
// recurrent states, pages of keys and values, activations and the head. A step is one submission.
// The host says which tokens stand where, some bytes a token, and receives the first candidates
// or, when it asks, logits.
//
// How a step is computed:
//   step_plan.h      the stages of all layers, with their buffers bound: made once for a model
//   step_recorder.h  a command buffer from them, with barriers only where data flows; recorded
//                    once for a number of tokens and run again for each step of that shape
//   step_buffers.h   what the host says of tokens, activations, results
//   resident_store.h, resident_weights.h   what stays on the device from step to step
//
// Results are not the same bits as those of Decoder, which sums in another order; they are close.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <vector>

#include "engine/model/decoder.h"
#include "engine/vulkan/resident_store.h"
#include "engine/vulkan/resident_weights.h"
#include "engine/vulkan/step_buffers.h"
#include "engine/vulkan/step_kernels.h"
#include "engine/vulkan/step_plan.h"
#include "kiv/status.h"

namespace zem {

struct ResidentOptions {
  uint64_t device = kiv::vulkan::kAnyDevice;  // its index; past the end: the automatic one
  StoreSizes store{};
  size_t tokens = kBatchTokens;  // of one step at most
  bool check = true;             // whether the device computes what the CPU computes
};

// The next tokens of one conversation; a step has each conversation once at most.
struct ResidentChunk {
  ResidentSequence* sequence;
  std::span<const uint32_t> tokens;  // at least one, each below the vocabulary's size
  LogitsOf logits = LogitsOf::None;  // of which of them there are results
};

// What a step gives for each token that asked.
struct ResultWish {
  size_t candidates = 1;  // the first ones, at most kMostCandidates
  bool logits = false;
};

struct Candidate {
  uint32_t id;
  float logit;
};

struct ResidentResults {
  size_t rows = 0;                    // tokens that asked, in the order of the chunks
  std::vector<Candidate> candidates;  // those of a row lie together, the largest logit first, of
                                      // equal ones the lower id; never NaN. Fewer than asked for
                                      // have the id kNoCandidate behind them.
  std::vector<float> logits;          // a row of the vocabulary's size each
};
inline constexpr uint32_t kNoCandidate = ~uint32_t{0};

// What the last step took.
struct ResidentCounts {
  size_t submissions = 0;
  size_t stages = 0;
  size_t barriers = 0;
  size_t bytesToDevice = 0;
  size_t bytesFromDevice = 0;
};

// One thread at a time. `weights` outlives it; it outlives its sequences.
class ResidentDecoder {
 public:
  // Sets up a device, copies the model to it, and compares a layer of each kind and the head with
  // the CPU. Unsupported with the distance when the device gives something else; other failures
  // are those of the parts above. Throws std::bad_alloc.
  static kiv::Status open(const Weights& weights, const ResidentOptions& options,
                          std::unique_ptr<ResidentDecoder>& out);
  ~ResidentDecoder();

  const kiv::vulkan::VulkanDeviceInfo& device() { return resident_.context().info(); }
  ResidentStore& store() { return store_; }

  // Computes the chunks together. InvalidFormat for a chunk that breaks the rules and Unsupported
  // for more tokens or pages than there is room for: sequences are then as before. After a
  // failure of the device, IOError, they are broken. Throws std::bad_alloc.
  kiv::Status step(std::span<const ResidentChunk> chunks, const ResultWish& wish,
                   ResidentResults& results);

  const ResidentCounts& lastCounts() const { return counts_; }
  // The device is lost: nothing more can be computed on it, or read from it.
  bool lost() { return resident_.context().lost(); }

 private:
  struct Recorded {
    VkCommandBuffer cmd = VK_NULL_HANDLE;
    StepCounts counts;
  };

  explicit ResidentDecoder(const Weights& weights) : weights_(weights) {}
  kiv::Status create(const ResidentOptions& options);
  kiv::Status compareWithCpu(CacheType cacheType);
  kiv::Status compute(std::span<const ResidentChunk> chunks, const ResultWish& wish, bool check,
                      ResidentResults& results);
  kiv::Status checkChunks(std::span<const ResidentChunk> chunks, const ResultWish& wish) const;
  StepShape describe(std::span<const ResidentChunk> chunks, const ResultWish& wish);
  kiv::Status recordedFor(const StepShape& shape, Recorded& out);
  kiv::Status record(const StepShape& shape, Recorded& out);
  void forgetRecorded();
  void takeResults(const StepShape& shape, ResidentResults& results);

  const Weights& weights_;
  size_t mostTokens_ = 0;
  ResidentWeights resident_;  // has the context
  StepKernels kernels_;
  ResidentStore store_;
  StepBuffers buffers_;
  StepPlan plan_;
  std::map<decltype(StepShape().key()), Recorded> recorded_;
  ResidentCounts counts_;
};

}  // namespace zem
