// SPDX-License-Identifier: Apache-2.0
// Copies between buffers of the device and memory of the host, several in one submission.
#pragma once

#include <cstddef>
#include <vector>

#include "kiv/status.h"
#include "kiv/vulkan/vulkan_buffer.h"

namespace zem {

// Either reads or writes: finish() between the two. Places and sizes are multiples of four bytes.
// A failure leaves nothing pending; what was copied by then stays. One thread at a time; the
// context outlives it.
class Transfer {
 public:
  explicit Transfer(kiv::vulkan::VulkanContext& ctx) : ctx_(ctx) {}

  // `bytes` bytes of `from`, from `offset` on, will be at `to` after finish().
  kiv::Status read(const kiv::vulkan::VulkanBuffer& from, size_t offset, void* to, size_t bytes);
  // Copies `from` at once; the device has it after finish().
  kiv::Status write(const void* from, const kiv::vulkan::VulkanBuffer& to, size_t offset,
                    size_t bytes);
  kiv::Status finish();

 private:
  static constexpr size_t kStagingBytes = size_t{4} << 20;

  struct Piece {
    VkBuffer buffer;
    VkBufferCopy region;
    uint8_t* host;  // null in a write
  };

  kiv::Status prepare();
  kiv::Status add(const kiv::vulkan::VulkanBuffer& buffer, size_t offset, uint8_t* read,
                  const uint8_t* written, size_t bytes);

  kiv::vulkan::VulkanContext& ctx_;
  kiv::vulkan::VulkanBuffer staging_;
  uint8_t* mapped_ = nullptr;
  size_t used_ = 0;
  std::vector<Piece> pieces_;
};

}  // namespace zem
