// SPDX-License-Identifier: Apache-2.0
#include "engine/vulkan/transfer.h"

#include <algorithm>
#include <utility>

namespace zem {

using kiv::Status;
using kiv::vulkan::VulkanBuffer;

Status Transfer::prepare() {
  if (mapped_ != nullptr) return {};
  Status status = staging_.create(ctx_, kStagingBytes, kiv::vulkan::BufferUse::HostReads);
  void* mapped = nullptr;
  if (status.ok()) status = staging_.map(&mapped);
  if (!status.ok()) {
    staging_.destroy();
    return status;
  }
  mapped_ = static_cast<uint8_t*>(mapped);
  return {};
}

Status Transfer::read(const VulkanBuffer& from, size_t offset, void* to, size_t bytes) {
  return add(from, offset, static_cast<uint8_t*>(to), nullptr, bytes);
}

Status Transfer::write(const void* from, const VulkanBuffer& to, size_t offset, size_t bytes) {
  return add(to, offset, nullptr, static_cast<const uint8_t*>(from), bytes);
}

Status Transfer::add(const VulkanBuffer& buffer, size_t offset, uint8_t* read,
                     const uint8_t* written, size_t bytes) {
  if (Status status = prepare(); !status.ok()) return status;
  for (size_t done = 0; done < bytes;) {
    if (used_ == kStagingBytes) {
      if (Status status = finish(); !status.ok()) return status;
    }
    const size_t some = std::min(bytes - done, kStagingBytes - used_);
    const size_t place = offset + done;
    if (written != nullptr) {
      std::copy_n(written + done, some, mapped_ + used_);
      pieces_.push_back(
          {buffer.handle(), {.srcOffset = used_, .dstOffset = place, .size = some}, nullptr});
    } else {
      pieces_.push_back(
          {buffer.handle(), {.srcOffset = place, .dstOffset = used_, .size = some}, read + done});
    }
    used_ += some;
    done += some;
  }
  return {};
}

Status Transfer::finish() {
  const std::vector<Piece> pieces = std::exchange(pieces_, {});
  used_ = 0;
  if (pieces.empty()) return {};
  VkCommandBuffer cmd = VK_NULL_HANDLE;
  if (Status status = ctx_.beginCommand(&cmd); !status.ok()) return status;
  kiv::vulkan::recordFullBarrier(cmd);  // after what shaders wrote before
  for (const Piece& piece : pieces) {
    const bool reads = piece.host != nullptr;
    vkCmdCopyBuffer(cmd, reads ? piece.buffer : staging_.handle(),
                    reads ? staging_.handle() : piece.buffer, 1, &piece.region);
  }
  kiv::vulkan::recordFullBarrier(cmd);
  if (Status status = ctx_.submitAndWait(cmd); !status.ok()) return status;
  for (const Piece& piece : pieces) {
    if (piece.host != nullptr) {
      std::copy_n(mapped_ + piece.region.dstOffset, piece.region.size, piece.host);
    }
  }
  return {};
}

}  // namespace zem
