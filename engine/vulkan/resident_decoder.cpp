// SPDX-License-Identifier: Apache-2.0
#include "engine/vulkan/resident_decoder.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <string>

#include "kernels/reference.h"

namespace zem {
namespace {

using kiv::Status;

// Command buffers that are kept. One takes some hundred KiB.
constexpr size_t kMostRecorded = 16;

// What rounding may make of a logit, as a share of the largest: a hundred times what was measured.
constexpr double kMostShare = 1e-3;

// The largest distance of `actual` from `wanted` over the largest magnitude of `wanted`. Infinite
// for a number that is not finite; weights whose own results are not finite tell nothing.
double largestShare(const std::vector<float>& actual, const std::vector<float>& wanted) {
  double largest = 0;
  double distance = 0;
  for (size_t i = 0; i < wanted.size(); ++i) {
    if (!std::isfinite(wanted[i])) continue;
    if (!std::isfinite(actual[i])) return std::numeric_limits<double>::infinity();
    largest = std::max(largest, std::abs(static_cast<double>(wanted[i])));
    distance = std::max(distance, std::abs(static_cast<double>(actual[i]) - wanted[i]));
  }
  return distance == 0 ? 0 : distance / largest;
}

}  // namespace

Status ResidentDecoder::open(const Weights& weights, const ResidentOptions& options,
                             std::unique_ptr<ResidentDecoder>& out) {
  std::unique_ptr<ResidentDecoder> decoder(new ResidentDecoder(weights));
  if (Status status = decoder->create(options); !status.ok()) return status;
  out = std::move(decoder);
  return {};
}

Status ResidentDecoder::create(const ResidentOptions& options) {
  if (options.tokens == 0 || options.store.conversations == 0 || options.store.positions == 0) {
    return kiv::invalidFormat("a resident model needs room for tokens, conversations, positions");
  }
  mostTokens_ = options.tokens;
  Status status = resident_.load(weights_, options.device);
  kiv::vulkan::VulkanContext& ctx = resident_.context();
  if (status.ok()) status = kernels_.create(ctx);
  if (status.ok()) status = store_.create(ctx, weights_, options.store);
  if (status.ok()) {
    status = buffers_.create(ctx, weights_.shape(), mostTokens_, store_.pageCount());
  }
  if (status.ok()) status = plan_.create(weights_, resident_, store_, buffers_, kernels_);
  if (status.ok() && options.check) status = compareWithCpu(options.store.cacheType);
  return status;
}

// As many tokens as there is room for, three at most: the state and the pages count from the
// second one on.
Status ResidentDecoder::compareWithCpu(CacheType cacheType) {
  const auto last = static_cast<uint32_t>(weights_.shape().vocabulary - 1);
  const std::array<uint32_t, 3> all = {last / 2, 0, last};
  const std::span<const uint32_t> text(all.data(), std::min(all.size(), mostTokens_));
  ResidentSequence sequence;
  if (Status status = store_.begin(sequence); !status.ok()) return status;
  const ResidentChunk chunk{&sequence, text, LogitsOf::All};
  ResidentResults results;
  Status status = compute({&chunk, 1}, {.candidates = 0, .logits = true}, /*check=*/true, results);
  if (!status.ok()) return status;

  Decoder cpu(weights_, cacheType);
  cpu.useLayers(StepPlan::checkLayers(weights_));
  SequenceState state = cpu.newSequence();
  const Chunk same{&state, text, LogitsOf::All};
  std::vector<float> wanted;
  cpu.step({&same, 1}, wanted);
  const double share = largestShare(results.logits, wanted);
  if (share <= kMostShare) return {};
  return kiv::unsupported("the device " + device().deviceName +
                          " computes wrongly: a layer of each kind gives logits that are off by " +
                          std::to_string(share) + " of the largest, at most " +
                          std::to_string(kMostShare) + " comes from rounding");
}

ResidentDecoder::~ResidentDecoder() { forgetRecorded(); }

Status ResidentDecoder::step(std::span<const ResidentChunk> chunks, const ResultWish& wish,
                             ResidentResults& results) {
  return compute(chunks, wish, /*check=*/false, results);
}

Status ResidentDecoder::compute(std::span<const ResidentChunk> chunks, const ResultWish& wish,
                                bool check, ResidentResults& results) {
  counts_ = {};
  results = {};
  if (Status status = checkChunks(chunks, wish); !status.ok()) return status;
  if (chunks.empty()) return {};
  for (const ResidentChunk& chunk : chunks) {
    Status status = store_.reserve(*chunk.sequence, chunk.tokens.size());
    if (!status.ok()) return status;
  }
  StepShape shape = describe(chunks, wish);
  shape.check = check;
  Recorded recorded;
  if (Status status = recordedFor(shape, recorded); !status.ok()) return status;
  for (const ResidentChunk& chunk : chunks) chunk.sequence->begin();
  if (Status status = resident_.context().run(recorded.cmd); !status.ok()) return status;
  counts_.submissions = 1;
  counts_.stages = recorded.counts.stages;
  counts_.barriers = recorded.counts.barriers;
  takeResults(shape, results);
  for (const ResidentChunk& chunk : chunks) chunk.sequence->advance(chunk.tokens.size());
  return {};
}

Status ResidentDecoder::checkChunks(std::span<const ResidentChunk> chunks,
                                    const ResultWish& wish) const {
  if (wish.candidates > kMostCandidates) {
    return kiv::invalidFormat(std::to_string(wish.candidates) + " candidates, at most " +
                              std::to_string(kMostCandidates) + " can be ranked");
  }
  size_t tokens = 0;
  for (size_t i = 0; i < chunks.size(); ++i) {
    const ResidentChunk& chunk = chunks[i];
    if (chunk.sequence == nullptr || chunk.sequence->empty()) {
      return kiv::invalidFormat("a chunk without a sequence");
    }
    if (chunk.tokens.empty()) return kiv::invalidFormat("a chunk without tokens");
    if (chunk.sequence->broken()) return kiv::invalidFormat("a sequence whose last step failed");
    for (const uint32_t id : chunk.tokens) {
      if (id >= weights_.shape().vocabulary) {
        return kiv::invalidFormat("token " + std::to_string(id) + " is outside the vocabulary of " +
                                  std::to_string(weights_.shape().vocabulary));
      }
    }
    for (size_t j = 0; j < i; ++j) {
      if (chunks[j].sequence == chunk.sequence) return kiv::invalidFormat("a sequence twice");
    }
    tokens += chunk.tokens.size();
  }
  if (tokens <= mostTokens_) return {};
  return kiv::unsupported("a step of " + std::to_string(tokens) + " tokens, there is room for " +
                          std::to_string(mostTokens_));
}

// Writes what the shaders read of the step's tokens.
StepShape ResidentDecoder::describe(std::span<const ResidentChunk> chunks, const ResultWish& wish) {
  const size_t rotary = weights_.shape().rotarySize;
  const size_t half = rotary / 2;
  std::vector<float> cosines(half);
  std::vector<float> sines(half);
  StepShape shape{.tokens = 0, .runs = 0, .picks = 0};
  uint32_t pages = 0;
  for (const ResidentChunk& chunk : chunks) {
    const ResidentSequence& sequence = *chunk.sequence;
    const auto count = static_cast<uint32_t>(chunk.tokens.size());
    buffers_.runs.data[shape.runs++] = {shape.tokens, count, sequence.place()};
    for (uint32_t t = 0; t < count; ++t) {
      const uint32_t row = shape.tokens + t;
      const auto position = static_cast<uint32_t>(sequence.length() + t);
      buffers_.rows.data[row] = {chunk.tokens[t], position, pages};
      qwen35::reference::ropeAngles(rotary, position, cosines.data(), sines.data());
      float* turns = buffers_.turns.data + row * rotary;
      for (size_t i = 0; i < half; ++i) {
        turns[2 * i] = cosines[i];
        turns[2 * i + 1] = sines[i];
      }
    }
    std::copy(sequence.pages().begin(), sequence.pages().end(), buffers_.pages.data + pages);
    pages += static_cast<uint32_t>(sequence.pages().size());
    shape.tokens += count;
    for (auto left = static_cast<uint32_t>(logitRows(chunk.logits, chunk.tokens.size())); left > 0;
         --left) {
      buffers_.picks.data[shape.picks++] = shape.tokens - left;
    }
  }
  if (shape.picks > 0) {
    shape.candidates = static_cast<uint32_t>(wish.candidates);
    shape.logits = wish.logits;
  }
  counts_.bytesToDevice = shape.tokens * (sizeof(TokenRow) + rotary * sizeof(float)) +
                          shape.runs * sizeof(RunRow) + (shape.picks + pages) * sizeof(uint32_t);
  return shape;
}

Status ResidentDecoder::recordedFor(const StepShape& shape, Recorded& out) {
  const auto found = recorded_.find(shape.key());
  if (found != recorded_.end()) {
    out = found->second;
    return {};
  }
  if (shape.logits) {
    Status status = buffers_.createLogitsOut(resident_.context());
    if (!status.ok()) return status;
  }
  if (recorded_.size() >= kMostRecorded) forgetRecorded();
  if (Status status = record(shape, out); !status.ok()) {
    resident_.context().freeCommand(out.cmd);
    return status;
  }
  recorded_[shape.key()] = out;
  return {};
}

Status ResidentDecoder::record(const StepShape& shape, Recorded& out) {
  if (Status status = resident_.context().allocateCommand(&out.cmd); !status.ok()) return status;
  VkCommandBufferBeginInfo begin{};
  begin.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO;
  if (vkBeginCommandBuffer(out.cmd, &begin) != VK_SUCCESS) {
    return kiv::ioError("vkBeginCommandBuffer failed");
  }
  out.counts = plan_.record(out.cmd, shape);
  if (vkEndCommandBuffer(out.cmd) != VK_SUCCESS) return kiv::ioError("vkEndCommandBuffer failed");
  return {};
}

void ResidentDecoder::forgetRecorded() {
  for (const auto& [key, recorded] : recorded_) resident_.context().freeCommand(recorded.cmd);
  recorded_.clear();
}

void ResidentDecoder::takeResults(const StepShape& shape, ResidentResults& results) {
  results.rows = shape.picks;
  for (size_t i = 0; i < size_t{shape.picks} * shape.candidates; ++i) {
    const CandidateRow& row = buffers_.top.data[i];
    results.candidates.push_back({row.id, std::bit_cast<float>(row.valueBits)});
  }
  if (shape.logits) {
    const size_t count = shape.picks * weights_.shape().vocabulary;
    results.logits.assign(buffers_.logitsOut.data, buffers_.logitsOut.data + count);
  }
  counts_.bytesFromDevice =
      results.candidates.size() * sizeof(CandidateRow) + results.logits.size() * sizeof(float);
}

}  // namespace zem
