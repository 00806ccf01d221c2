// SPDX-License-Identifier: Apache-2.0
// The buffers of a step: what the host says of its tokens, activations, results.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "engine/model/shape.h"
#include "engine/vulkan/resident_store.h"
#include "kiv/status.h"
#include "kiv/vulkan/vulkan_buffer.h"

namespace zem {

// Candidates of a token that the device can rank.
inline constexpr size_t kMostCandidates = 64;
// Parts that the pages of a token are split into, so that many workgroups attend.
inline constexpr uint32_t kAttentionSplits = 16;

// As the shaders read them.
struct TokenRow {
  uint32_t id;
  uint32_t position;
  uint32_t firstPage;  // of its conversation, among the pages
  uint32_t unused = 0;
};
struct RunRow {
  uint32_t first;  // token
  uint32_t count;
  uint32_t place;  // of its state
  uint32_t unused = 0;
};
struct CandidateRow {
  uint32_t valueBits;
  uint32_t id;
};

// A buffer that the host has mapped.
template <typename T>
struct HostBuffer {
  kiv::vulkan::VulkanBuffer buffer;
  T* data = nullptr;

  kiv::Status create(kiv::vulkan::VulkanContext& ctx, size_t count, kiv::vulkan::BufferUse use) {
    kiv::Status status = buffer.create(ctx, count * sizeof(T), use);
    void* mapped = nullptr;
    if (status.ok()) status = buffer.map(&mapped);
    if (status.ok()) data = static_cast<T*>(mapped);
    return status;
  }
};

struct StepBuffers {
  // For `tokens` tokens at most. Unsupported with the sizes when one of them would be larger than
  // the device takes; else the failures of VulkanBuffer.
  kiv::Status create(kiv::vulkan::VulkanContext& ctx, const Shape& shape, size_t tokens,
                     size_t pages);
  // Room for logits in the host's memory; made when they are first asked for.
  kiv::Status createLogitsOut(kiv::vulkan::VulkanContext& ctx);

  // Written by the host.
  HostBuffer<TokenRow> rows;
  HostBuffer<RunRow> runs;
  HostBuffer<uint32_t> picks;
  HostBuffer<uint32_t> pages;
  HostBuffer<float> turns;  // cosine and sine, pair by pair

  // Rows of all tokens.
  kiv::vulkan::VulkanBuffer x;
  kiv::vulkan::VulkanBuffer normed;
  kiv::vulkan::VulkanBuffer mixed;  // also queries, and the feed-forward block's up
  kiv::vulkan::VulkanBuffer gate;
  kiv::vulkan::VulkanBuffer beta;
  kiv::vulkan::VulkanBuffer alpha;
  kiv::vulkan::VulkanBuffer key;
  kiv::vulkan::VulkanBuffer value;
  kiv::vulkan::VulkanBuffer heads;  // what attention gives, or the gated feed-forward block
  kiv::vulkan::VulkanBuffer parts;
  kiv::vulkan::VulkanBuffer logits;
  kiv::vulkan::VulkanBuffer topParts;

  // Read by the host.
  HostBuffer<CandidateRow> top;
  HostBuffer<float> logitsOut;
};

}  // namespace zem
