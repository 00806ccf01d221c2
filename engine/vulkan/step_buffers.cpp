// SPDX-License-Identifier: Apache-2.0
#include "engine/vulkan/step_buffers.h"

#include <algorithm>
#include <string>

#include "engine/vulkan/resident_weights.h"
#include "engine/vulkan/step_shaders.h"

namespace zem {

using kiv::Status;
using kiv::vulkan::BufferUse;
using kiv::vulkan::VulkanBuffer;

Status StepBuffers::create(kiv::vulkan::VulkanContext& ctx, const Shape& shape, size_t tokens,
                           size_t pageCount) {
  const uint64_t most = storageBufferLimit(ctx);
  Status status;
  const auto floats = [&](VulkanBuffer& buffer, uint64_t count) {
    if (!status.ok()) return;
    const uint64_t bytes = tokens * std::max<uint64_t>(count, 1) * sizeof(float);
    if (bytes > most) {
      status =
          kiv::unsupported("steps of " + std::to_string(tokens) + " tokens need a buffer of " +
                           std::to_string(bytes) + " bytes, a storage buffer of the device takes " +
                           std::to_string(most));
      return;
    }
    status = buffer.create(ctx, bytes, BufferUse::DeviceLocal);
  };
  const auto host = [&](auto& buffer, uint64_t count, BufferUse use) {
    if (status.ok()) status = buffer.create(ctx, std::max<uint64_t>(count, 1), use);
  };

  const uint64_t attention = shape.heads * shape.headSize;
  const uint64_t keys = shape.kvHeads * shape.headSize;
  host(rows, tokens, BufferUse::HostWrites);
  host(runs, tokens, BufferUse::HostWrites);
  host(picks, tokens, BufferUse::HostWrites);
  host(pages, pageCount, BufferUse::HostWrites);
  host(turns, tokens * shape.rotarySize, BufferUse::HostWrites);
  floats(x, shape.width);
  floats(normed, shape.width);
  floats(mixed, std::max({shape.channels(), 2 * attention, shape.feedForward}));
  floats(gate, std::max(shape.valueRows(), shape.feedForward));
  floats(beta, shape.valueHeads);
  floats(alpha, shape.valueHeads);
  floats(key, keys);
  floats(value, keys);
  floats(heads, std::max({attention, shape.valueRows(), shape.feedForward}));
  floats(parts, shape.heads * kAttentionSplits * (shape.headSize + 2));
  floats(logits, shape.vocabulary);
  const uint64_t topRows = (shape.vocabulary + kTopPart - 1) / kTopPart * kMostCandidates;
  floats(topParts, topRows * sizeof(CandidateRow) / sizeof(float));
  host(top, tokens * kMostCandidates, BufferUse::HostReads);
  return status;
}

Status StepBuffers::createLogitsOut(kiv::vulkan::VulkanContext& ctx) {
  if (logitsOut.data != nullptr) return {};
  Status status = logitsOut.create(ctx, logits.size() / sizeof(float), BufferUse::HostReads);
  if (!status.ok()) logitsOut = {};
  return status;
}

}  // namespace zem
